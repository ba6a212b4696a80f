#pragma once

#include <string>

namespace qorctl {

// What most commands share.
struct Settings {
    bool json = false;
    bool wide = false;
    bool strict = false; // only an agent that is proven to be the JVM's own is asked
    std::string jar;     // empty: the usual places
    std::string options; // for the agent, when it is loaded
    bool cost = false;   // say last for how long the JVM was stopped
    std::string budget;  // milliseconds that a request may stop the JVM; empty: as many as it takes
    int timeout = 75;    // seconds to wait for a reply; the agent's own limit is 60
};

} // namespace qorctl
