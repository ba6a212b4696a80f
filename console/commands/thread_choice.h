// The thread that a user means.
#pragma once

#include "base/process.h"
#include "base/settings.h"
#include "wire/decode.h"

namespace qorctl {

// The key of the thread that `text` names: an id, a key, or a name, which the JVM is then asked for.
std::string RequireThreadKey(const Settings &settings, const Process &process, const std::string &text);

// That thread with its whole stack. Throws a Failure when there is none.
ThreadSample RequireStack(const Settings &settings, pid_t pid, const std::string &thread);

} // namespace qorctl
