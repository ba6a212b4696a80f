// The commands about threads and their locks.
#include "base/failure.h"
#include "budget.h"
#include "command_tools.h"
#include "jvm/session.h"
#include "report/thread_formats.h"
#include "show/locks.h"
#include "show/render.h"
#include "show/render_virtual.h"
#include "thread_choice.h"
#include "wire/request.h"
#include "wire/virtual_threads.h"

#include <cctype>
#include <ctime>
#include <fmt/format.h>

namespace qorctl {

namespace {

bool Holds(std::string_view text, const std::string &lower_part) {
    auto equal = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
    return std::search(text.begin(), text.end(), lower_part.begin(), lower_part.end(), equal) != text.end();
}

bool FrameHolds(const Frame &frame, const std::string &part) {
    return Holds(frame.class_name + "." + frame.method, part);
}

// Whether the text is in what is known of the request, the database call or the file.
bool TiersHold(const Thread &thread, const std::string &part) {
    const std::optional<std::string> none;
    const std::optional<std::string> texts[] = {
        thread.request_url,
        thread.db ? thread.db->url : none,
        thread.db ? thread.db->user : none,
        thread.db ? thread.db->sql : none,
        thread.rmi ? thread.rmi->jndi_name : none,
        thread.end_to_end.file,
    };
    return std::any_of(std::begin(texts), std::end(texts),
                       [&](const auto &text) { return text && Holds(*text, part); });
}

// Whether a thread's name, state, call, work in other tiers or any frame holds the text.
bool Matches(const Thread &thread, const std::string &part) {
    if (Holds(thread.name, part) || Holds(thread.state, part) ||
        (thread.call && FrameHolds(*thread.call, part)) || TiersHold(thread, part))
        return true;
    return std::any_of(thread.stack.begin(), thread.stack.end(),
                       [&](const Frame &frame) { return FrameHolds(frame, part); });
}

void KeepMatching(ThreadSample *sample, std::string part) {
    std::transform(part.begin(), part.end(), part.begin(), [](unsigned char c) { return std::tolower(c); });
    auto &threads = sample->threads;
    threads.erase(std::remove_if(threads.begin(), threads.end(),
                                 [&](const Thread &thread) { return !Matches(thread, part); }),
                  threads.end());
}

void PrintForTools(const std::string &format, const ThreadSample &sample, const Process &process) {
    if (format == "folded")
        Print(FoldedText(sample));
    else
        Print(JstackText(sample, int64_t{time(nullptr)} * 1000, ReadPerfData(process).java_version));
    NoteCut(sample);
}

void ShowThreads(const Settings &settings, const ThreadsCommand &command, const ThreadSample &sample,
                 int os_threads, const std::vector<UnknownProduct> &unknown) {
    Style style = TerminalStyle(settings);
    bool dump = command.details || !command.thread.empty();
    std::string text = dump ? ThreadDump(sample, style) : ThreadTable(sample, style) + "\n";
    if (sample.threads.empty())
        text = command.match.empty() ? "No thread is active; --all shows the idle ones.\n"
                                     : "No thread matches.\n";
    text += SampleNotes(sample, os_threads) + "\n" + UnknownProductsText(unknown);
    Json json = ToJson(sample);
    if (command.watch <= 0)
        json["unknown_products"] = UnknownProductsJson(unknown);
    PrintView(settings, command.watch, json, text);
}

ThreadSample AskForAll(const Settings &settings, pid_t pid, bool details) {
    ThreadQuestion question;
    question.all = true;
    question.details = details;
    std::string reply = AskOnce(settings, pid, ThreadsRequest(question));
    return DecodeThreads(OpenReply(reply));
}

Failure NoSuchThread(pid_t pid, const std::string &thread) {
    return Failure(fmt::format("JVM {} has no thread {}, or it has no Java frames", pid, thread),
                   "'qorctl threads --all' shows the threads with their ids");
}

// The view of one stack knows little of other tiers: what the poll says about the thread is added to it.
void AddTiers(const Settings &settings, pid_t pid, Thread *thread) {
    ThreadQuestion question;
    question.thread_key = thread->key.Text();
    ThreadSample sample = DecodeThreads(OpenReply(AskOnce(settings, pid, ThreadsRequest(question))));
    if (const Thread *told = FindByKey(sample, question.thread_key))
        TakeTiers(*told, thread);
}

std::string HolderText(const LockHolder &holder, const Thread &waiter, const std::string &virtual_holder,
                       const Style &style) {
    switch (holder.answer) {
    case LockHolder::FOUND:
        return HolderLine(holder.thread, style);
    case LockHolder::NO_FRAMES:
        return fmt::format("held by thread #{}, which runs no Java code\n", waiter.waits_for->owner.thread);
    case LockHolder::NOBODY:
        return virtual_holder.empty() ? "no thread is known to hold it\n" : virtual_holder + "\n";
    case LockHolder::MOVED_ON:
        break;
    }
    return "it no longer waits for it\n";
}

// One waiter: what it waits for, and where the holder is now.
void ShowLockOf(const Settings &settings, pid_t pid, const ThreadSample &sample, const Thread &waiter) {
    if (!waiter.waits_for) {
        PrintView(settings, 0, {{"waiter", BriefJson(waiter)}, {"lock", nullptr}, {"holder", nullptr}},
                  fmt::format("\"{}\" #{} waits for no lock.\n", Printable(waiter.name), waiter.key.thread));
        return;
    }
    std::string reply = AskOnce(settings, pid, LockHolderRequest(*waiter.waits_for, waiter.key.Text()));
    LockHolder holder = DecodeLockHolder(OpenReply(reply));
    Style style = TerminalStyle(settings);
    Json json = LockJson(sample, waiter);
    json["holder"] = ToJson(holder);
    PrintView(settings, 0, json,
              WaiterLine(waiter, style) +
                  HolderText(holder, waiter, VirtualHolderText(sample, waiter), style));
}

void RunVirtualThreads(Settings settings, pid_t pid, const ThreadsCommand &command) {
    if (command.match.find_first_of(",|\n") != std::string::npos)
        throw Failure("with --virtual the text of --match can't hold ',', '|' or a line feed",
                      "match a part without them", EXIT_USAGE);
    VirtualQuestion question;
    question.details = command.details;
    question.all = command.all;
    question.repeated = command.watch > 0;
    question.match = command.match;
    std::string request = VirtualThreadsRequest(question);
    Repeat(&settings, command.watch, [&] {
        std::string reply = AskOnce(settings, pid, request);
        VirtualThreads view = DecodeVirtualThreads(OpenReply(reply));
        PrintView(settings, command.watch, ToJson(view),
                  VirtualThreadsText(view, command.details, TerminalStyle(settings)));
    });
}

} // namespace

std::string RequireThreadKey(const Settings &settings, const Process &process, const std::string &text) {
    if (IsThreadNumber(text))
        return ThreadKeyText(text, process.inner_pid);
    return FindByName(AskForAll(settings, process.pid, false), text).key.Text();
}

ThreadSample RequireStack(const Settings &settings, pid_t pid, const std::string &thread) {
    std::string key = RequireThreadKey(settings, RequireProcess(pid), thread);
    std::string reply = AskOnce(settings, pid, StackRequest(key));
    ThreadSample sample = DecodeStack(OpenReply(reply));
    if (sample.threads.empty())
        throw sample.cut
            ? Failure(fmt::format("the frames of thread {} could not be had", thread), "ask again")
            : NoSuchThread(pid, thread);
    return sample;
}

void RunThreads(Settings settings, pid_t pid, const ThreadsCommand &command) {
    if (command.virtual_ones) {
        RunVirtualThreads(settings, pid, command);
        return;
    }
    Process process = RequireProcess(pid);
    ThreadQuestion question;
    question.details = command.details || !command.format.empty();
    question.all = command.all || command.format == "jstack";
    question.repeated = command.watch > 0;
    if (!command.thread.empty())
        question.thread_key = ThreadKeyText(command.thread, process.inner_pid);
    Repeat(&settings, command.watch, [&] {
        ThreadQuestion asked = question;
        FitThreads(settings, pid, &asked);
        std::string reply = AskOnce(settings, pid, ThreadsRequest(asked));
        ThreadSample sample = DecodeThreads(OpenReply(reply));
        if (!question.thread_key.empty() && sample.threads.empty())
            throw NoSuchThread(pid, command.thread);
        std::vector<UnknownProduct> unknown;
        if (command.watch <= 0 && command.match.empty() && command.format.empty())
            unknown = AskForUnknownProducts(settings, pid, sample);
        if (!command.match.empty())
            KeepMatching(&sample, command.match);
        if (!command.format.empty()) {
            PrintForTools(command.format, sample, process);
            fputs(CostText(settings).c_str(), stderr);
            return;
        }
        ShowThreads(settings, command, sample, process.threads, unknown);
        if (command.watch <= 0)
            NoteMissingTiers(settings, pid);
    });
}

void RunStack(Settings settings, pid_t pid, const std::string &thread, double watch) {
    Repeat(&settings, watch, [&] {
        ThreadSample sample = RequireStack(settings, pid, thread);
        AddTiers(settings, pid, &sample.threads[0]);
        PrintView(settings, watch, ToJson(sample),
                  ThreadDump(sample, TerminalStyle(settings)) + StackNotes(sample) + "\n");
        if (watch <= 0)
            NoteMissingTiers(settings, pid);
    });
}

void RunLocks(Settings settings, pid_t pid, const std::string &thread, double watch) {
    if (!thread.empty()) {
        std::string key = RequireThreadKey(settings, RequireProcess(pid), thread);
        ThreadSample sample = AskForAll(settings, pid, true);
        const Thread *waiter = FindByKey(sample, key);
        if (!waiter || !waiter->waits_for) { // samples lack virtual threads, and monitors that these hold
            sample = RequireStack(settings, pid, key);
            AddTiers(settings, pid, &sample.threads[0]);
            waiter = &sample.threads[0];
        }
        ShowLockOf(settings, pid, sample, *waiter);
        return;
    }
    Repeat(&settings, watch, [&] {
        ThreadSample sample = AskForAll(settings, pid, true);
        PrintView(settings, watch, LocksJson(sample), LocksText(sample, TerminalStyle(settings)));
    });
}

} // namespace qorctl
