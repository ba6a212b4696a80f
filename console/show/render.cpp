#include "render.h"

#include "locks.h"
#include "render_memory.h"
#include "render_tiers.h"
#include "wire/protocol.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <map>

namespace qorctl {

namespace {

struct StateColour {
    std::string_view state;
    const char *code;
};
constexpr StateColour STATE_COLOURS[] = {
    {"Runnable", "\x1b[32m"}, {"Lock", "\x1b[31m"},     {"Network Wait", "\x1b[33m"}, {"IO Wait", "\x1b[33m"},
    {"DB Wait", "\x1b[33m"},  {"RMI Wait", "\x1b[33m"}, {"Object Wait", "\x1b[2m"},   {"Sleeping", "\x1b[2m"},
};

constexpr char PARKING[] = "- parking to wait for ";

std::string LockText(int64_t lock, const std::string &class_name) {
    return fmt::format("<{}> (a {})", lock, class_name);
}

std::string WaitText(const ThreadSample &sample, const Thread &thread,
                     const std::map<int64_t, std::string> &names) {
    const LockWait &wait = *thread.waits_for;
    bool parked = !thread.stack.empty() && thread.stack[0].method == "park";
    const char *how = thread.state == "Lock" ? "- waiting to lock " : parked ? PARKING : "- waiting on ";
    std::string text = how + LockText(wait.lock, wait.class_name);
    if (std::string holder = VirtualHolderText(sample, thread); !holder.empty())
        return text + ", " + holder;
    if (wait.owner.thread <= 0)
        return thread.state == "Lock" ? text + ", " + OWNER_UNKNOWN : text;
    text += fmt::format(", held by thread #{}", wait.owner.thread);
    auto name = names.find(wait.owner.thread);
    return name == names.end() ? text : fmt::format("{} \"{}\"", text, name->second);
}

// Writes the rows of one stack with the locks at the frames that took them.
class StackWriter {
public:
    StackWriter(const ThreadSample &sample, const Thread &thread, const Style &style, std::string *text)
        : sample_(sample), thread_(thread), style_(style), text_(text) {}

    void Write(const std::map<int64_t, std::string> &names) {
        bool first = true;
        for (const Frame &frame : thread_.stack) {
            if (frame.skipped > 0) {
                Row(fmt::format("... {} frames skipped", frame.skipped), DIM);
                Locks(frame.index, frame.index + frame.skipped - 1, true);
            } else {
                Row("at " + CallText(frame), nullptr);
            }
            if (first && thread_.waits_for)
                Row(WaitText(sample_, thread_, names), StateColourOf("Lock"));
            else if (first && thread_.parked_on)
                Row(PARKING + LockText(thread_.parked_on->lock, thread_.parked_on->class_name), DIM);
            first = false;
            if (frame.skipped == 0 && !frame.framework)
                Locks(frame.index, frame.index, false);
        }
        if (thread_.stack_cut && thread_.stack.back().skipped == 0)
            Row("... frames below are missing, the agent has no room for them", DIM);
        for (const OwnedLock &lock : thread_.owns)
            if (!Shown(lock))
                Row(fmt::format("- locked {}, by a frame that isn't known",
                                LockText(lock.lock, lock.class_name)),
                    StateColourOf("Network Wait"));
    }

private:
    void Row(const std::string &row, const char *colour) {
        *text_ += fmt::format("\t{}\n", Coloured(Printable(row), colour, style_));
    }

    void Locks(int64_t first, int64_t last, bool tell_depth) {
        for (const OwnedLock &lock : thread_.owns) {
            if (lock.depth < first || lock.depth > last)
                continue;
            std::string row = "- locked " + LockText(lock.lock, lock.class_name);
            Row(tell_depth ? fmt::format("{} at frame {}", row, lock.depth) : row,
                StateColourOf("Network Wait"));
        }
    }

    bool Shown(const OwnedLock &lock) const {
        for (const Frame &frame : thread_.stack)
            if (!frame.framework && lock.depth >= frame.index &&
                lock.depth < frame.index + std::max<int64_t>(frame.skipped, 1))
                return true;
        return false;
    }

