// Bytes over a socket, with an end to each wait.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace qorctl {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::seconds;

// When a wait ends, and for how long it was begun.
struct Deadline {
    Clock::time_point at;
    Seconds limit;
};

// Waits until the descriptor is ready for `events` of poll(); false at the deadline.
bool WaitFor(int fd, short events, Clock::time_point deadline);

enum class Transfer { DONE, CLOSED, LATE };

// Sends all of the text; CLOSED when the other side has hung up.
Transfer Send(int fd, std::string_view text, Clock::time_point deadline);

// Appends what has come, at most `limit` bytes, to `text`.
Transfer Receive(int fd, std::string *text, size_t limit, Clock::time_point deadline);

} // namespace qorctl
