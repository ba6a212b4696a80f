// Request texts: fields by bars, "flags|command|identifier|arguments".
#pragma once

#include "decode.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

// What of the threads is asked for.
struct ThreadQuestion {
    bool details = false;   // stacks and locks
    bool all = false;       // idle threads too
    bool locals = true;     // data of other tiers, for which local variables are read
    bool figures = true;    // what Java knows of each thread; details have it anyway
    bool repeated = false;  // one of a series: the agent keeps its log silent
    std::string thread_key; // "process-thread": this thread alone, with details
};
std::string ThreadsRequest(const ThreadQuestion &question);

// The whole stack of one thread.
std::string StackRequest(std::string_view thread_key);

// Who holds the lock that a thread waits for.
std::string LockHolderRequest(const LockWait &wait, std::string_view thread_key);

// The objects in the locals of a method that a thread runs; the method as the stack's frame has it.
std::string LocalsRequest(int64_t thread, const Frame &frame);

// The fields of the object that carries a tag; of a JVM read by address also the statics of the class there.
std::string ObjectRequest(int64_t tag, bool as_class);

// Whether a tag is an address, as those of a JVM read by address are. Others end at 50,000.
constexpr bool IsAddress(int64_t tag) {
    return tag >= 1 << 16;
}

std::string SummaryRequest(bool repeated);

// Pools of the heap and the kinds of collections; the JVM's own collectors; the heap as a whole; the classes
// that hold the most of it.
std::string HeapRequest(bool repeated);
std::string CollectorsRequest(bool repeated);
std::string MemoryRequest(bool repeated);
// What the spaces of a JVM read by address hold.
std::string KindsRequest(bool repeated);
// `copy_flags`: FLAG_COPY, FLAG_NO_COPY or none.
std::string HistogramRequest(uint32_t copy_flags);

// The directory that dumps are written to, and a dump into it. The name's ending decides its form.
std::string DumpDirRequest(std::string_view dir);
std::string DumpRequest(std::string_view name, uint32_t heap_id, uint32_t copy_flags);

// The thread that a database's client port belongs to.
std::string PortHolderRequest(int port);

// The client ports that processes of a database server serve: the server's own port, the address that the
// clients come from, and process ids joined by commas.
std::string SessionsRequest(int port, std::string_view client_host, std::string_view processes);

// Whether the last sample was left without the locals of its frames.
std::string WalkStateRequest();

// The agent's version.
std::string VersionRequest();

// A setting, "qorloglevel" and the like.
std::string SettingRequest(std::string_view key, std::string_view value);

// Idle rules from the text of a file. Lines end by line feed, carriage return or both; on the wire a carriage
// return ends each, because a line feed ends the request. Throws a Failure when the text doesn't fit a
// request.
std::string RulesRequest(std::string_view rules);

// One line for each rule that the agent would drop or never look at; empty when all is well.
std::vector<std::string> CheckRules(std::string_view rules);

// Rules of drivers and containers: the requests that hand over a text, the last of which puts it in force,
// and the one for a page of the text in force. Line ends as above.
std::vector<std::string> TierRequests(std::string_view rules);
std::string TierPageRequest(size_t page);

// Whether a user's text has the form of a thread id or key, and isn't a thread's name.
bool IsThreadNumber(std::string_view text);

// The key that a user's "THREAD" or "PROCESS-THREAD" stands for, `process` being the JVM's own idea of its
// id. Throws a usage Failure for anything else.
std::string ThreadKeyText(std::string_view text, int64_t process);

// Throws a Failure unless the text can travel as one request line.
void CheckRequest(std::string_view request);

} // namespace qorctl
