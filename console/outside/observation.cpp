#include "observation.h"

#include "thread_sampler.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <memory>
#include <poll.h>
#include <set>

namespace qorctl::outside {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr size_t MOST_SAMPLERS = 16;
constexpr int PATIENCE_STEP_MS = 10;
constexpr size_t LONGEST_RELEASE = 80;
constexpr size_t MOST_TOPS = 3;
constexpr double LEAST_SECONDS = 1; // of a wait for a safepoint that is worth a note

// A JVM whose tables are read, and what goes through them.
struct Jvm {
    Jvm(Memory &memory, const VmTable &table, const VmSymbols &symbols)
        : objects(memory, table, symbols), code(memory, table, objects),
          walker(memory, table, symbols, objects, code) {}
    VmObjects objects;
    CodeCache code;
    StackWalker walker;
};

// One look, step by step. The target is neither stopped nor changed.
class Looker {
public:
    Looker(pid_t pid, const LookOptions &options) : options_(options), memory_(pid) { seen_.pid = pid; }

    Observation Run() {
        seen_.stop = ReadStopState(seen_.pid);
        if (!Open())
            return std::move(seen_);
        seen_.first = ReadSafepoint(memory_, table_, symbols_);
        by_inner_id_ = TasksByInnerId(seen_.pid);
        ReadThreads();
        ReadTasks();
        Wait();
        ReadLater();
        seen_.last = ReadSafepoint(memory_, table_, symbols_);
        ReadSamples();
        FindBlocked();
        return std::move(seen_);
    }

private:
    bool Open() {
        const std::optional<VmSymbols> symbols = ReadVmSymbols(seen_.pid, memory_, &seen_.unread);
        if (!symbols)
            return false;
        symbols_ = *symbols;
        seen_.has_symbols = symbols_.has_symtab;
        if (!table_.Load(memory_, symbols_)) {
            seen_.unread = memory_.Refusal().empty() ? "its libjvm.so describes itself in another way"
                                                     : memory_.Refusal();
            return false;
        }
        seen_.release = memory_.Text(memory_.Word(table_.Static(Vm::RELEASE)), LONGEST_RELEASE);
        jvm_ = std::make_unique<Jvm>(memory_, table_, symbols_);
        return true;
    }

    void ReadThreads() {
        const SteadyClock::time_point start = SteadyClock::now();
        for (const Address at : ReadThreadList(memory_, table_)) {
            SeenThread thread;
            ThreadFacts facts;
            if (!ReadThread(memory_, table_, symbols_, at, &facts))
                continue;
            const auto tid = by_inner_id_.find(facts.os_id);
            if (tid == by_inner_id_.end() || !read_.insert(tid->second).second)
                continue; // gone meanwhile, or never a thread
            thread.self = at;
            thread.tid = tid->second;
            thread.first = ReadTask(seen_.pid, thread.tid);
            thread.name = jvm_->objects.ThreadName(at);
            if (thread.name.empty())
                thread.name = TaskText(seen_.pid, thread.tid, "comm");
            // Read again: what lies between the two readings of the task is what they vouch for.
            if (!ReadThread(memory_, table_, symbols_, at, &facts))
                continue;
            thread.state = facts.state;
            thread.pending_monitor = facts.pending_monitor;
            const bool late = SteadyClock::now() > start + std::chrono::milliseconds(options_.stacks_ms);
            if (facts.anchor_sp != 0 && !late)
                thread.walk = jvm_->walker.FromAnchor(facts);
            thread.no_stack = facts.anchor_sp == 0 ? ""
                              : late               ? "no time was left for it"
                                                   : thread.walk.reason;
            thread.last = ReadTask(seen_.pid, thread.tid);
            thread.proof = thread.walk.frames.empty()               ? StackProof::NONE
                           : StayedStill(thread.first, thread.last) ? StackProof::STILL
                                                                    : StackProof::TORN;
            facts_.push_back(facts);
            seen_.threads.push_back(std::move(thread));
        }
    }

    void ReadTasks() {
        for (const auto &[inner, tid] : by_inner_id_)
            if (!read_.count(tid)) {
                SeenTask task;
                task.tid = tid;
                task.name = TaskText(seen_.pid, tid, "comm");
                seen_.tasks.push_back(std::move(task));
                tasks_before_.push_back(ReadTask(seen_.pid, tid));
            }
    }

