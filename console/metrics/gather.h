// Takes figures of several JVMs at once.
#pragma once

#include "base/process.h"
#include "base/settings.h"
#include "jvm/endpoint.h"
#include "openmetrics.h"

#include <chrono>
#include <optional>
#include <vector>

namespace qorctl {

class Gatherer {
public:
    // The JVMs of these processes, into which the agent is loaded where it isn't; throws a Failure when that
    // can't be done.
    Gatherer(const Settings &settings, const std::vector<pid_t> &pids);
    // All JVMs of this machine that have the agent, also those that come.
    explicit Gatherer(const Settings &settings);

    // Asks every JVM, all at the same time and as a poll does. What is younger than a second is returned
    // again, so that it costs the JVMs the same however many ask.
    const std::vector<JvmReading> &Read();

private:
    struct Jvm {
        pid_t pid;
        JvmLabels labels;
        std::optional<Connection> connection;
        std::chrono::steady_clock::time_point not_before; // the next try to connect
    };

    void Find();
    void Connect(Jvm *jvm);
    JvmReading Ask(Jvm *jvm) const;

    Settings settings_;
    bool all_;
    std::vector<Jvm> jvms_;
    std::vector<JvmReading> readings_;
    std::chrono::steady_clock::time_point found_, read_;
};

} // namespace qorctl
