// The view of virtual threads that no carrier runs, in groups of the same stack and state.
#pragma once

#include "decode.h"

#include <utility>

namespace qorctl {

struct VirtualQuestion {
    bool details = false; // a member's stack
    bool all = false;     // idle ones too
    bool repeated = false;
    std::string match; // a text that a frame's "class->method" holds; "": any
};
std::string VirtualThreadsRequest(const VirtualQuestion &question);

struct VirtualGroup {
    int64_t number = 0;
    std::string waits_for, container; // class, name; "" none
    ThreadKey owner;                  // thread 0: nobody's or not known
    int depth = 0;
    Thread member;              // one of them: key, state, call, work in other tiers; its stack with details
    std::vector<Thread> others; // some more of those that work in other tiers: key, state and that work
};

struct VirtualThreads {
    bool available = false;
    std::string reason; // without: why not
    int64_t count = 0, in_executors = 0, mounted = 0, sampled = 0, groups_found = 0;
    bool cut_by_limits = false, cut_by_rows = false;
    bool count_cut = false; // there are at least `count`
    std::string note;
    std::vector<std::pair<std::string, int64_t>> states; // of the sampled ones
    std::vector<VirtualGroup> groups;
    std::optional<uint64_t> jvm_microseconds;
    bool cut = false; // the reply had no room for all
};

// Throws a Failure when the agent doesn't know the view.
VirtualThreads DecodeVirtualThreads(const Reply &reply);

} // namespace qorctl
