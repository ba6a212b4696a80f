// Who waits for what, out of a sample with details.
#pragma once

#include "base/terminal.h"
#include "json.h"
#include "wire/decode.h"

namespace qorctl {

constexpr char OWNER_UNKNOWN[] = "owner unknown";

// The thread of this name, or else the one whose name alone holds the text, in any case. Throws a Failure
// that names the candidates when there are several, or none.
const Thread &FindByName(const ThreadSample &sample, const std::string &text);

// The thread of this key; null when the sample has none.
const Thread *FindByKey(const ThreadSample &sample, const std::string &key);

// The thread that holds the lock `waiter` waits for; null when it isn't known.
const Thread *HolderOf(const ThreadSample &sample, const Thread &waiter);

// Threads that wait for each other in a ring, each ring once, as they follow each other.
std::vector<std::vector<const Thread *>> FindDeadlocks(const ThreadSample &sample);

// One row a waiting thread, and a line for each deadlock.
std::string LocksText(const ThreadSample &sample, const Style &style);
Json LocksJson(const ThreadSample &sample);

// One waiting thread.
std::string WaiterLine(const Thread &waiter, const Style &style);
std::string HolderLine(const Thread &holder, const Style &style);
Json LockJson(const ThreadSample &sample, const Thread &waiter);
// "held by virtual thread #42 NAME", or of an unknown one that it is one; "" for other owners.
std::string VirtualHolderText(const ThreadSample &sample, const Thread &waiter);

Json BriefJson(const Thread &thread);

} // namespace qorctl
