#include "tables.h"

#include "show/locks.h"
#include "show/render.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr double BILLION = 1e9;

std::optional<double> Rate(const std::optional<int64_t> &now, const std::optional<int64_t> &before,
                           double seconds) {
    if (!now || !before || *now < *before || seconds <= 0)
        return std::nullopt;
    return static_cast<double>(*now - *before) / seconds;
}

std::string PercentText(const std::optional<double> &percent) {
    return percent ? fmt::format("{:.1f}", *percent) : "-";
}

std::string BytesText(const std::optional<double> &bytes) {
    if (!bytes)
        return "-";
    const char *const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double value = *bytes;
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    return fmt::format(unit == 0 ? "{:.0f} {}" : "{:.1f} {}", value, units[unit]);
}

// Where a thread is: its request and its statement say more than its frame.
std::string PlaceText(const Thread &thread) {
    std::string text;
    if (thread.request_url)
        text = *thread.request_url + "  ";
    if (thread.db && thread.db->sql)
        return text + *thread.db->sql;
    return thread.call ? text + CallText(*thread.call) : text;
}

TopRow ThreadRow(const Thread &thread, const ThreadRates &rates) {
    const std::string id = std::to_string(thread.key.thread);
    return {id,
            thread.key.Text(),
            thread.state,
            {id, PercentText(rates.cpu_percent), BytesText(rates.allocated_bytes), thread.state, thread.name,
             PlaceText(thread)}};
}

// Whether a thread comes before another, first by what is asked for, then by its id.
bool Before(const Thread &a, const Thread &b, const RateMeter &rates, TopOrder order) {
    auto by = [&](auto key) {
        return std::make_pair(key(a), a.key.thread) < std::make_pair(key(b), b.key.thread);
    };
    switch (order) {
    case TopOrder::CPU:
        return by([&](const Thread &t) { return -rates.Of(t.key).cpu_percent.value_or(-1); });
    case TopOrder::ALLOCATION:
        return by([&](const Thread &t) { return -rates.Of(t.key).allocated_bytes.value_or(-1); });
    case TopOrder::NAME:
        return by([](const Thread &t) { return t.name; });
    case TopOrder::STATE:
        return by([](const Thread &t) { return t.state; });
    case TopOrder::ID:
        break;
    }
    return a.key.thread < b.key.thread;
}

TopTable ThreadsTable(const ThreadSample &sample, const RateMeter &rates, const TopChoice &choice) {
    TopTable table;
    table.columns = {{"ID", true}, {"CPU%", true}, {"ALLOC/S", true}, {"STATE"}, {"NAME"}, {"AT"}};
    std::vector<const Thread *> threads;
    for (const Thread &thread : sample.threads)
        threads.push_back(&thread);
    std::sort(threads.begin(), threads.end(),
              [&](const Thread *a, const Thread *b) { return Before(*a, *b, rates, choice.order); });
    for (const Thread *thread : threads)
        table.rows.push_back(ThreadRow(*thread, rates.Of(thread->key)));
    return table;
}

// Threads that share a text, by that text.
struct Group {
    std::vector<const Thread *> threads;
    std::string States() const {
        std::map<std::string, int> counts;
        for (const Thread *thread : threads)
            ++counts[thread->state];
        std::string text;
        for (const auto &[state, count] : counts)
            text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, state);
        return text;
    }
};

// A row a group, the largest first; `cells` makes what follows the count.
template <class Cells>
void AddGroups(const std::map<std::string, Group> &groups, TopTable *table, Cells cells) {
    for (const auto &[text, group] : groups) {
        const Thread &first = *group.threads[0];
        TopRow row{text, first.key.Text(), first.state, {std::to_string(group.threads.size())}};
        for (Cell &cell : cells(text, group))
            row.cells.push_back(std::move(cell));
        table->rows.push_back(std::move(row));
    }
    std::stable_sort(table->rows.begin(), table->rows.end(), [](const TopRow &a, const TopRow &b) {
        return std::make_pair(a.cells[0].text.size(), a.cells[0].text) >
               std::make_pair(b.cells[0].text.size(), b.cells[0].text);
    });
}

TopTable LocksTable(const ThreadSample &sample) {
    std::map<std::string, Group> locks;
    for (const Thread &thread : sample.threads)
        if (thread.waits_for)
            locks[std::to_string(thread.waits_for->lock)].threads.push_back(&thread);
    TopTable table;
    table.columns = {{"WAITING", true}, {"LOCK"}, {"HELD BY"}, {"STATE"}, {"HOLDER AT"}};
    AddGroups(locks, &table, [&](const std::string &lock, const Group &group) -> std::vector<Cell> {
        const Thread &waiter = *group.threads[0];
        const Thread *holder = HolderOf(sample, waiter);
        const int64_t owner = waiter.waits_for->owner.thread;
        return {fmt::format("{} <{}>", waiter.waits_for->class_name, lock),
                holder      ? fmt::format("{} #{}", holder->name, owner)
                : owner > 0 ? fmt::format("#{}", owner)
                            : OWNER_UNKNOWN,
                holder ? holder->state : "", holder ? PlaceText(*holder) : ""};
    });
    for (TopRow &row : table.rows) // the holder's stack is what is worth a look
        if (const Thread *holder = HolderOf(sample, *locks.at(row.id).threads[0]))
            row.thread_key = holder->key.Text();
    return table;
}

