// Waiting for a JVM's answer: after 5 s what it does instead is said on standard error, once a command, and a
// wait that ends without an answer fails with that as its reason.
#pragma once

#include "base/failure.h"
#include "base/transfer.h"

#include <sys/types.h>

namespace qorctl {

class Patience {
public:
    Patience(pid_t pid, Clock::time_point deadline);

    // Calls `act` with the time until which it may wait, again after the 5 s; `act` returns false when it was
    // late. The same is returned.
    template <class Act>
    bool Wait(Act act) {
        while (Clock::now() < look_at_ && look_at_ < deadline_) {
            if (act(look_at_))
                return true;
            Check();
        }
        return act(deadline_);
    }

    // For waits that poll: says what the JVM does when 5 s are over.
    void Check();

    // How a late answer is reported: what the JVM does, or `otherwise` when nothing is found out.
    Failure Late(const Failure &otherwise) const;

private:
    pid_t pid_;
    Clock::time_point look_at_, deadline_;
};

} // namespace qorctl
