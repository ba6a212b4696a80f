// Serves a text by HTTP at /metrics.
#pragma once

#include <functional>
#include <string>

namespace qorctl {

struct MetricsPlace {
    std::string socket;  // path of a Unix socket that its owner alone can connect to; empty: `address`
    std::string address; // "ADDRESS:PORT", of IPv6 "[ADDRESS]:PORT"; port 0 takes a free one
    std::string token;   // that callers must send as "Authorization: Bearer TOKEN"; empty: none
};

// Serves until SIGINT or SIGTERM. `ready` is called once with where it listens. Throws a Failure when it
// can't listen.
void ServeMetrics(const MetricsPlace &place, const char *type, const std::function<std::string()> &text,
                  const std::function<void(const std::string &)> &ready);

} // namespace qorctl