    bool Runs(const SeenThread &thread) const { return ReadTask(seen_.pid, thread.tid).state == 'R'; }

    static bool IsInJava(int state) { return (state & ~1) == JAVA_IN_JAVA; }

    void AddSampler(size_t i) {
        SeenThread &thread = seen_.threads[i];
        if (samplers_.size() == MOST_SAMPLERS) {
            thread.no_stack = fmt::format("{} other threads are sampled", MOST_SAMPLERS);
            return;
        }
        auto sampler = std::make_unique<ThreadSampler>(thread.tid);
        if (sampler->Problem().empty())
            samplers_.emplace(i, std::move(sampler));
        else
            seen_.no_samples = thread.no_stack = sampler->Problem();
    }

    // Samplers for the threads in Java, then for those that run, until the window is over.
    void Wait() {
        for (const bool in_java : {true, false})
            for (size_t i = 0; i < seen_.threads.size(); ++i) {
                const SeenThread &thread = seen_.threads[i];
                const bool runs = thread.first.state == 'R' || thread.last.state == 'R';
                if (IsInJava(thread.state) == in_java && (in_java || runs))
                    AddSampler(i);
            }
        poll(nullptr, 0, options_.window_ms);
        // One that can run and had no processor meanwhile has no sample yet.
        for (int more = 0; more < options_.patience_ms && LacksSample(); more += PATIENCE_STEP_MS)
            poll(nullptr, 0, PATIENCE_STEP_MS);
        for (int more = 0; more < options_.safepoint_ms && JustBegan(); more += PATIENCE_STEP_MS)
            poll(nullptr, 0, PATIENCE_STEP_MS);
    }

    // A safepoint that is reached a little later isn't a finding: a thread may only wait for a processor.
    bool JustBegan() {
        const SafepointState now = ReadSafepoint(memory_, table_, symbols_);
        return seen_.first.phase == SAFEPOINT_BEGUN && now.phase == SAFEPOINT_BEGUN &&
               now.counter == seen_.first.counter &&
               now.seconds.value_or(0) * 1000 < static_cast<double>(options_.safepoint_ms);
    }

    bool LacksSample() const {
        return std::any_of(samplers_.begin(), samplers_.end(), [this](const auto &one) {
            return !one.second->HasSamples() && Runs(seen_.threads[one.first]);
        });
    }

    static double Share(const TaskTimes &before, const TaskTimes &now) {
        const double passed = std::chrono::duration<double, std::nano>(now.at - before.at).count();
        return now.ran_ns > before.ran_ns && passed > 0
                   ? std::min(static_cast<double>(now.ran_ns - before.ran_ns) / passed, 1.0)
                   : 0;
    }

    void ReadLater() {
        for (SeenThread &thread : seen_.threads) {
            const TaskTimes now = ReadTask(seen_.pid, thread.tid);
            ThreadFacts facts;
            if (ReadThread(memory_, table_, symbols_, thread.self, &facts))
                thread.later_state = facts.state;
            thread.share = Share(thread.last, now);
            thread.channel = TaskText(seen_.pid, thread.tid, "wchan");
            thread.last = now;
        }
        for (size_t i = 0; i < seen_.tasks.size(); ++i) {
            SeenTask &task = seen_.tasks[i];
            const TaskTimes now = ReadTask(seen_.pid, task.tid);
            task.state = now.state;
            task.share = Share(tasks_before_[i], now);
            task.major_faults = now.major_faults - std::min(now.major_faults, tasks_before_[i].major_faults);
            task.channel = TaskText(seen_.pid, task.tid, "wchan");
        }
    }

    Walk WalkMoment(const ThreadFacts &facts, const MomentOfThread &moment) {
        const StackCopy stack{moment.registers.sp, facts.stack_base, moment.stack};
        Walk walk = jvm_->walker.From(stack, moment.registers, true);
        if (!walk.frames.empty())
            return walk;
        return jvm_->walker.Scan(stack); // in the JVM's own code or a library
    }