TopTable SqlTable(const ThreadSample &sample) {
    std::map<std::string, Group> statements;
    for (const Thread &thread : sample.threads)
        if (thread.db)
            statements[thread.db->sql.value_or("(unknown; option dbquery has statements read)")]
                .threads.push_back(&thread);
    TopTable table;
    table.columns = {{"THREADS", true}, {"DATABASE"}, {"FOR"}, {"SQL"}};
    AddGroups(statements, &table, [](const std::string &sql, const Group &group) -> std::vector<Cell> {
        const Thread &first = *group.threads[0];
        return {first.db->url.value_or("-"), first.request_url.value_or("-"), sql};
    });
    return table;
}

TopTable UrlTable(const ThreadSample &sample) {
    std::map<std::string, Group> urls;
    for (const Thread &thread : sample.threads)
        if (thread.request_url)
            urls[*thread.request_url].threads.push_back(&thread);
    TopTable table;
    table.columns = {{"THREADS", true}, {"STATES"}, {"URL"}};
    AddGroups(urls, &table, [](const std::string &url, const Group &group) -> std::vector<Cell> {
        return {group.States(), url};
    });
    return table;
}

bool Holds(const TopRow &row, const std::string &lower_part) {
    auto equal = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
    return std::any_of(row.cells.begin(), row.cells.end(), [&](const Cell &cell) {
        return std::search(cell.text.begin(), cell.text.end(), lower_part.begin(), lower_part.end(), equal) !=
               cell.text.end();
    });
}

} // namespace

void RateMeter::Add(const ThreadSample &sample, TopClock::time_point time) {
    std::map<int64_t, Reading> readings;
    for (const Thread &thread : sample.threads) {
        Reading reading{time, thread.end_to_end.cpu_nanoseconds, thread.end_to_end.allocated_bytes, {}};
        const auto found = readings_.find(thread.key.thread);
        if (found != readings_.end()) {
            const Reading &before = found->second;
            const double seconds = std::chrono::duration<double>(time - before.time).count();
            reading.rates.allocated_bytes = Rate(reading.allocated_bytes, before.allocated_bytes, seconds);
            if (auto cpu = Rate(reading.cpu_nanoseconds, before.cpu_nanoseconds, seconds))
                reading.rates.cpu_percent = *cpu * 100 / BILLION;
        }
        readings[thread.key.thread] = reading;
    }
    readings_ = std::move(readings);
}

ThreadRates RateMeter::Of(const ThreadKey &key) const {
    const auto found = readings_.find(key.thread);
    return found == readings_.end() ? ThreadRates() : found->second.rates;
}

TopTable MakeTopTable(const ThreadSample &sample, const RateMeter &rates, const TopChoice &choice) {
    TopTable table = choice.view == TopView::THREADS ? ThreadsTable(sample, rates, choice)
                     : choice.view == TopView::LOCKS ? LocksTable(sample)
                     : choice.view == TopView::SQL   ? SqlTable(sample)
                                                     : UrlTable(sample);
    std::string part = choice.filter;
    std::transform(part.begin(), part.end(), part.begin(), [](unsigned char c) { return std::tolower(c); });
    auto &rows = table.rows;
    rows.erase(std::remove_if(rows.begin(), rows.end(), [&](const TopRow &row) { return !Holds(row, part); }),
               rows.end());
    if (choice.backwards)
        std::reverse(rows.begin(), rows.end());
    return table;
}

std::string StateCounts(const Summary &summary) {
    std::string text;
    for (int i = THREADS_RUNNABLE; i <= THREADS_OTHER; ++i)
        if (summary.figures[i].value_or(0) > 0)
            text +=
                fmt::format("{}{} {}", text.empty() ? "" : "  ", *summary.figures[i], SUMMARY_NAMES[i].label);
    return text;
}

std::string MachineLine(const Summary &summary, const std::vector<CollectorBean> &collectors,
                        const std::vector<CollectorBean> &before) {
    auto figure = [&](int i) {
        return summary.figures[i] ? fmt::format("{} %", *summary.figures[i]) : std::string("-");
    };
    std::string text = fmt::format("cpu {} (machine {})  heap {}", figure(PROCESS_CPU_PERCENT),
                                   figure(SYSTEM_CPU_PERCENT), figure(HEAP_PERCENT));
    for (size_t i = 0; i < collectors.size(); ++i) {
        const CollectorBean &now = collectors[i];
        if (!now.count)
            continue;
        text += fmt::format("  {} {}", now.name, *now.count);
        const bool same = i < before.size() && before[i].name == now.name && before[i].count;
        if (same && *now.count > *before[i].count)
            text += fmt::format(" (+{}, {} ms)", *now.count - *before[i].count,
                                now.milliseconds.value_or(0) - before[i].milliseconds.value_or(0));
    }
    return text;
}

} // namespace qorctl
