#include "openmetrics.h"

#include "base/terminal.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr int64_t KIB = 1024;
constexpr double MILLION = 1e6;

// A value with its label, "" for none.
struct Point {
    std::string label;
    double value;
};
using Points = std::vector<Point>;

struct Metric {
    const char *name, *type, *unit, *help;
    const char *label; // of its points; null for none
    Points (*read)(const JvmReading &);
};

void AppendEscaped(std::string_view text, std::string *out) {
    for (char c : Printable(text)) {
        if (c == '\\' || c == '"')
            *out += '\\';
        *out += c;
    }
}

Points One(double value) {
    return {{"", value}};
}

template <class Number>
Points OneOf(const std::optional<Number> &value, double factor) {
    return value ? One(static_cast<double>(*value) * factor) : Points();
}

// The most frequent values, and the others together.
Points Largest(const std::map<std::string, int> &counts) {
    Points points;
    double others = 0;
    for (const auto &[label, count] : counts)
        if (label == OTHER_VALUE)
            others += count;
        else
            points.push_back({label, static_cast<double>(count)});
    std::stable_sort(points.begin(), points.end(),
                     [](const Point &a, const Point &b) { return a.value > b.value; });
    for (; points.size() > MOST_LABEL_VALUES; points.pop_back())
        others += points.back().value;
    if (others > 0)
        points.push_back({OTHER_VALUE, others});
    return points;
}

// How many threads have which label; those without one don't count.
template <class Label>
Points CountThreads(const JvmReading &jvm, Label label) {
    std::map<std::string, int> counts;
    for (const Thread &thread : jvm.sample.threads)
        if (std::optional<std::string> text = label(thread))
            ++counts[*text];
    return Largest(counts);
}

Points States(const JvmReading &jvm) {
    Points points;
    for (int i = THREADS_RUNNABLE; i <= THREADS_OTHER; ++i)
        if (jvm.summary.figures[i])
            points.push_back({SUMMARY_NAMES[i].label, static_cast<double>(*jvm.summary.figures[i])});
    return points;
}

Points LockWaiters(const JvmReading &jvm) {
    return CountThreads(jvm, [](const Thread &thread) {
        return thread.waits_for ? std::optional(thread.waits_for->class_name) : std::nullopt;
    });
}

Points DatabaseCalls(const JvmReading &jvm) {
    return CountThreads(jvm, [](const Thread &thread) {
        return thread.db ? std::optional(DatabaseLabel(thread.db->url.value_or("unknown"))) : std::nullopt;
    });
}

Points WebRequests(const JvmReading &jvm) {
    return CountThreads(jvm, [](const Thread &thread) {
        return thread.request_url ? std::optional(PathLabel(*thread.request_url)) : std::nullopt;
    });
}

Points Loads(const JvmReading &jvm) {
    Points points;
    for (auto [label, figure] : {std::pair("process", PROCESS_CPU_PERCENT), {"machine", SYSTEM_CPU_PERCENT}})
        if (jvm.summary.figures[figure])
            points.push_back({label, static_cast<double>(*jvm.summary.figures[figure]) / 100});
    return points;
}

template <class Figure>
Points Collectors(const JvmReading &jvm, Figure figure) {
    Points points;
    for (const CollectorBean &bean : jvm.collectors)
        if (std::optional<double> value = figure(bean))
            points.push_back({bean.name, *value});
    return points;
}

Points Collections(const JvmReading &jvm) {
    return Collectors(jvm, [](const CollectorBean &bean) {
        return bean.count ? std::optional(static_cast<double>(*bean.count)) : std::nullopt;
    });
}

Points CollectionSeconds(const JvmReading &jvm) {
    return Collectors(jvm, [](const CollectorBean &bean) {
        return bean.milliseconds ? std::optional(static_cast<double>(*bean.milliseconds) / 1000)
                                 : std::nullopt;
    });
}

Points Stops(const JvmReading &jvm) {
    const LastCost &stops = jvm.stops;
    Points points;
    for (const auto &[purpose, milliseconds] : {std::pair("stacks", stops.stacks),
                                                {"locks", stops.locks},
                                                {"locals", stops.locals},
                                                {"heap", stops.heap},
                                                {"copy", stops.copy}})
        if (milliseconds)
            points.push_back({purpose, *milliseconds / 1000});
    return points;
}

Points WalkFigure(const JvmReading &jvm, const char *key, double factor) {
    const auto found = jvm.walk.find(key);
    return found == jvm.walk.end() || found->second < 0 ? Points()
                                                        : One(static_cast<double>(found->second) * factor);
}