    void TakeMoments(size_t i, const std::vector<MomentOfThread> &moments) {
        SeenThread &thread = seen_.threads[i];
        std::map<std::string, size_t> tops;
        Walk best;
        for (const MomentOfThread &moment : moments) {
            Walk walk = WalkMoment(facts_[i], moment);
            if (walk.frames.empty()) {
                thread.no_stack = walk.reason;
                continue;
            }
            const Frame &top = walk.frames.front();
            ++tops[top.method + (top.code.empty() ? "" : " [" + top.code + "]")];
            if (best.frames.empty() || walk.whole)
                best = std::move(walk);
        }
        thread.samples = moments.size();
        thread.tops.assign(tops.begin(), tops.end());
        std::stable_sort(thread.tops.begin(), thread.tops.end(),
                         [](const auto &a, const auto &b) { return a.second > b.second; });
        thread.tops.resize(std::min(thread.tops.size(), MOST_TOPS));
        if (best.frames.empty() || thread.proof == StackProof::STILL)
            return;
        thread.walk = std::move(best);
        thread.proof = StackProof::MOMENT;
    }

    void ReadSamples() {
        for (auto &[i, sampler] : samplers_)
            TakeMoments(i, sampler->Take());
        for (size_t i = 0; i < seen_.threads.size(); ++i) {
            SeenThread &thread = seen_.threads[i];
            if (thread.proof != StackProof::NONE || !IsInJava(thread.state) || !IsInJava(thread.later_state))
                continue;
            if (options_.stop_thread) {
                if (const auto moment = StopAndSample(thread.tid, &thread.no_stack))
                    TakeMoments(i, {*moment});
            } else {
                ReadWaiting(i);
            }
            if (thread.proof == StackProof::NONE && thread.no_stack.empty())
                thread.no_stack =
                    thread.share > 0 ? "no sample was taken" : "it got no processor in that time";
        }
    }

    // A thread in Java that doesn't run: stopped, or out of its time on a processor. The kernel knows its
    // place.
    void ReadWaiting(size_t i) {
        SeenThread &thread = seen_.threads[i];
        const TaskTimes before = ReadTask(seen_.pid, thread.tid);
        const std::optional<UserPlace> place =
            before.state == 'R' ? std::nullopt : ReadUserPlace(seen_.pid, thread.tid);
        StackCopy stack;
        if (!place || !jvm_->walker.Copy(facts_[i], place->sp, &stack))
            return;
        Walk walk = jvm_->walker.From(stack, {place->pc, place->sp, 0, 0}, true);
        if (!walk.whole)
            walk = jvm_->walker.Scan(stack);
        if (walk.frames.empty())
            return;
        thread.walk = std::move(walk);
        thread.proof =
            StayedStill(before, ReadTask(seen_.pid, thread.tid)) ? StackProof::STILL : StackProof::TORN;
    }

    void FindBlocked() {
        std::map<Address, BlockedGroup> groups;
        for (const SeenThread &thread : seen_.threads)
            if (thread.pending_monitor != 0)
                groups[thread.pending_monitor].threads.push_back(thread.name);
        for (auto &[monitor, group] : groups) {
            group.class_name = jvm_->objects.MonitorClass(monitor);
            seen_.blocked.push_back(std::move(group));
        }
        std::stable_sort(seen_.blocked.begin(), seen_.blocked.end(),
                         [](const auto &a, const auto &b) { return a.threads.size() > b.threads.size(); });
    }

    const LookOptions options_;
    ProcessMemory memory_;
    VmSymbols symbols_;
    VmTable table_;
    std::unique_ptr<Jvm> jvm_;
    Observation seen_;
    std::map<pid_t, pid_t> by_inner_id_;
    std::set<pid_t> read_;           // ids of Java threads
    std::vector<ThreadFacts> facts_; // of seen_.threads
    std::vector<TaskTimes> tasks_before_;
    std::map<size_t, std::unique_ptr<ThreadSampler>> samplers_; // by index of seen_.threads
};

} // namespace

Observation Look(pid_t pid, const LookOptions &options) {
    return Looker(pid, options).Run();
}

std::optional<double> SecondsWithoutSafepoint(pid_t pid) {
    ProcessMemory memory(pid);
    std::string problem;
    const std::optional<VmSymbols> symbols = ReadVmSymbols(pid, memory, &problem);
    if (!symbols)
        return std::nullopt;
    VmTable none;
    const SafepointState state = ReadSafepoint(memory, none, *symbols);
    const bool waits = state.phase == SAFEPOINT_BEGUN && state.seconds.value_or(0) >= LEAST_SECONDS;
    return waits ? state.seconds : std::nullopt;
}

} // namespace qorctl::outside
