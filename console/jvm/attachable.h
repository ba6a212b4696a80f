// Whether a process is a JVM that can be attached to, and that may be.
//
// A SIGQUIT ends a process that doesn't expect it, and a JVM that won't open its socket answers it with a
// thread dump on its standard output. It is sent only to a process that maps HotSpot's library, catches the
// signal and hasn't switched attaching off.
#pragma once

#include "base/process.h"

#include <string>

namespace qorctl {

// Throws a Failure unless the process is HotSpot and hasn't switched attaching off.
void CheckAttachable(const Process &process);

// Throws a Failure unless the process catches the signal that calls its attach listener.
void CheckMaySignal(const Process &process);

// Throws a Failure when the process is stopped, by a signal or a debugger.
void CheckRuns(const Process &process);

// Throws a Failure unless we run as the process's user or as root.
void CheckUser(const Process &process);

// Whether the JVM's attach listener is there or can be called by a signal.
bool ListensForAttach(const Process &process);

// The listener's socket in the JVM's /tmp.
std::string AttachSocketName(const Process &process);

} // namespace qorctl
