// Replies to values.
//
// A reply is flat text cut by control characters into sections, records and fields. OpenReply does that
// cutting and recognises the agent's refusals; each view then has its own function that reads the
// sections it knows. The grammar is strict: a record of the wrong shape is a Failure, because a guessed value
// is worse than none. One thing is forgiven: the agent's reply buffer is finite, so a reply may stop
// anywhere. What is whole before that point is kept and the result is flagged as cut.
//
// Pure functions of their arguments; the views they return hold copies, not references into the reply.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

// One section: a title and its records. `closed` says that its end mark was there, `last_record_ended` that
// the mark of its last record was.
struct Section {
    std::string_view title;
    std::vector<std::string_view> records;
    bool closed = false;
    bool last_record_ended = false;
};

// A reply cut into sections; the views in it point into the text given to OpenReply.
struct Reply {
    std::vector<Section> sections;
    std::string_view text;                    // everything before the timing
    std::optional<uint64_t> jvm_microseconds; // time the agent spent on it
    bool reached_limit = false;               // something had no room in it
};

// Cuts a reply. A refusal ("Request TIMED OUT", "Invalid Request ...", ...) is thrown as a Failure with a
// hint.
Reply OpenReply(std::string_view text);

// Whether the agent gave up waiting for its worker, which goes on with the request.
bool IsTimedOut(std::string_view text);

// Process id and Java thread id, as the JVM sees them; of a JVM read by address the system's thread id.
// Process 0: the thread's id is all there is.
struct ThreadKey {
    int64_t process = 0;
    int64_t thread = 0;
    std::string Text() const;
};

// Where a frame is, as a JVM read by address reports it: what the frame's locals are asked for by.
struct FramePlace {
    int kind = 0;
    uint64_t fp = 0, pc = 0, sp = 0, method = 0;
};

struct Frame {
    std::string class_name;
    std::string method;
    std::string file; // empty when unknown
    int line = 0;     // 0 when unknown: a native method, or code without line numbers
    int index = 0;    // 0 at the top of the stack
    int64_t method_id = 0;
    std::optional<bool> user; // whether it is a call of the application; only the view of one stack says
    std::optional<FramePlace> place; // of a JVM read by address
    bool framework = false; // not a frame but the object that a framework works on there: no index, no method
    int64_t skipped = 0;    // not a frame but this many frames left out, the first of them at `index`
};

struct DbWait {
    std::optional<std::string> url, user, remote_host, sql, type;
    unsigned local_port = 0, remote_port = 0;
    int64_t sample_time = 0; // seconds since 1970, 0 unknown
    int64_t sql_ref = 0;
    bool sql_by_ref = false; // the text has to be asked for
};

struct RmiWait {
    int64_t call_id = 0;
    int64_t remote_port = 0;
    std::optional<std::string> remote_host, jndi_name;
};

// What the Java side adds to a thread: its figures, what the agent found of its file, its application server
// and its network peer, and texts of the application's own.
struct EndToEnd {
    std::optional<int64_t> cpu_nanoseconds, allocated_bytes; // since the thread started
    std::optional<std::string> file, application, module, work_manager, session, peer;
    std::optional<std::string>
        carrier; // of a virtual thread: the key of the thread that it runs on, "^" unknown
    std::optional<std::string> carries;    // of a platform thread: the key of the virtual thread on it
    std::optional<std::string> lock_owner; // name of the virtual thread that owns the lock waited for
    std::optional<std::string> rule;       // "read": some of it comes by a rule known from sources alone
    std::optional<int64_t> stuck, hogger;  // 0 or 1
    std::vector<std::string> texts;
};

struct LockWait {
    int64_t lock = 0;
    ThreadKey owner; // thread 0 when the owner isn't known
    std::string class_name;
    bool by_address = false; // the number is an object's address, hexadecimal on the wire
};

struct OwnedLock {
    int64_t lock = 0;
    std::string class_name;
    int depth = -1;        // index of the frame that took it; negative when unknown
    std::string call = {}; // "class->method" that took it, where no index is reported
};

struct Thread {
    std::string name;
    ThreadKey key;
    std::string state;
    std::optional<std::string> request_url, request_detail;
    std::optional<Frame> call; // the first call of the application, else the top frame
    std::optional<DbWait> db;
    std::optional<RmiWait> rmi;
    EndToEnd end_to_end;
    std::vector<Frame> stack; // only with details
    bool stack_cut = false;   // the agent had no room for its bottom
    std::optional<LockWait> waits_for;
    std::optional<OwnedLock> parked_on; // what no thread owns, such as a latch
    std::vector<OwnedLock> owns;
};

struct ThreadSample {
    std::vector<Thread> threads;
    std::optional<uint64_t> jvm_microseconds;
    bool cut = false;
};

// What is shown of the thread that holds a lock.
struct LockHolder {
    enum Answer {
        MOVED_ON,  // the waiter doesn't wait for this lock any more
        NOBODY,    // no thread holds it, as far as is known
        NO_FRAMES, // a thread without Java frames holds it
        FOUND,
    };
    Answer answer = MOVED_ON;
    Thread thread; // when found: without a stack
    std::optional<uint64_t> jvm_microseconds;
};

// The thirteen figures of the summary, in the order of the wire.
enum SummaryFigure {
    SYSTEM_CPU_PERCENT,
    OS_RESPONSE_MICROSECONDS,
    HEAP_PERCENT,
    THREADS_RUNNABLE,
    THREADS_DB_WAIT,
    THREADS_LOCK,
    THREADS_NETWORK_WAIT,
    THREADS_IO_WAIT,
    THREADS_OBJECT_WAIT,
    THREADS_SLEEPING,
    THREADS_RMI_WAIT,
    THREADS_OTHER,
    PROCESS_CPU_PERCENT,
    SUMMARY_FIGURES
};

struct FigureName {
    const char *key;   // in JSON
    const char *label; // for people
    const char *unit;  // "" for a plain count
};
extern const FigureName SUMMARY_NAMES[SUMMARY_FIGURES];

// Whether a figure is about the processors.
bool IsCpuFigure(int figure);

struct Summary {
    std::optional<int64_t> figures[SUMMARY_FIGURES];
    std::optional<uint64_t> jvm_microseconds;
};

// The thread sample in all its forms: rows of active threads, rows of all threads, and thread records with
// stacks and locks.
ThreadSample DecodeThreads(const Reply &reply);

// One thread with its whole stack and its locks; no thread when the JVM has none with this key.
ThreadSample DecodeStack(const Reply &reply);

// How many threads of a sample lack the bottom of their stack.
int CutStacks(const ThreadSample &sample);

// Adds to a thread what another sample of it says about other tiers. Of its calls out of the JVM only those
// that go with the state it has in both.
void TakeTiers(const Thread &from, Thread *thread);

// Who holds the lock that a thread waits for.
LockHolder DecodeLockHolder(const Reply &reply);

// The summary line.
Summary DecodeSummary(const Reply &reply);

// A plain answer, such as that of a setting.
std::string DecodeText(const Reply &reply);

} // namespace qorctl
