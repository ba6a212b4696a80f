#include "render_memory.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr int SERIES_WIDTH = 10;

std::string FigureText(const std::optional<uint64_t> &figure) {
    return figure ? CountText(static_cast<int64_t>(*figure)) : "-";
}

std::string Collections(const Collector &collector) {
    return FigureText(collector.count);
}

std::string TimeNote(const std::optional<uint64_t> &microseconds) {
    return microseconds ? fmt::format("{} us in the JVM\n", *microseconds) : "";
}

Json ToJson(const std::vector<Collector> &collectors) {
    Json array = Json::array();
    for (const Collector &collector : collectors)
        array.push_back(
            {{"name", collector.name}, {"count", collector.count ? Json(*collector.count) : Json()}});
    return array;
}

Json OrNull(const std::optional<uint64_t> &value) {
    return value ? Json(*value) : Json();
}

} // namespace

std::string SizeText(int64_t bytes) {
    struct Unit {
        int64_t bytes;
        char name;
    };
    constexpr Unit UNITS[] = {{KIB * KIB * KIB, 'G'}, {KIB * KIB, 'M'}};
    for (const Unit &unit : UNITS)
        if (bytes >= unit.bytes)
            return fmt::format("{:.1f} {}", static_cast<double>(bytes) / static_cast<double>(unit.bytes),
                               unit.name);
    return bytes >= KIB || bytes == 0 ? fmt::format("{} K", bytes / KIB) : fmt::format("{} B", bytes);
}

std::string CountText(int64_t count) {
    std::string text = std::to_string(count);
    size_t first = count < 0 ? 1 : 0;
    for (size_t at = text.size(); at > first + 3;)
        text.insert(at -= 3, ",");
    return text;
}

std::string ClockText() {
    char clock[16];
    time_t now = time(nullptr);
    tm local;
    strftime(clock, sizeof clock, "%H:%M:%S", localtime_r(&now, &local));
    return clock;
}

std::string HeapText(const HeapView &heap, const MemoryView &memory, const Style &style) {
    Table table({{"POOL"}, {"USED", true}, {"MAX", true}, {"FREE", true}, {"USED%", true}});
    for (const HeapPool &pool : heap.pools)
        table.Add({pool.name, SizeText(static_cast<int64_t>(pool.used_kib) * KIB),
                   SizeText(static_cast<int64_t>(pool.max_kib) * KIB),
                   SizeText(static_cast<int64_t>(pool.available_kib) * KIB),
                   fmt::format("{}", pool.percent)});
    std::string text = table.Text(style);
    text += fmt::format("{} used of {}", SizeText(memory.used_kib * KIB), SizeText(memory.max_kib * KIB));
    for (const Collector &collector : heap.collectors)
        text += fmt::format(", {} {} collections", Collections(collector), Printable(collector.name));
    return text + "\n";
}

Json HeapJson(const HeapView &heap, const MemoryView &memory) {
    Json pools = Json::array();
    for (const HeapPool &pool : heap.pools)
        pools.push_back({{"name", pool.name},
                         {"max_kib", pool.max_kib},
                         {"used_kib", pool.used_kib},
                         {"available_kib", pool.available_kib},
                         {"used_percent", pool.percent}});
    return {{"pools", pools},
            {"used_kib", memory.used_kib},
            {"max_kib", memory.max_kib},
            {"collectors", ToJson(heap.collectors)},
            {"jvm_microseconds", OrNull(heap.jvm_microseconds)}};
}

std::string KindsText(const std::vector<SpaceKinds> &spaces, const Style &style) {
    Table table({{"SPACE"}, {"KIND"}, {"OBJECTS", true}, {"SIZE", true}});
    for (const SpaceKinds &space : spaces) {
        for (size_t i = 0; i < KINDS; ++i)
            if (space.count[i] > 0)
                table.Add({space.name, std::string(KIND_NAMES[i]), CountText(space.count[i]),
                           i == OTHER_KINDS ? "-" : SizeText(space.kib[i] * KIB)});
        table.Add({space.name, std::string("all"), CountText(space.objects), SizeText(space.used_kib * KIB)});
    }
    return table.Text(style);
}

Json KindsJson(const std::vector<SpaceKinds> &spaces) {
    Json array = Json::array();
    for (const SpaceKinds &space : spaces) {
        Json kinds = Json::object();
        for (size_t i = 0; i < KINDS; ++i)
            kinds[std::string(KIND_NAMES[i])] = {{"objects", space.count[i]},
                                                 {"kib", i == OTHER_KINDS ? Json() : Json(space.kib[i])}};
        array.push_back({{"name", space.name},
                         {"used_kib", space.used_kib},
                         {"max_kib", space.max_kib},
                         {"objects", space.objects},
                         {"kinds", kinds}});
    }
    return {{"spaces", array}};
}