constexpr Metric METRICS[] = {
    {"qor_up", "gauge", "", "Whether the agent in the JVM answered.", nullptr,
     [](const JvmReading &jvm) { return One(jvm.up ? 1 : 0); }},
    {"qor_threads", "gauge", "", "Threads by state.", "state", States},
    {"qor_threads_blocked", "gauge", "", "Threads that wait to enter a monitor.", nullptr,
     [](const JvmReading &jvm) { return OneOf(jvm.summary.figures[THREADS_LOCK], 1); }},
    {"qor_lock_waiters", "gauge", "", "Threads that wait for a lock, by the lock's class.", "class",
     LockWaiters},
    {"qor_database_calls", "gauge", "", "Database calls in flight, by database.", "database", DatabaseCalls},
    {"qor_web_requests", "gauge", "", "Web requests in flight, by path.", "url", WebRequests},
    {"qor_heap_used_bytes", "gauge", "bytes", "Heap in use.", nullptr,
     [](const JvmReading &jvm) { return One(static_cast<double>(jvm.memory.used_kib * KIB)); }},
    {"qor_heap_max_bytes", "gauge", "bytes", "The heap's greatest size.", nullptr,
     [](const JvmReading &jvm) { return One(static_cast<double>(jvm.memory.max_kib * KIB)); }},
    {"qor_gc_collections", "counter", "", "Collections since the JVM's start.", "collector", Collections},
    {"qor_gc_seconds", "counter", "seconds", "Time of collections since the JVM's start.", "collector",
     CollectionSeconds},
    {"qor_cpu_load_ratio", "gauge", "ratio", "Load of the processors, 1 for all of them.", "of", Loads},
    {"qor_agent_sample_seconds", "gauge", "seconds", "What the last sample took inside the JVM.", nullptr,
     [](const JvmReading &jvm) { return OneOf(jvm.sample.jvm_microseconds, 1 / MILLION); }},
    {"qor_agent_stop_seconds", "gauge", "seconds",
     "The longest stop of the JVM in the last request that made one, by what it was for.", "purpose", Stops},
    {"qor_agent_walk_left_out", "gauge", "",
     "Whether the last sample was left without a walk for its share of time.", nullptr,
     [](const JvmReading &jvm) { return WalkFigure(jvm, "leftout", 1); }},
    {"qor_agent_hand_quota_ratio", "gauge", "ratio", "Share of time that walks asked for by hand may take.",
     nullptr, [](const JvmReading &jvm) { return WalkFigure(jvm, "handquota", 0.01); }},
    {"qor_agent_poll_quota_ratio", "gauge", "ratio", "Share of time that walks of polls, as these, may take.",
     nullptr, [](const JvmReading &jvm) { return WalkFigure(jvm, "localquota", 0.01); }},
};

void AppendPoint(const Metric &metric, const JvmLabels &jvm, const Point &point, std::string *out) {
    const bool counter = std::string_view(metric.type) == "counter";
    *out += fmt::format("{}{}{{jvm=\"{}\",user=\"", metric.name, counter ? "_total" : "", jvm.id);
    AppendEscaped(jvm.user, out);
    *out += "\",main=\"";
    AppendEscaped(jvm.main_class, out);
    if (metric.label) {
        *out += fmt::format("\",{}=\"", metric.label);
        AppendEscaped(point.label, out);
    }
    *out += fmt::format("\"}} {}\n", point.value);
}

} // namespace

std::string PathLabel(std::string_view url) {
    std::string label;
    for (char c : url.substr(0, url.find_first_of("?;#"))) {
        const bool digit = c >= '0' && c <= '9';
        if (!digit)
            label += c;
        else if (label.size() < 3 || label.compare(label.size() - 3, 3, "{n}") != 0)
            label += "{n}";
    }
    return label;
}

std::string DatabaseLabel(std::string_view url) {
    return std::string(url.substr(0, url.find_first_of("?;")));
}

std::string OpenMetricsText(const std::vector<JvmReading> &readings) {
    std::string out;
    for (const Metric &metric : METRICS) {
        out += fmt::format("# TYPE {} {}\n", metric.name, metric.type);
        if (*metric.unit)
            out += fmt::format("# UNIT {} {}\n", metric.name, metric.unit);
        out += fmt::format("# HELP {} {}\n", metric.name, metric.help);
        for (const JvmReading &jvm : readings)
            if (jvm.up || &metric == &METRICS[0])
                for (const Point &point : metric.read(jvm))
                    AppendPoint(metric, jvm.labels, point, &out);
    }
    return out + "# EOF\n";
}

} // namespace qorctl
