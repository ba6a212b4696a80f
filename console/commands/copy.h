// Whether a dump or histogram is made by a copy of the JVM, which then is paused for the copying alone.
#pragma once

#include "base/settings.h"
#include "jvm/endpoint.h"

#include <cstdint>
#include <string>

namespace qorctl {

struct CopyChoice {
    uint32_t flags = 0; // of the request
    bool copied = false;
    std::string why; // no copy is made; may be empty

    // What the user is told after the figures.
    std::string Note() const;
};

// What `reply` says: a copy where one can be made, else as the agent's setting has it. An agent that doesn't
// know the question makes none.
CopyChoice ChooseCopy(std::string_view reply);

// Whether it says that nothing but a copy can do the work.
bool OnlyByCopy(std::string_view reply);

// Asks the agent for it; with `stop` the JVM itself shall do the work. Throws a Failure where it can't.
CopyChoice AskForCopy(Connection *connection, const Settings &settings, std::string_view kind, bool stop);

} // namespace qorctl