std::string HeapHeader() {
    return fmt::format("{:<8} {:>{w}} {:>{w}} {:>{w}}\n", "time", "used", "max", "used%",
                       fmt::arg("w", SERIES_WIDTH));
}

std::string HeapLine(const MemoryView &memory) {
    int64_t percent = memory.max_kib > 0 ? memory.used_kib * 100 / memory.max_kib : 0;
    return fmt::format("{:<8} {:>{w}} {:>{w}} {:>{w}}\n", ClockText(), SizeText(memory.used_kib * KIB),
                       SizeText(memory.max_kib * KIB), percent, fmt::arg("w", SERIES_WIDTH));
}

std::string CollectorTable(const std::vector<Collector> &kinds, const std::vector<CollectorBean> &beans,
                           const Style &style) {
    Table table({{"COLLECTOR"}, {"COLLECTIONS", true}, {"MILLISECONDS", true}});
    for (const Collector &kind : kinds)
        table.Add({kind.name, Collections(kind), std::string()});
    for (const CollectorBean &bean : beans)
        table.Add({bean.name, FigureText(bean.count), FigureText(bean.milliseconds)});
    return table.Text(style);
}

Json CollectorsJson(const MemoryView &heap, const std::vector<CollectorBean> &beans) {
    Json own = Json::array();
    for (const CollectorBean &bean : beans)
        own.push_back({{"name", bean.name},
                       {"count", OrNull(bean.count)},
                       {"milliseconds", OrNull(bean.milliseconds)}});
    return {{"collectors", ToJson(heap.collectors)},
            {"jvm_collectors", own},
            {"jvm_microseconds", OrNull(heap.jvm_microseconds)}};
}

std::string CollectorHeader(const std::vector<Collector> &collectors) {
    std::string line = fmt::format("{:<8}", "time");
    for (const Collector &collector : collectors)
        line +=
            fmt::format(" {:>{w}} {:>{w}}", Printable(collector.name), "added", fmt::arg("w", SERIES_WIDTH));
    return line + "\n";
}

std::string CollectorLine(const std::vector<Collector> &now, const std::vector<Collector> &before) {
    std::string line = fmt::format("{:<8}", ClockText());
    for (size_t i = 0; i < now.size(); ++i) {
        bool known =
            now[i].count && i < before.size() && before[i].count && *now[i].count >= *before[i].count;
        line += fmt::format(" {:>{w}} {:>{w}}", Collections(now[i]),
                            known ? fmt::format("+{}", *now[i].count - *before[i].count) : "",
                            fmt::arg("w", SERIES_WIDTH));
    }
    return line + "\n";
}

std::string HistogramText(const Histogram &histogram, size_t top, const Style &style) {
    Table table({{"INSTANCES", true}, {"SIZE", true}, {"CLASS"}});
    size_t rows = std::min(top, histogram.classes.size());
    for (size_t i = 0; i < rows; ++i) {
        const ClassCount &count = histogram.classes[i];
        table.Add({CountText(count.instances), SizeText(count.kib * KIB), count.class_name});
    }
    std::string text = table.Text(style);
    if (rows < histogram.classes.size())
        text += fmt::format("the largest {} of {} classes reported by the agent; --top shows more\n", rows,
                            histogram.classes.size());
    if (histogram.cut)
        text += "the reply reached the agent's limit, classes are missing\n";
    if (histogram.age_seconds)
        text += fmt::format("the heap of {} s ago: the figures that an earlier request was too early for\n",
                            *histogram.age_seconds);
    return text + TimeNote(histogram.jvm_microseconds);
}

Json HistogramJson(const Histogram &histogram, size_t top) {
    Json classes = Json::array();
    for (size_t i = 0; i < std::min(top, histogram.classes.size()); ++i)
        classes.push_back({{"class", histogram.classes[i].class_name},
                           {"instances", histogram.classes[i].instances},
                           {"kib", histogram.classes[i].kib}});
    return {{"classes", classes},
            {"age_seconds", OrNull(histogram.age_seconds)},
            {"jvm_microseconds", OrNull(histogram.jvm_microseconds)},
            {"cut", histogram.cut}};
}

} // namespace qorctl
