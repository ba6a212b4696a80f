#include "locks.h"

#include "base/failure.h"
#include "render.h"
#include "wire/protocol.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr size_t CANDIDATES_TOLD = 8;
constexpr char HELD_BY_VIRTUAL[] = "held by a virtual thread";

bool Holds(const std::string &text, const std::string &part) {
    auto equal = [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), equal) != text.end();
}

std::string Candidates(const std::vector<const Thread *> &threads) {
    std::string text;
    for (size_t i = 0; i < threads.size() && i < CANDIDATES_TOLD; ++i)
        text +=
            fmt::format("{}{} \"{}\"", i ? ", " : "", threads[i]->key.thread, Printable(threads[i]->name));
    return threads.size() > CANDIDATES_TOLD ? text + ", ..." : text;
}

std::string NameAndId(const Thread &thread) {
    return fmt::format("{} #{}", thread.name, thread.key.thread);
}

std::string QuotedName(const Thread &thread, const Style &style) {
    return Coloured(fmt::format("\"{}\" #{}", Printable(thread.name), thread.key.thread), BOLD, style);
}

// Where management isn't there, a sample doesn't name the owner; the owner's own row does.
bool Owns(const Thread &thread, const LockWait &wait) {
    for (const OwnedLock &owned : thread.owns)
        if (owned.lock == wait.lock && owned.class_name == wait.class_name)
            return true;
    return false;
}

// Whether the thread runs a virtual one, whose frames and locks it doesn't show.
bool IsCarrier(const Thread &thread) {
    return std::any_of(thread.stack.begin(), thread.stack.end(),
                       [](const Frame &frame) { return frame.class_name == "java.lang.VirtualThread"; });
}

// Samples lack virtual threads that no carrier runs, and those of older agents all: the owner of a monitor is
// then nobody's id, or that of the carrier.
bool HeldByVirtualThread(const ThreadSample &sample, const Thread &waiter) {
    const LockWait &wait = *waiter.waits_for;
    if (wait.owner.thread <= 0)
        return false;
    const Thread *holder = HolderOf(sample, waiter);
    if (!holder)
        return !sample.cut && sample.threads.size() < static_cast<size_t>(MAX_THREADS_SAMPLED);
    return waiter.state == "Lock" && IsCarrier(*holder) && !Owns(*holder, wait);
}

std::string HolderCell(const ThreadSample &sample, const Thread &waiter) {
    if (std::string text = VirtualHolderText(sample, waiter); !text.empty())
        return text;
    if (HeldByVirtualThread(sample, waiter))
        return HELD_BY_VIRTUAL;
    if (const Thread *holder = HolderOf(sample, waiter))
        return NameAndId(*holder);
    int64_t owner = waiter.waits_for->owner.thread;
    return owner > 0 ? fmt::format("#{}", owner) : OWNER_UNKNOWN;
}

// The name of the virtual thread that owns the lock, "" when it has none; nothing for other owners.
std::optional<std::string> VirtualOwner(const ThreadSample &sample, const Thread &waiter) {
    const Thread *holder = HolderOf(sample, waiter);
    if (holder && holder->end_to_end.carrier)
        return holder->name;
    const std::optional<std::string> &name = waiter.end_to_end.lock_owner;
    return name == NO_VALUE ? "" : name;
}

} // namespace

std::string VirtualHolderText(const ThreadSample &sample, const Thread &waiter) {
    std::optional<std::string> name = waiter.waits_for ? VirtualOwner(sample, waiter) : std::nullopt;
    if (!name)
        return "";
    if (waiter.waits_for->owner.thread <= 0)
        return HELD_BY_VIRTUAL;
    std::string text = fmt::format("held by virtual thread #{}", waiter.waits_for->owner.thread);
    return name->empty() ? text : fmt::format("{} {}", text, *name);
}

const Thread &FindByName(const ThreadSample &sample, const std::string &text) {
    std::vector<const Thread *> found;
    for (const Thread &thread : sample.threads)
        if (thread.name == text)
            found.push_back(&thread);
    if (found.empty())
        for (const Thread &thread : sample.threads)
            if (Holds(thread.name, text))
                found.push_back(&thread);
    if (found.empty())
        throw Failure(fmt::format("no thread's name holds \"{}\"", Printable(text)),
                      "'qorctl threads --all' shows the threads with their ids");
    if (found.size() > 1)
        throw Failure(fmt::format("\"{}\" is the name of {} threads", Printable(text), found.size()),
                      "say which by its id: " + Candidates(found));
    return *found[0];
}

