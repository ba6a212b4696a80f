// A JVM as `qorctl list` shows it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qorctl {

enum class AgentState { UNKNOWN, ABSENT, RUNNING };

struct JvmEntry {
    pid_t pid = 0;
    std::string user;
    std::string java_version; // empty when not known
    std::string main_class;
    AgentState agent = AgentState::UNKNOWN;
    // TCP ports that it listens at, but for the agent's; nothing when that isn't known.
    std::optional<std::vector<uint16_t>> ports;
    std::string note; // why it can't be attached to, or what is in doubt; else empty
};

} // namespace qorctl
