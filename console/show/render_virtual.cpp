#include "render_virtual.h"

#include "render.h"
#include "render_tiers.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

namespace {

// "1,000,000"
std::string Grouped(int64_t number) {
    std::string text = fmt::format("{}", number);
    for (size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, ",");
    return text;
}

// A lock by the name that its users know: "java.util.concurrent.locks.ReentrantLock$NonfairSync" is a
// ReentrantLock.
std::string ShortLock(const std::string &class_name) {
    constexpr std::string_view SYNC = "Sync";
    std::string name = class_name.substr(class_name.rfind('.') + 1);
    size_t inner = name.find('$');
    bool is_sync = inner != name.npos && name.size() >= SYNC.size() &&
                   std::string_view(name).substr(name.size() - SYNC.size()) == SYNC;
    return is_sync ? name.substr(0, inner) : name;
}

std::string WaitsFor(const VirtualGroup &group) {
    if (group.waits_for.empty())
        return "-";
    std::string lock = ShortLock(group.waits_for);
    return group.owner.thread > 0 ? fmt::format("{}, held by #{}", lock, group.owner.thread) : lock;
}

std::string Place(const VirtualGroup &group) {
    return group.member.call ? CallText(*group.member.call) : "-";
}

// The member and others whose request or statement isn't that of one before them.
std::vector<const Thread *> DistinctMembers(const VirtualGroup &group) {
    std::vector<const Thread *> distinct = {&group.member};
    for (const Thread &other : group.others) {
        const auto same = [&](const Thread *known) {
            return RequestText(*known) == RequestText(other) && SqlText(*known) == SqlText(other) &&
                   DatabaseUrlText(*known) == DatabaseUrlText(other);
        };
        if (std::none_of(distinct.begin(), distinct.end(), same))
            distinct.push_back(&other);
    }
    return distinct;
}

std::string GroupTable(const VirtualThreads &view, const Style &style) {
    const auto any = [&](std::string (*text)(const Thread &)) {
        return std::any_of(view.groups.begin(), view.groups.end(), [&](const VirtualGroup &group) {
            const std::vector<const Thread *> members = DistinctMembers(group);
            return std::any_of(members.begin(), members.end(),
                               [&](const Thread *member) { return !text(*member).empty(); });
        });
    };
    constexpr size_t FIRST_COLUMNS = 4; // the group's
    const bool requests = any(RequestText), statements = any(SqlText);
    std::vector<Column> columns = {{"COUNT", true}, {"STATE"}, {"AT"}, {"WAITS FOR"}, {"E.G."}};
    if (requests)
        columns.push_back({"REQUEST"});
    if (statements)
        columns.push_back({"SQL"});
    Table table(columns);
    for (const VirtualGroup &group : view.groups) {
        std::vector<Cell> row = {Grouped(group.number),
                                 Cell(group.member.state, StateColourOf(group.member.state)), Place(group),
                                 WaitsFor(group)};
        for (const Thread *member : DistinctMembers(group)) {
            row.emplace_back(fmt::format("#{}", member->key.thread));
            if (requests)
                row.emplace_back(RequestText(*member));
            if (statements)
                row.emplace_back(SqlText(*member));
            table.Add(std::move(row));
            row.assign(FIRST_COLUMNS, Cell(std::string()));
        }
    }
    return view.groups.empty() ? "" : table.Text(style);
}

// What the members do in other tiers.
std::string TiersDump(const VirtualGroup &group) {
    std::string text;
    for (const Thread *member : DistinctMembers(group)) {
        const std::pair<const char *, std::string> lines[] = {{"request", RequestText(*member)},
                                                              {"database", DatabaseText(*member)},
                                                              {"url", DatabaseUrlText(*member)},
                                                              {"sql", SqlText(*member)}};
        for (const auto &[what, value] : lines)
            if (!value.empty())
                text += fmt::format("   {} of #{}: {}\n", what, member->key.thread, Printable(value));
    }
    return text;
}

std::string GroupDump(const VirtualThreads &view, const Style &style) {
    std::string text;
    for (const VirtualGroup &group : view.groups) {
        std::string head = fmt::format("{} thread{}, such as #{}", Grouped(group.number),
                                       group.number == 1 ? "" : "s", group.member.key.thread);
        text +=
            fmt::format("{} {}\n", Coloured(head, BOLD, style),
                        Coloured(Printable(group.member.state), StateColourOf(group.member.state), style));
        if (!group.container.empty())
            text += fmt::format("   in: {}\n", Printable(group.container));
        if (!group.waits_for.empty())
            text += fmt::format("   waits for: {}\n", Printable(WaitsFor(group)));
        text += TiersDump(group);
        for (const Frame &frame : group.member.stack)
            text += fmt::format("\tat {}\n", Printable(CallText(frame)));
        text += '\n';
    }
    return text;
}

std::string Notes(const VirtualThreads &view) {
    std::string text;
    if (view.cut_by_limits)
        text += "The groups are of a part of the threads: the limit of their number or of the time was "
                "reached.\n";
    if (view.cut_by_rows)
        text += fmt::format("{} of {} groups are shown.\n", view.groups.size(), Grouped(view.groups_found));
    if (view.cut)
        text += "The reply reached the agent's limit, something is missing.\n";
    if (!view.note.empty())
        text += fmt::format("{}.\n", Printable(view.note));
    return text;
}

Json GroupJson(const VirtualGroup &group) {
    Json object = ToJson(group.member);
    object.erase("name");
    object["count"] = group.number;
    object["waits_for"] = group.waits_for.empty() ? Json() : Json(group.waits_for);
    object["owner"] = group.owner.thread > 0 ? Json(group.owner.Text()) : Json();
    object["container"] = group.container.empty() ? Json() : Json(group.container);
    object["depth"] = group.depth;
    for (const Thread &other : group.others) {
        Json &member = object["others"].emplace_back(ToJson(other));
        for (const char *same : {"name", "call", "state"})
            member.erase(same);
    }
    return object;
}

} // namespace

std::string VirtualThreadsText(const VirtualThreads &view, bool details, const Style &style) {
    if (!view.available)
        return fmt::format("No virtual threads are shown: {}.\n", Printable(view.reason));
    if (view.count == 0)
        return "This JVM has no virtual threads.\n" + Notes(view);
    std::string text = fmt::format("{}{} virtual thread{}, {} mounted; sampled {}",
                                   view.count_cut ? "At least " : "", Grouped(view.count),
                                   view.count == 1 ? "" : "s", Grouped(view.mounted), Grouped(view.sampled));
    if (view.jvm_microseconds)
        text += fmt::format(" in {} ms", (*view.jvm_microseconds + 500) / 1000);
    return text + "\n" + (details ? "\n" + GroupDump(view, style) : GroupTable(view, style)) + Notes(view);
}

Json ToJson(const VirtualThreads &view) {
    if (!view.available)
        return {{"count", nullptr}, {"reason", view.reason}};
    Json states = Json::object(), groups = Json::array();
    for (const auto &[state, number] : view.states)
        states[state] = number;
    for (const VirtualGroup &group : view.groups)
        groups.push_back(GroupJson(group));
    Json document = {{"count", view.count},     {"in_executors", view.in_executors},
                     {"mounted", view.mounted}, {"sampled", view.sampled},
                     {"states", states},        {"groups_found", view.groups_found},
                     {"groups", groups},        {"cut", view.cut_by_limits || view.cut_by_rows || view.cut}};
    if (!view.note.empty())
        document["note"] = view.note;
    if (view.jvm_microseconds)
        document["jvm_microseconds"] = *view.jvm_microseconds;
    return document;
}

} // namespace qorctl