const Thread *FindByKey(const ThreadSample &sample, const std::string &key) {
    for (const Thread &thread : sample.threads)
        if (thread.key.Text() == key)
            return &thread;
    return nullptr;
}

const Thread *HolderOf(const ThreadSample &sample, const Thread &waiter) {
    if (!waiter.waits_for)
        return nullptr;
    const LockWait &wait = *waiter.waits_for;
    for (const Thread &thread : sample.threads) {
        if (wait.owner.thread > 0 && thread.key.thread == wait.owner.thread)
            return &thread;
        if (wait.owner.thread == 0 && &thread != &waiter && Owns(thread, wait))
            return &thread;
    }
    return nullptr;
}

std::vector<std::vector<const Thread *>> FindDeadlocks(const ThreadSample &sample) {
    std::vector<std::vector<const Thread *>> rings;
    std::vector<const Thread *> seen;
    for (const Thread &start : sample.threads) {
        std::vector<const Thread *> path;
        const Thread *at = &start;
        while (at && std::find(seen.begin(), seen.end(), at) == seen.end()) {
            seen.push_back(at);
            path.push_back(at);
            at = HolderOf(sample, *at);
        }
        auto ring = std::find(path.begin(), path.end(), at);
        if (at && ring != path.end())
            rings.emplace_back(ring, path.end());
    }
    return rings;
}

std::string LocksText(const ThreadSample &sample, const Style &style) {
    Table table({{"ID", true}, {"STATE"}, {"WAITER"}, {"LOCK", true}, {"CLASS"}, {"HOLDER"}});
    size_t waiting = 0;
    for (const Thread &thread : sample.threads) {
        if (!thread.waits_for)
            continue;
        ++waiting;
        table.Add({fmt::format("{}", thread.key.thread), Cell(thread.state, StateColourOf(thread.state)),
                   thread.name, fmt::format("{}", thread.waits_for->lock), thread.waits_for->class_name,
                   HolderCell(sample, thread)});
    }
    std::string text = waiting ? table.Text(style) : "No thread waits for a lock.\n";
    for (const std::vector<const Thread *> &ring : FindDeadlocks(sample)) {
        std::string line = "deadlock: ";
        for (const Thread *thread : ring)
            line += NameAndId(*thread) + " waits for ";
        text += Coloured(Printable(line + NameAndId(*ring[0])), StateColourOf("Lock"), style) + "\n";
    }
    if (sample.cut)
        text += "the reply reached the agent's limit, threads are missing\n";
    return text;
}

Json BriefJson(const Thread &thread) {
    return {{"id", thread.key.thread}, {"name", thread.name}, {"state", thread.state}};
}

Json LockJson(const ThreadSample &sample, const Thread &waiter) {
    const Thread *holder = HolderOf(sample, waiter);
    Json owner = holder ? BriefJson(*holder) : Json();
    if (std::optional<std::string> name = VirtualOwner(sample, waiter)) {
        owner["id"] = waiter.waits_for->owner.thread;
        owner["name"] = *name;
        owner["virtual"] = true;
    }
    return {{"waiter", BriefJson(waiter)},
            {"lock", waiter.waits_for->lock},
            {"class", waiter.waits_for->class_name},
            {"holder", owner}};
}

Json LocksJson(const ThreadSample &sample) {
    Json waits = Json::array(), rings = Json::array();
    for (const Thread &thread : sample.threads)
        if (thread.waits_for)
            waits.push_back(LockJson(sample, thread));
    for (const std::vector<const Thread *> &ring : FindDeadlocks(sample)) {
        Json ids = Json::array();
        for (const Thread *thread : ring)
            ids.push_back(thread->key.thread);
        rings.push_back(ids);
    }
    return {{"waits", waits}, {"deadlocks", rings}, {"cut", sample.cut}};
}

std::string WaiterLine(const Thread &waiter, const Style &style) {
    return fmt::format("{} waits for <{}> (a {})\n", QuotedName(waiter, style), waiter.waits_for->lock,
                       Printable(waiter.waits_for->class_name));
}

std::string HolderLine(const Thread &holder, const Style &style) {
    std::string call = holder.call ? CallText(*holder.call) : "-";
    return fmt::format("held by {} {} in {}\n", QuotedName(holder, style), Printable(holder.state),
                       Printable(call));
}

} // namespace qorctl
