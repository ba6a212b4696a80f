#include "page.h"

#include <algorithm>
#include <fmt/format.h>
#include <random>

// Files of console/report/page and the d3 library, one after the other: page/embed.S.in.
extern "C" {
extern const char qor_page_css[], qor_page_html[], qor_page_licence[], qor_page_d3[], qor_page_scripts[],
    qor_page_end[];
}

namespace qorctl {

namespace {

constexpr size_t MOST_STRETCHES = 2000, MOST_OF_A_TEXT = 20;

// A column of values, one for each of `rows`.
template <class Rows, class Value>
Json ColumnOf(const Rows &rows, Value value) {
    Json column = Json::array();
    for (const auto &row : rows)
        column.push_back(value(row));
    return column;
}

template <class T>
Json OrNull(const std::optional<T> &value) {
    return value ? Json(*value) : Json();
}

// Stacks as leaves of a tree: a node has its caller's number, which is less than its own, and its text. Node
// 0 is the root.
Json StackTree(const Recording &recording) {
    std::map<std::pair<int, int32_t>, int> numbers;
    Json parents = {0}, texts = {NONE}, leaves = Json::array();
    for (const std::vector<int32_t> &stack : recording.stacks) {
        int node = 0;
        for (auto frame = stack.rbegin(); frame != stack.rend(); ++frame) {
            auto [at, is_new] = numbers.try_emplace({node, *frame}, static_cast<int>(parents.size()));
            if (is_new) {
                parents.push_back(node);
                texts.push_back(*frame);
            }
            node = at->second;
        }
        leaves.push_back(node);
    }
    return {{"nodes", {{"parent", std::move(parents)}, {"text", std::move(texts)}}},
            {"stacks", std::move(leaves)}};
}

Json RunsJson(const std::vector<Run> &runs) {
    auto of = [&](int32_t Place::*part) {
        return ColumnOf(runs, [=](const Run &run) { return run.place.*part; });
    };
    return {{"thread", ColumnOf(runs, [](const Run &run) { return run.thread; })},
            {"first", ColumnOf(runs, [](const Run &run) { return run.first; })},
            {"count", ColumnOf(runs, [](const Run &run) { return run.count; })},
            {"state", of(&Place::state)},
            {"stack", of(&Place::stack)},
            {"url", of(&Place::url)},
            {"sql", of(&Place::sql)},
            {"lock_class", of(&Place::lock_class)},
            {"owner", ColumnOf(runs, [](const Run &run) { return run.place.owner; })}};
}

Json ThreadsJson(const std::vector<RecordedThread> &threads) {
    auto since = [](const std::optional<int64_t> &first, const std::optional<int64_t> &last) {
        return first && last ? Json(*last - *first) : Json();
    };
    return {
        {"id", ColumnOf(threads, [](const RecordedThread &thread) { return thread.id; })},
        {"name", ColumnOf(threads, [](const RecordedThread &thread) { return thread.name; })},
        {"samples", ColumnOf(threads, [](const RecordedThread &thread) { return thread.samples; })},
        {"cpu", ColumnOf(threads, [&](const RecordedThread &t) { return since(t.first_cpu, t.last_cpu); })},
        {"alloc",
         ColumnOf(threads, [&](const RecordedThread &t) { return since(t.first_alloc, t.last_alloc); })}};
}

Json CollectorsJson(const Recording &recording) {
    Json collectors = Json::array();
    for (size_t i = 0; i < recording.collectors.size(); ++i) {
        auto of = [&](std::vector<std::optional<int64_t>> RecordedSample::*part) {
            return ColumnOf(recording.samples, [&](const RecordedSample &sample) {
                return i < (sample.*part).size() ? OrNull((sample.*part)[i]) : Json();
            });
        };
        collectors.push_back({{"name", recording.collectors[i]},
                              {"count", of(&RecordedSample::collections)},
                              {"ms", of(&RecordedSample::collecting_ms)}});
    }
    return collectors;
}

// The longest ones of each text, longest first; `stays` is how many its text has in all.
Json StretchesJson(std::vector<Stretch> stretches) {
    std::stable_sort(stretches.begin(), stretches.end(),
                     [](const Stretch &a, const Stretch &b) { return a.count > b.count; });
    std::unordered_map<int32_t, size_t> stays;
    std::vector<Stretch> longest;
    for (const Stretch &stretch : stretches)
        if (++stays[stretch.text] <= MOST_OF_A_TEXT && longest.size() < MOST_STRETCHES)
            longest.push_back(stretch);
    return ColumnOf(longest, [&](const Stretch &stretch) {
        return Json{{"thread", stretch.thread},
                    {"first", stretch.first},
                    {"count", stretch.count},
                    {"text", stretch.text},
                    {"stays", stays[stretch.text]}};
    });
}

Json DataOf(const Recording &recording) {
    const auto &samples = recording.samples;
    auto of = [&](auto part) {
        return ColumnOf(samples, [&](const RecordedSample &s) { return OrNull(s.*part); });
    };
    Json data = StackTree(recording);
    data.update({{"meta", Json::parse(recording.meta)},
                 {"end", recording.end.empty() ? Json() : Json::parse(recording.end)},
                 {"unread", recording.unread},
                 {"thread_samples", recording.thread_samples},
                 {"texts", recording.texts.all()},
                 {"t", ColumnOf(samples, [](const RecordedSample &s) { return s.time; })},
                 {"n", ColumnOf(samples, [](const RecordedSample &s) { return s.number; })},
                 {"missing", ColumnOf(samples, [](const RecordedSample &s) { return s.missing; })},
                 {"unanswered", ColumnOf(samples, [](const RecordedSample &s) { return s.unanswered; })},
                 {"heap", of(&RecordedSample::heap_kib)},
                 {"heap_max", of(&RecordedSample::heap_max_kib)},
                 {"cpu", of(&RecordedSample::cpu_ms)},
                 {"collectors", CollectorsJson(recording)},
                 {"threads", ThreadsJson(recording.threads)},
                 {"runs", RunsJson(recording.runs)},
                 {"statements", StretchesJson(recording.statements)},
                 {"requests", StretchesJson(recording.requests)}});
    return data;
}

// JSON has '<' in texts alone: without it nothing in there ends an element or begins a comment.
std::string WithoutTags(const std::string &json) {
    std::string text;
    for (char c : json)
        c == '<' ? text += "\\u003c" : text += c;
    return text;
}

std::string Nonce() {
    std::random_device random;
    return fmt::format("{:08x}{:08x}{:08x}{:08x}", random(), random(), random(), random());
}

} // namespace

std::string PageOf(const Recording &recording) {
    const std::string nonce = Nonce();
    std::string page =
        fmt::format("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                    "script-src 'nonce-{0}'; style-src 'nonce-{0}'; base-uri 'none'; form-action 'none'\">\n"
                    "<title>Recording</title>\n<style nonce=\"{0}\">\n",
                    nonce);
    const std::string script = fmt::format("<script nonce=\"{}\">\n", nonce);
    page.append(qor_page_css, qor_page_html).append("</style>\n</head>\n<body>\n");
    page.append(qor_page_html, qor_page_licence);
    page += "<script type=\"application/json\" id=\"data\">";
    page += WithoutTags(JsonText(DataOf(recording), true)) + "</script>\n<!--\n";
    page.append(qor_page_licence, qor_page_d3).append("-->\n" + script);
    page.append(qor_page_d3, qor_page_scripts).append("</script>\n" + script);
    page.append(qor_page_scripts, qor_page_end).append("</script>\n");
    return page + "</body>\n</html>\n";
}

} // namespace qorctl
