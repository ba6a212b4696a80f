#include "decode.h"

#include "base/failure.h"
#include "base/starts_with.h"
#include "protocol.h"
#include "thread_records.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

const FigureName SUMMARY_NAMES[SUMMARY_FIGURES] = {
    {"system_cpu_percent", "System CPU", "%"},    {"os_response_microseconds", "OS response", "us"},
    {"heap_percent", "Heap used", "%"},           {"threads_runnable", "Runnable", ""},
    {"threads_db_wait", "DB Wait", ""},           {"threads_lock", "Lock", ""},
    {"threads_network_wait", "Network Wait", ""}, {"threads_io_wait", "IO Wait", ""},
    {"threads_object_wait", "Object Wait", ""},   {"threads_sleeping", "Sleeping", ""},
    {"threads_rmi_wait", "RMI Wait", ""},         {"threads_other", "Other", ""},
    {"process_cpu_percent", "Process CPU", "%"},
};

namespace {

// The largest piece that the agent appends in one go: a stack with the rows around it. A reply without a
// timing that stops less than this before the limit has had a piece refused.
constexpr size_t LARGEST_PIECE = 102400 + 3 * 10240;

struct Refusal {
    std::string_view start;
    const char *hint;
};

constexpr Refusal REFUSALS[] = {
    {TIMED_OUT, "the agent was busy for longer than its time-out; wait and ask again (the option "
                "timeout=SECONDS of attach "
                "gives it longer)"},
    {"QOR Uninitialized for this JVM",
     "the agent has no way into this JVM at its optimisation level; run 'shutdown', then 'attach' with "
     "--options optlevel=0"},
    {"System low on Virtual Memory", "a copy of the JVM wouldn't fit the memory or the container's limit; "
                                     "with --stop the JVM does it itself and is paused for it"},
    {"Unable to start Heap Dump",
     "the agent's log may say more; with --stop the JVM does it itself and is paused for it"},
    {"Class histogram failed", "a copy of the JVM came to no good end, even when made again; with --stop the "
                               "JVM counts itself and is paused for it"},
    {"Heap census failed", "a copy of the JVM came to no good end, even when made again"},
    {"JVM Heap: Error cannot create child pipe", "the JVM may have no descriptor left; ask again"},
    {"Invalid Request", "the agent doesn't know this command; agent and qorctl may be of different versions"},
    {"Unable to complete Request", "the JVM was collecting garbage or the agent was disturbed; ask again"},
    {UNKNOWN_SETTING, "the agent doesn't know this setting, or its value is missing"},
    {"NoProcessing: Invalid Format", "the request names no setting"},
    {"ERROR Null parameters for request", "the request lacks its arguments"},
};

const Refusal *FindRefusal(std::string_view text) {
    for (const Refusal &refusal : REFUSALS)
        if (text.substr(0, refusal.start.size()) == refusal.start)
            return &refusal;
    return nullptr;
}

Failure Refused(std::string_view text, const char *hint) {
    std::string_view line = text.substr(0, text.find_first_of("\n|\x1e\x1f"));
    return Failure(fmt::format("the agent answers \"{}\"", line), hint);
}

// A JVM read by address is refused after the use of its heap.
void CheckEnd(const Reply &reply) {
    if (reply.sections.size() < 2 || reply.sections[0].title != TITLE_SPACES)
        return;
    const Section &last = reply.sections.back();
    if (last.records.empty() && FindRefusal(last.title))
        throw Refused(last.title, "only a copy of the JVM could do that; 'heap' shows how full the heap is");
}

// Whether a stack that the agent says it had no room for ends where a row was refused.
bool LacksFrames(const Section &stack, const Reply &reply) {
    size_t size = 0;
    for (std::string_view row : stack.records)
        size += row.size() + 1;
    return !reply.jvm_microseconds && size + LONGEST_STACK_ROW > STACK_LIMIT;
}

// Frames of a JVM read by address are in order and carry no index.
void AddFrame(Frame &&frame, std::vector<Frame> *stack) {
    if (frame.place)
        frame.index = static_cast<int>(stack->size());
    stack->push_back(std::move(frame));
}

// The frame that took each lock of which the call is reported.
void PlaceLocks(Thread *thread) {
    for (OwnedLock &lock : thread->owns)
        for (const Frame &frame : thread->stack)
            if (lock.depth < 0 &&
                lock.call == fmt::format("{}{}{}", frame.class_name, CALL_ARROW, frame.method))
                lock.depth = frame.index;
}

bool Holds(const Thread &thread, const LockWait &wait) {
    return std::any_of(thread.owns.begin(), thread.owns.end(), [&](const OwnedLock &lock) {
        return lock.lock == wait.lock && lock.class_name == wait.class_name;
    });
}

// A JVM read by address doesn't say who owns a lock; the owner's own row does.
void NameOwners(ThreadSample *sample) {
    for (Thread &waiter : sample->threads)
        for (const Thread &owner : sample->threads)
            if (waiter.waits_for && waiter.waits_for->by_address && waiter.waits_for->owner.thread == 0 &&
                &owner != &waiter && Holds(owner, *waiter.waits_for))
                waiter.waits_for->owner = owner.key;
}

Thread &CurrentThread(ThreadSample *sample, const Section &section) {
    if (sample->threads.empty())
        throw Failure(fmt::format("section \"{}\" comes before any thread", section.title),
                      "see the reply itself with 'raw'");
    return sample->threads.back();
}

// The sections that end a thread in either view of threads.
void DecodeLocks(const Section &section, RecordReader *reader, ThreadSample *sample) {
    if (section.title == TITLE_OWNED_LOCKS) {
        Thread &thread = CurrentThread(sample, section);
        reader->Each<OwnedLock>(section, ReadOwnedLock,
                                [&](OwnedLock &&o) { thread.owns.push_back(std::move(o)); });
    } else if (section.title == TITLE_PARKED) {
        Thread &thread = CurrentThread(sample, section);
        reader->Each<OwnedLock>(section, ReadParked, [&](OwnedLock &&o) { thread.parked_on = std::move(o); });
    } else if (section.title == TITLE_NO_LOCKS || section.title == NO_SUCH_THREAD) {
        reader->Skip(section);
    } else {
        reader->Unknown(section);
    }
}

// Takes the timing off the end of `text`. It is in a separate section, except in the answer of a forked
// agent, which has no separators; after the summary's last figure it starts without a separator.
std::optional<uint64_t> TakeTiming(std::string_view *text) {
    size_t start = text->rfind(TITLE_TIMING);
    if (start == text->npos)
        return std::nullopt;
    std::string_view rest = text->substr(start + TITLE_TIMING.size());
    if (rest.empty() || (rest[0] != RECORD_END && rest[0] != ' '))
        return std::nullopt;
    bool separated = rest[0] == RECORD_END;
    rest.remove_prefix(1);
    if (separated) {
        if (rest.empty() || rest.back() != SECTION_END)
            return std::nullopt;
        rest.remove_suffix(1);
    }
    uint64_t value = 0;
    if (rest.size() <= USEC_UNIT.size() || rest.substr(rest.size() - USEC_UNIT.size()) != USEC_UNIT ||
        !ReadNumber(rest.substr(0, rest.size() - USEC_UNIT.size()), &value))
        return std::nullopt;
    text->remove_suffix(text->size() - start);
    return value;
}

// Of a JVM read by address no thread is in "Other"; older agents leave out the first three figures.
constexpr size_t DIRECT_FIGURES = SUMMARY_FIGURES - 1, DIRECT_FIGURES_OF_THREADS = 9;
size_t DirectFigure(size_t i, size_t count) {
    return i + 1 == count ? size_t(PROCESS_CPU_PERCENT) : DIRECT_FIGURES - count + i;
}

Section CutSection(std::string_view text, bool closed) {
    Section section;
    section.closed = closed;
    section.last_record_ended = !text.empty() && text.back() == RECORD_END;
    std::vector<std::string_view> pieces = Split(text, RECORD_END);
    section.title = pieces[0];
    section.records.assign(pieces.begin() + 1, pieces.end());
    if (section.last_record_ended)
        section.records.pop_back();
    return section;
}

} // namespace