    const ThreadSample &sample_;
    const Thread &thread_;
    const Style &style_;
    std::string *text_;
};

// What is known of a thread's work in other tiers, as a column of the table.
struct TierColumn {
    Column column;
    bool wide; // only where lines aren't cut
    std::string (*text)(const Thread &thread);
};
constexpr TierColumn TIER_COLUMNS[] = {
    {{"CPU", true}, true, CpuTimeText},  {{"ALLOCATED", true}, true, AllocationText},
    {{"REQUEST"}, false, RequestText},   {{"FILE"}, false, FileText},
    {{"REMOTE"}, false, RemoteText},     {{"SERVER"}, true, ServerText},
    {{"TOLD"}, true, OwnText},           {{"DATABASE"}, false, DatabaseText},
    {{"DB URL"}, true, DatabaseUrlText}, {{"SQL"}, false, SqlText},
};

// The same as lines of a dump.
struct TierLine {
    const char *what;
    std::string (*text)(const Thread &thread);
};
constexpr TierLine TIER_LINES[] = {
    {"virtual, on", CarrierText}, {"carries", CarriesText},
    {"request", RequestText},     {"database", DatabaseText},
    {"url", DatabaseUrlText},     {"sql", SqlText},
    {"remote", RemoteText},       {"file", FileText},
    {"server", ServerText},       {"told", OwnText},
    {"so far", FiguresText},
};

const char *AgentText(AgentState state) {
    return state == AgentState::RUNNING ? "running" : state == AgentState::ABSENT ? "-" : "?";
}

std::string FigureText(const Summary &summary, int i) {
    return summary.figures[i] ? fmt::format("{}", *summary.figures[i]) : "-";
}

// The columns of the series.
struct SeriesColumn {
    const char *title;
    SummaryFigure figure;
};
constexpr SeriesColumn SERIES[] = {
    {"sys%", SYSTEM_CPU_PERCENT}, {"jvm%", PROCESS_CPU_PERCENT},
    {"heap%", HEAP_PERCENT},      {"os-us", OS_RESPONSE_MICROSECONDS},
    {"run", THREADS_RUNNABLE},    {"db", THREADS_DB_WAIT},
    {"lock", THREADS_LOCK},       {"net", THREADS_NETWORK_WAIT},
    {"io", THREADS_IO_WAIT},      {"wait", THREADS_OBJECT_WAIT},
    {"sleep", THREADS_SLEEPING},  {"rmi", THREADS_RMI_WAIT},
    {"other", THREADS_OTHER},
};
constexpr int FIGURE_WIDTH = 5;

template <class Wanted>
std::string FigureTable(const Summary &summary, const Style &style, Wanted wanted) {
    Table table({{"FIGURE"}, {"VALUE", true}, {""}});
    for (int i = 0; i < SUMMARY_FIGURES; ++i) {
        bool count = SUMMARY_NAMES[i].unit[0] == 0;
        if (wanted(i))
            table.Add({fmt::format("{}{}", count ? "Threads in " : "", SUMMARY_NAMES[i].label),
                       FigureText(summary, i), std::string(SUMMARY_NAMES[i].unit)});
    }
    return table.Text(style);
}

template <class Wanted>
std::string SeriesHeader(Wanted wanted) {
    std::string line = fmt::format("{:<8}", "time");
    for (const SeriesColumn &column : SERIES)
        if (wanted(column.figure))
            line += fmt::format(" {:>{}}", column.title, FIGURE_WIDTH);
    return line + '\n';
}

template <class Wanted>
std::string SeriesLine(const Summary &summary, Wanted wanted) {
    std::string line = fmt::format("{:<8}", ClockText());
    for (const SeriesColumn &column : SERIES)
        if (wanted(column.figure))
            line += fmt::format(" {:>{}}", FigureText(summary, column.figure), FIGURE_WIDTH);
    return line + '\n';
}

// Whether the JVM made the class while it ran, of a lambda or a method handle.
bool IsHidden(std::string_view name) {
    const size_t dot = name.find_last_of("./");
    const bool numbered = dot != name.npos && dot + 1 < name.size() && isdigit(name[dot + 1]) != 0;
    return numbered || name.find("$$Lambda") != name.npos;
}

} // namespace

const char *StateColourOf(std::string_view state) {
    for (const StateColour &row : STATE_COLOURS)
        if (row.state == state)
            return row.code;
    return nullptr;
}

// Without a line the wire keeps no file either, so that a native method and unknown code look alike; a hidden
// class has no native methods.
std::string CallText(const Frame &frame) {
    std::string call = fmt::format("{}.{}", frame.class_name, frame.method);
    if (frame.line > 0)
        return fmt::format("{}({}:{})", call, frame.file.empty() ? "Unknown Source" : frame.file, frame.line);
    return fmt::format("{}({})", call,
                       !frame.file.empty()          ? frame.file
                       : IsHidden(frame.class_name) ? "Unknown Source"
                                                    : "Native Method");
}

// Columns that no thread fills are left out, and where the lines are cut those that matter less.
std::string ThreadTable(const ThreadSample &sample, const Style &style) {
    std::vector<const TierColumn *> tiers;
    for (const TierColumn &tier : TIER_COLUMNS) {
        auto filled = [&](const Thread &thread) { return !tier.text(thread).empty(); };
        if ((style.width == 0 || !tier.wide) &&
            std::any_of(sample.threads.begin(), sample.threads.end(), filled))
            tiers.push_back(&tier);
    }
    std::vector<Column> columns = {{"ID", true}, {"STATE"}, {"THREAD"}, {"CALL"}};
    for (const TierColumn *tier : tiers)
        columns.push_back(tier->column);
    Table table(columns);
    for (const Thread &thread : sample.threads) {
        std::vector<Cell> row = {fmt::format("{}", thread.key.thread),
                                 Cell(thread.state, StateColourOf(thread.state)), MarkedName(thread),
                                 thread.call ? CallText(*thread.call) : "-"};
        for (const TierColumn *tier : tiers)
            row.emplace_back(tier->text(thread));
        table.Add(std::move(row));
    }
    return table.Text(style);
}

std::string ThreadDump(const ThreadSample &sample, const Style &style) {
    std::map<int64_t, std::string> names;
    for (const Thread &thread : sample.threads)
        names[thread.key.thread] = thread.name;
    std::string text;
    for (const Thread &thread : sample.threads) {
        std::string name = fmt::format("\"{}\" #{}", Printable(thread.name), thread.key.thread);
        text += fmt::format("{} {}\n", Coloured(name, BOLD, style),
                            Coloured(Printable(thread.state), StateColourOf(thread.state), style));
        if (thread.call)
            text += fmt::format("   call: {}\n", Printable(CallText(*thread.call)));
        for (const TierLine &tier : TIER_LINES)
            if (std::string told = tier.text(thread); !told.empty())
                text += FitLine(fmt::format("   {}: {}", tier.what, Printable(told)), style) + '\n';
        StackWriter(sample, thread, style, &text).Write(names);
        text += '\n';
    }
    return text;
}

std::string SampleNotes(const ThreadSample &sample, int os_threads) {
    std::string text =
        fmt::format("{} thread{}", sample.threads.size(), sample.threads.size() == 1 ? "" : "s");
    if (sample.jvm_microseconds)
        text += fmt::format(", {} us in the JVM", *sample.jvm_microseconds);
    if (sample.cut)
        text += "; the reply reached the agent's limit, threads are missing (ask for one with --thread)";
    if (int cut = CutStacks(sample))
        text += fmt::format("; {} stack{} lack{} frames at the bottom", cut, cut == 1 ? "" : "s",
                            cut == 1 ? "s" : "");
    if (os_threads > MAX_THREADS_SAMPLED)
        text += fmt::format("; the process has {} threads, the agent looks at {} Java threads at most",
                            os_threads, MAX_THREADS_SAMPLED);
    return text;
}

std::string StackNotes(const ThreadSample &sample) {
    const std::vector<Frame> none;
    const std::vector<Frame> &stack = sample.threads.empty() ? none : sample.threads[0].stack;
    auto frames =
        std::count_if(stack.begin(), stack.end(), [](const Frame &frame) { return !frame.framework; });
    std::string text = fmt::format("{} frame{}", frames, frames == 1 ? "" : "s");
    if (sample.jvm_microseconds)
        text += fmt::format(", {} us in the JVM", *sample.jvm_microseconds);
    if (sample.cut || CutStacks(sample))
        text += "; the reply holds no more of this stack, frames at its bottom are missing";
    return text;
}

std::string SummaryTable(const Summary &summary, const Style &style) {
    return FigureTable(summary, style, [](int) { return true; });
}

std::string SummaryHeader() {
    return SeriesHeader([](int) { return true; });
}

std::string SummaryLine(const Summary &summary) {
    return SeriesLine(summary, [](int) { return true; });
}

std::string CpuTable(const Summary &summary, const Style &style) {
    return FigureTable(summary, style, IsCpuFigure);
}

std::string CpuHeader() {
    return SeriesHeader(IsCpuFigure);
}

std::string CpuLine(const Summary &summary) {
    return SeriesLine(summary, IsCpuFigure);
}

std::string JvmTable(const std::vector<JvmEntry> &jvms, const Style &style) {
    Table table({{"PID", true}, {"USER"}, {"JAVA"}, {"AGENT"}, {"PORTS"}, {"MAIN"}, {"NOTE"}});
    for (const JvmEntry &jvm : jvms)
        table.Add({std::to_string(jvm.pid), jvm.user, jvm.java_version.empty() ? "?" : jvm.java_version,
                   Cell(AgentText(jvm.agent),
                        jvm.agent == AgentState::RUNNING ? StateColourOf("Runnable") : nullptr),
                   jvm.ports ? fmt::format("{}", fmt::join(*jvm.ports, ",")) : "?", jvm.main_class,
                   jvm.note});
    return table.Text(style);
}

std::string VisibleReply(std::string_view reply) {
    std::string out;
    while (!reply.empty()) {
        auto control = [](char c) { return static_cast<unsigned char>(c) < 32 || c == 127; };
        size_t plain = static_cast<size_t>(std::find_if(reply.begin(), reply.end(), control) - reply.begin());
        out += Printable(reply.substr(0, plain));
        reply.remove_prefix(plain);
        if (reply.empty())
            break;
        char c = reply[0];
        out += fmt::format("<{}>", static_cast<int>(c));
        if (c == RECORD_END || c == SECTION_END || c == '\n')
            out += '\n';
        reply.remove_prefix(1);
    }
    if (!out.empty() && out.back() != '\n')
        out += '\n';
    return out;
}

} // namespace qorctl
