// A JVM's attach listener: a command goes in, a text comes back.
//
// HotSpot's attach protocol, as JDK 8 to 25 speak it: a file .attach_pidN in the JVM's working directory or
// /tmp and a SIGQUIT make the JVM open a socket .java_pidN in /tmp; one request of NUL-ended texts goes in
// ("1", "load", "instrument", "false", "JAR=OPTIONS"), one text comes back and the JVM hangs up. The JVM
// trusts files and peers of its own user alone (newer ones trust root as well), so root takes that user's
// identity for the exchange.
#pragma once

#include "base/process.h"
#include "base/transfer.h"

#include <initializer_list>
#include <string>
#include <string_view>

namespace qorctl {

// Where the JVM looks for what calls its attach listener: its working directory first.
struct AttachPlaces {
    FileDescriptor cwd, tmp; // cwd may be closed to us
};

// A process held by descriptor, so that a signal can't reach a later process of the same number.
class Target {
public:
    explicit Target(pid_t pid);
    bool Alive() const { return Signal(0); }
    bool Signal(int number) const;

private:
    pid_t pid_;
    FileDescriptor fd_;
};

// Exchanges with one JVM.
class AttachChannel {
public:
    // Throws a Failure when the process can't or mustn't be attached to.
    explicit AttachChannel(const Process &process);

    // A command and its three arguments; the JVM's reply up to its hanging up. Empty when the JVM would have
    // to be called by a signal first, and `call` is false. Throws a Failure at the deadline.
    std::string Ask(std::initializer_list<std::string_view> words, Clock::time_point deadline, bool call);

private:
    Process process_;
    Target target_;
    AttachPlaces places_;
};

} // namespace qorctl
