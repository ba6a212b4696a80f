#include "record_lines.h"

#include "show/render.h"

#include <fmt/format.h>

namespace qorctl {

namespace {

Json Line(const char *type, const LineHead &head) {
    return {{"type", type}, {"host", head.host}, {"pid", head.pid}, {"jvm", head.jvm}, {"time", head.time}};
}

// A text is a frame, a number that many frames left out, an object what a framework works on there.
Json FrameJson(const Frame &frame) {
    if (frame.skipped > 0)
        return frame.skipped;
    return frame.framework ? Json{{"framework", CallText(frame)}} : Json(CallText(frame));
}

Json HeapJson(const MemoryView &heap) {
    return {{"used_kib", heap.used_kib}, {"max_kib", heap.max_kib}};
}

Json CollectorsJson(const std::vector<CollectorBean> &collectors) {
    Json array = Json::array();
    for (const CollectorBean &bean : collectors)
        array.push_back({{"name", bean.name},
                         {"count", bean.count ? Json(*bean.count) : Json()},
                         {"ms", bean.milliseconds ? Json(*bean.milliseconds) : Json()}});
    return array;
}

// What isn't known is left out, at each depth.
Json WithoutNulls(const Json &value) {
    if (!value.is_object())
        return value;
    Json kept = Json::object();
    for (auto &[key, part] : value.items())
        if (!part.is_null() && !(part.is_array() && part.empty()))
            kept[key] = WithoutNulls(part);
    return kept;
}

// Rows without a thing that queries ask for may be named by their thread's id alone.
bool MayBeShort(const Json &row) {
    return !row.contains("db") && !row.contains("request") && !row.contains("waits_for") &&
           !row.contains("rmi");
}

} // namespace

const char *EndText(EndReason reason) {
    switch (reason) {
    case EndReason::FINISHED:
        return "finished";
    case EndReason::INTERRUPTED:
        return "interrupted";
    case EndReason::ROTATED:
        return "rotated";
    case EndReason::JVM_ENDED:
        return "jvm ended";
    case EndReason::JVM_RESTARTED:
        return "jvm restarted";
    case EndReason::AGENT_ENDED:
        return "agent ended";
    case EndReason::FAILED:
        break;
    }
    return "failed";
}

std::string MetaLine(const LineHead &head, const PartFacts &facts) {
    Json line = Line("meta", head);
    line.update({{"schema", RECORD_SCHEMA},
                 {"version", RECORD_VERSION},
                 {"part", facts.part},
                 {"every_ms", facts.every_ms},
                 {"java_version", facts.java_version},
                 {"main_class", facts.main_class},
                 {"console_version", facts.console_version}});
    return JsonText(line, true);
}

std::string UnansweredLine(const LineHead &head, int64_t number, int64_t waited_ms, const std::string &why) {
    Json line = Line("sample", head);
    line.update({{"n", number}, {"unanswered", why}, {"waited_ms", waited_ms}});
    return JsonText(line, true);
}

std::string EndLine(const LineHead &head, EndReason reason, const std::string &note, int64_t samples) {
    Json line = Line("end", head);
    line.update({{"reason", EndText(reason)}, {"samples", samples}});
    if (!note.empty())
        line["note"] = note;
    return JsonText(line, true);
}

size_t PartLines::NumberOf(const Thread &thread, const LineHead &head, std::vector<std::string> *lines) {
    std::string text = thread.stack_cut ? "cut" : "";
    for (const Frame &frame : thread.stack)
        text.append(frame.class_name)
            .append(1, '\n')
            .append(frame.method)
            .append(1, '\n')
            .append(frame.file)
            .append(std::to_string(frame.skipped > 0 ? -frame.skipped : frame.line))
            .append(frame.framework ? "f\n" : "\n");
    auto [at, is_new] = numbers_.try_emplace(std::move(text), numbers_.size());
    if (is_new) {
        stack_bytes_ += at->first.size();
        Json line = Line("stack", head), frames = Json::array();
        for (const Frame &frame : thread.stack)
            frames.push_back(FrameJson(frame));
        line["n"] = at->second;
        line["frames"] = std::move(frames);
        if (thread.stack_cut)
            line["cut"] = true;
        lines->push_back(JsonText(line, true));
    }
    return at->second;
}

Json PartLines::Row(const Thread &thread, const LineHead &head, std::vector<std::string> *lines) {
    Json row = WithoutNulls(RowJson(thread));
    if (row.contains("db"))
        for (const char *key : {"sample_time", "sql_ref"})
            row["db"].erase(key);
    if (!thread.stack.empty())
        row["stack"] = NumberOf(thread, head, lines);
    else if (thread.call)
        row["call"] = CallText(*thread.call);
    return row;
}

std::vector<std::string> PartLines::Sample(const LineHead &head, const TakenSample &sample) {
    std::vector<std::string> lines;
    std::map<int64_t, std::string> rows;
    Json line = Line("sample", head), full = Json::array(), same = Json::array(), states = Json::object();
    for (const Thread &thread : sample.threads.threads) {
        Json row = Row(thread, head, &lines);
        std::string text = JsonText(row, true);
        auto before = rows_.find(thread.key.thread);
        bool unchanged = before != rows_.end() && before->second == text && MayBeShort(row);
        unchanged ? same.push_back(thread.key.thread) : full.push_back(std::move(row));
        states[thread.state] = states.value(thread.state, 0) + 1;
        rows.insert_or_assign(thread.key.thread, std::move(text));
    }
    rows_ = std::move(rows);
    line.update({{"n", sample.number},
                 {"interval_ms", sample.interval_ms},
                 {"took_us", sample.took_us},
                 {"agent_us", sample.agent_us},
                 {"requests", sample.requests}});
    if (sample.walk_ms)
        line["walk_ms"] = *sample.walk_ms;
    if (sample.left_out)
        line["without_tiers"] = true;
    if (sample.stops)
        line["stopped_at_most_ms"] = {{"largest", sample.stops->largest_ms},
                                      {"sum", sample.stops->sum_ms},
                                      {"calls", sample.stops->calls}};
    if (sample.missing > 0)
        line["missing"] = sample.missing;
    if (sample.process_cpu_ms)
        line["process_cpu_ms"] = *sample.process_cpu_ms;
    if (sample.heap)
        line["heap"] = HeapJson(*sample.heap);
    if (!sample.collectors.empty())
        line["collectors"] = CollectorsJson(sample.collectors);
    line["states"] = std::move(states);
    line["threads"] = std::move(full);
    line["same"] = std::move(same);
    lines.push_back(JsonText(line, true));
    return lines;
}

} // namespace qorctl