bool IsCpuFigure(int figure) {
    return figure == SYSTEM_CPU_PERCENT || figure == PROCESS_CPU_PERCENT ||
           figure == OS_RESPONSE_MICROSECONDS || figure == THREADS_RUNNABLE;
}

std::string ThreadKey::Text() const {
    return process ? fmt::format("{}-{}", process, thread) : fmt::format("{}", thread);
}

bool IsTimedOut(std::string_view text) {
    return StartsWith(text, TIMED_OUT);
}

Reply OpenReply(std::string_view text) {
    Reply reply;
    size_t size = text.size();
    reply.jvm_microseconds = TakeTiming(&text); // a refusal may be timed too
    reply.reached_limit = !reply.jvm_microseconds && size + LARGEST_PIECE >= REPLY_LIMIT;
    if (const Refusal *refusal = FindRefusal(text))
        throw Refused(text, refusal->hint);
    reply.text = text;
    size_t start = 0;
    for (size_t end; (end = text.find(SECTION_END, start)) != text.npos; start = end + 1)
        reply.sections.push_back(CutSection(text.substr(start, end - start), true));
    if (start < text.size())
        reply.sections.push_back(CutSection(text.substr(start), false));
    CheckEnd(reply);
    return reply;
}

ThreadSample DecodeThreads(const Reply &reply) {
    if (reply.sections.empty())
        throw Failure("the agent's reply is empty",
                      "the JVM's threads could not be listed; see the agent's log");
    ThreadSample sample;
    RecordReader reader(reply);
    auto add_thread = [&](Thread &&thread) { sample.threads.push_back(std::move(thread)); };
    auto active_row = [](std::string_view row, Thread *to) { return ReadThreadRow(row, true, to); };
    auto details_row = [](std::string_view row, Thread *to) { return ReadThreadRow(row, false, to); };
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_ACTIVE_THREADS) {
            reader.Each<Thread>(section, active_row, add_thread);
        } else if (section.title == TITLE_THREAD_DETAILS) {
            reader.Each<Thread>(section, details_row, add_thread);
        } else if (section.title == TITLE_CALL_STACK) {
            Thread &thread = CurrentThread(&sample, section);
            reader.Each<Frame>(section, ReadStackRow,
                               [&](Frame &&f) { AddFrame(std::move(f), &thread.stack); });
            thread.stack_cut = !thread.stack.empty() && thread.stack.back().skipped > 0;
        } else if (section.title == TITLE_LOCK_WAIT) {
            Thread &thread = CurrentThread(&sample, section);
            reader.Each<LockWait>(section, ReadLockWait,
                                  [&](LockWait &&w) { thread.waits_for = std::move(w); });
        } else {
            DecodeLocks(section, &reader, &sample);
        }
    }
    NameOwners(&sample);
    sample.jvm_microseconds = reply.jvm_microseconds;
    sample.cut = reader.cut();
    return sample;
}

