// Figures of JVMs as OpenMetrics text.
#pragma once

#include "wire/cost.h"
#include "wire/decode.h"
#include "wire/memory.h"

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qorctl {

constexpr size_t MOST_LABEL_VALUES = 50; // of a JVM and a metric; what is beyond counts as OTHER_VALUE
constexpr char OTHER_VALUE[] = "other";
constexpr char OPENMETRICS_TYPE[] = "application/openmetrics-text; version=1.0.0; charset=utf-8";

struct JvmLabels {
    std::string user, main_class;
    std::string id; // process id and start, so that a process with the same id is another JVM
};

// What one look at a JVM brought.
struct JvmReading {
    JvmLabels labels;
    bool up = false; // it answered; if it didn't, there is nothing else
    ThreadSample sample;
    Summary summary;
    MemoryView memory;
    std::vector<CollectorBean> collectors;
    std::map<std::string, int64_t> walk; // what the agent says of its walks for local variables
    LastCost stops;
};

// A web request's path without its query and its session, digits as {n}: few values for many requests.
std::string PathLabel(std::string_view url);

// A database's address without its parameters.
std::string DatabaseLabel(std::string_view url);

// All metrics of all JVMs, with the end mark.
std::string OpenMetricsText(const std::vector<JvmReading> &readings);

} // namespace qorctl
