#include "transfer.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

namespace qorctl {

bool WaitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd entry = {fd, events, 0};
        int ready = poll(&entry, 1, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

Transfer Send(int fd, std::string_view text, Clock::time_point deadline) {
    while (!text.empty()) {
        ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0)
            text.remove_prefix(static_cast<size_t>(sent));
        else if (errno == EAGAIN && !WaitFor(fd, POLLOUT, deadline))
            return Transfer::LATE;
        else if (errno != EAGAIN && errno != EINTR)
            return Transfer::CLOSED;
    }
    return Transfer::DONE;
}

Transfer Receive(int fd, std::string *text, size_t limit, Clock::time_point deadline) {
    char part[65536];
    for (;;) {
        if (!WaitFor(fd, POLLIN, deadline))
            return Transfer::LATE;
        ssize_t got = recv(fd, part, std::min(sizeof part, limit), MSG_DONTWAIT);
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (got <= 0)
            return Transfer::CLOSED;
        text->append(part, static_cast<size_t>(got));
        return Transfer::DONE;
    }
}

} // namespace qorctl