ThreadSample DecodeStack(const Reply &reply) {
    ThreadSample sample;
    RecordReader reader(reply);
    std::optional<LockWait> wait; // comes before its thread
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_LOCK_WAIT) {
            reader.Each<LockWait>(section, ReadLockWait, [&](LockWait &&w) { wait = std::move(w); });
        } else if (section.title == TITLE_THREAD_DETAILS) {
            reader.Each<Thread>(section, ReadStackHead,
                                [&](Thread &&thread) { sample.threads.push_back(std::move(thread)); });
        } else if (section.title == TITLE_CALL_STACK) {
            Thread &thread = CurrentThread(&sample, section);
            thread.stack_cut = LacksFrames(section, reply);
            reader.Each<Frame>(section, ReadFrameRow,
                               [&](Frame &&f) { AddFrame(std::move(f), &thread.stack); });
        } else {
            DecodeLocks(section, &reader, &sample);
        }
    }
    if (!sample.threads.empty()) {
        sample.threads[0].waits_for = std::move(wait);
        PlaceLocks(&sample.threads[0]);
    }
    sample.jvm_microseconds = reply.jvm_microseconds;
    sample.cut = reader.cut();
    return sample;
}

int CutStacks(const ThreadSample &sample) {
    return static_cast<int>(std::count_if(sample.threads.begin(), sample.threads.end(),
                                          [](const Thread &thread) { return thread.stack_cut; }));
}

void TakeTiers(const Thread &from, Thread *thread) {
    if (from.request_url)
        thread->request_url = from.request_url;
    if (from.request_detail)
        thread->request_detail = from.request_detail;
    if (from.state == thread->state) {
        thread->db = from.db ? from.db : thread->db;
        thread->rmi = from.rmi;
    }
    thread->end_to_end = from.end_to_end;
}

LockHolder DecodeLockHolder(const Reply &reply) {
    LockHolder holder;
    RecordReader reader(reply);
    holder.jvm_microseconds = reply.jvm_microseconds;
    if (!reply.sections.empty())
        holder.answer = LockHolder::NOBODY;
    for (const Section &section : reply.sections) {
        if (section.title == NO_SUCH_HOLDER || section.title == NO_SUCH_HOLDER_HINT)
            continue;
        if (section.title != TITLE_LOCK_HOLDER) {
            reader.Unknown(section);
            continue;
        }
        holder.answer = LockHolder::NO_FRAMES;
        reader.Each<Thread>(section, ReadHolderRow, [&](Thread &&thread) {
            holder.answer = LockHolder::FOUND;
            holder.thread = std::move(thread);
        });
    }
    return holder;
}

Summary DecodeSummary(const Reply &reply) {
    Fields field = Split(reply.text, FIELD_SEP);
    Summary summary;
    bool by_address = field.size() == DIRECT_FIGURES || field.size() == DIRECT_FIGURES_OF_THREADS;
    bool whole = by_address || field.size() >= SUMMARY_FIGURES;
    for (size_t i = 0; whole && i < std::min<size_t>(field.size(), SUMMARY_FIGURES); ++i)
        whole =
            ReadNumber(field[i], &summary.figures[by_address ? DirectFigure(i, field.size()) : i].emplace());
    if (!whole)
        throw UnknownForm("the agent's summary holds neither thirteen numbers nor twelve or nine");
    summary.jvm_microseconds = reply.jvm_microseconds;
    return summary;
}

std::string DecodeText(const Reply &reply) {
    return std::string(reply.text);
}

} // namespace qorctl
