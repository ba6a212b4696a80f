#include "decode.h"

#include "base/failure.h"
#include "cross_tier.h"
#include "protocol.h"
#include "records.h"

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

// A method name can't hold the arrow, a class name can: the last one separates. A framework's words hold
// none, the texts after them may.
size_t FindArrow(std::string_view call, bool *framework) {
    size_t first = call.find(CALL_ARROW);
    for (std::string_view word : FRAMEWORK_OBJECTS)
        if (call.substr(0, first) == word) {
            *framework = true;
            return first;
        }
    return call.rfind(CALL_ARROW);
}

// Call text, file, line. Where the JVM is read by address a file may lack its line.
bool ReadFrameGroup(std::string_view call, std::string_view file, std::string_view line, Frame *frame,
                    bool by_address = false) {
    size_t arrow = FindArrow(call, &frame->framework);
    if (arrow == call.npos)
        return false;
    frame->class_name = call.substr(0, arrow);
    frame->method = call.substr(arrow + CALL_ARROW.size());
    if (by_address && line == NO_VALUE && file != NO_LINE_FILE) {
        frame->file = file == NO_VALUE ? "" : file;
        return true;
    }
    if (line == NO_VALUE || line == NO_LINE_SHOWN)
        return file == NO_LINE_FILE;
    if (!ReadNumber(line, &frame->line))
        return false;
    if (frame->line < 0)
        frame->line = 0;
    if (file != NO_VALUE)
        frame->file = file;
    return true;
}

// A thread row. The form of the active threads has a marker in front, that of the details only where the JVM
// is read by address.
bool ReadThreadRow(std::string_view row, bool with_marker, Thread *thread) {
    Fields field = Split(row, FIELD_SEP);
    ThreadKey key;
    with_marker |= field.size() >= 10 && field[2] == NO_VALUE && ReadKey(field[5], &key, true);
    bool by_address = with_marker && (field[0] == USER_CALL || field[0] == SYSTEM_CALL);
    size_t at = with_marker ? 1 : 0;
    if (field.size() < at + 9 || field[at + 1] != NO_VALUE)
        return false;
    if (with_marker && field[0] != "a" && !by_address)
        return false;
    thread->name = field[at];
    thread->request_url = ReadOptional(field[at + 2]);
    thread->request_detail = ReadOptional(field[at + 3]);
    if (!ReadKey(field[at + 4], &thread->key, by_address))
        return false;
    if (field[at + 5] != NO_VALUE &&
        !ReadFrameGroup(field[at + 5], field[at + 6], field[at + 7], &thread->call.emplace(), by_address))
        return false;
    return ReadStateOn(Fields(field.begin() + static_cast<std::ptrdiff_t>(at) + 8, field.end()), thread);
}

// Kind, fp, pc, sp, method.
bool ReadPlace(const std::string_view *field, Frame *frame) {
    FramePlace &place = frame->place.emplace();
    return ReadNumber(field[0], &place.kind) && ReadHex(field[1], &place.fp) &&
           ReadHex(field[2], &place.pc) && ReadHex(field[3], &place.sp) && ReadHex(field[4], &place.method);
}

bool ReadStackRow(std::string_view row, Frame *frame) {
    Fields field = Split(row, FIELD_SEP);
    int64_t thread = 0;
    if (field.size() == 8 && field[7] != NO_VALUE)
        return ReadPlace(&field[3], frame) && ReadFrameGroup(field[0], field[1], field[2], frame, true);
    // What a framework works on has no more than this.
    if (field.size() == 3 || (field.size() == 4 && field[3].empty()))
        return ReadFrameGroup(field[0], field[1], field[2], frame, field.size() == 3) && frame->framework;
    if (field.size() != 8 || !ReadNumber(field[3], &thread) || !ReadNumber(field[4], &frame->index) ||
        !ReadNumber(field[5], &frame->method_id))
        return false;
    size_t count_end = field[0].find(' ');
    if (count_end != field[0].npos && field[0].substr(count_end) == SKIPPED_FRAMES)
        return ReadNumber(field[0].substr(0, count_end), &frame->skipped) && frame->skipped > 0;
    bool read = ReadFrameGroup(field[0], field[1], field[2], frame);
    frame->framework = false; // but a class of such a name
    return read;
}

// The wire's lock text is "class@id" where the id is known anyway.
std::string LockClass(std::string_view text, int64_t lock) {
    std::string tail = fmt::format("@{}", lock);
    if (text.size() > tail.size() && text.substr(text.size() - tail.size()) == tail)
        text.remove_suffix(tail.size());
    return std::string(text);
}

bool ReadLockWait(std::string_view record, LockWait *wait) {
    Fields field = Split(record, FIELD_SEP);
    wait->by_address = field.size() == 4 && field[1].find('-') == field[1].npos;
    if (field.size() != 4 || !ReadKey(field[1], &wait->owner, wait->by_address) ||
        !(wait->by_address ? ReadHex(field[0], &wait->lock) : ReadNumber(field[0], &wait->lock)))
        return false;
    wait->class_name = LockClass(field[2], wait->lock);
    return true;
}

// A lock of a JVM read by address: its class has no number, and in the view of one stack the call
// that took it in place of the frame.
bool ReadLockByAddress(const Fields &field, OwnedLock *owned) {
    owned->class_name = field[2];
    if (!ReadNumber(field[3], &owned->depth)) {
        owned->depth = -1;
        owned->call = field[3];
        if (owned->call.find(CALL_ARROW) == owned->call.npos)
            return false;
    }
    return field[2] == INVALID_OBJECT || ReadHex(field[0], &owned->lock);
}

bool ReadOwnedLock(std::string_view record, OwnedLock *owned) {
    Fields field = Split(record, FIELD_SEP);
    if (field.size() == 4 && field[2].find('@') == field[2].npos)
        return ReadLockByAddress(field, owned);
    if (field.size() != 4 || !ReadNumber(field[0], &owned->lock) || !ReadNumber(field[3], &owned->depth))
        return false;
    // Without a number of its own the lock has the one in its text.
    size_t tail = field[2].rfind('@');
    if (owned->lock == 0 && tail != field[2].npos)
        ReadNumber(field[2].substr(tail + 1), &owned->lock);
    owned->class_name = LockClass(field[2], owned->lock);
    return true;
}

bool ReadParked(std::string_view record, OwnedLock *blocker) {
    Fields field = Split(record, FIELD_SEP);
    if (field.size() != 2 || !ReadNumber(field[0], &blocker->lock))
        return false;
    blocker->class_name = LockClass(field[1], blocker->lock);
    return true;
}

bool ReadCallType(std::string_view text, Frame *frame) {
    frame->user = text == USER_CALL;
    return text == USER_CALL || text == SYSTEM_CALL;
}

// A row of the view of one stack.
bool ReadFrameRow(std::string_view row, Frame *frame) {
    Fields field = Split(row, FIELD_SEP);
    int64_t thread = 0;
    if (field.size() == 9 && (field[4] != "2" || field[5] != "3"))
        return ReadCallType(field[0], frame) && ReadPlace(&field[1], frame) &&
               ReadFrameGroup(field[6], field[7], field[8], frame, true);
    if (field.size() != 9 || !ReadCallType(field[0], frame) || !ReadNumber(field[1], &thread) ||
        !ReadNumber(field[2], &frame->index) || !ReadNumber(field[3], &frame->method_id) ||
        !ReadFrameGroup(field[6], field[7], field[8], frame))
        return false;
    frame->framework = frame->framework && frame->method_id == 0;
    return true;
}

// The head of the view of one stack. A thread whose frames were unavailable has a name and nothing else.
bool ReadStackHead(std::string_view head, Thread *thread) {
    size_t detail = head.find(DETAIL_START);
    Fields field = Split(head.substr(0, detail), FIELD_SEP);
    if (field.size() != 9 || field[1] != NO_VALUE || !ReadKey(field[4], &thread->key) || field[8].empty())
        return false;
    thread->name = field[0];
    if (field[2] != NO_LINE_SHOWN) {
        thread->request_url = ReadOptional(field[2]);
        thread->request_detail = ReadOptional(field[3]);
    }
    thread->state = field[8];
    bool by_address = field[2] == NO_VALUE; // else a blank or a text
    if (field[5] != NO_LINE_SHOWN && field[5] != NO_VALUE &&
        !ReadFrameGroup(field[5], field[6], field[7], &thread->call.emplace(), by_address))
        return false;
    return detail == head.npos ||
           ReadShortDbWait(Split(head.substr(detail + 1), FIELD_SEP), &thread->db.emplace());
}

// The one row about a lock's holder.
bool ReadHolderRow(std::string_view row, Thread *thread) {
    Fields field = Split(row, FIELD_SEP);
    if (field.size() != 7 || field[6].empty() || !ReadKey(field[2], &thread->key))
        return false;
    thread->name = field[1];
    thread->state = field[6];
    Frame &call = thread->call.emplace();
    return ReadCallType(field[0], &call) && ReadFrameGroup(field[3], field[4], field[5], &call, true);
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
    return text.substr(0, TIMED_OUT.size()) == TIMED_OUT;
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
        } else if (section.title == TITLE_OWNED_LOCKS) {
            Thread &thread = CurrentThread(&sample, section);
            reader.Each<OwnedLock>(section, ReadOwnedLock,
                                   [&](OwnedLock &&o) { thread.owns.push_back(std::move(o)); });
        } else if (section.title == TITLE_PARKED) {
            Thread &thread = CurrentThread(&sample, section);
            reader.Each<OwnedLock>(section, ReadParked,
                                   [&](OwnedLock &&o) { thread.parked_on = std::move(o); });
        } else if (section.title == TITLE_NO_LOCKS || section.title == NO_SUCH_THREAD) {
            reader.Skip(section);
        } else {
            reader.Unknown(section);
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
        } else if (section.title == TITLE_OWNED_LOCKS) {
            Thread &thread = CurrentThread(&sample, section);
            reader.Each<OwnedLock>(section, ReadOwnedLock,
                                   [&](OwnedLock &&o) { thread.owns.push_back(std::move(o)); });
        } else if (section.title == TITLE_PARKED) {
            Thread &thread = CurrentThread(&sample, section);
            reader.Each<OwnedLock>(section, ReadParked,
                                   [&](OwnedLock &&o) { thread.parked_on = std::move(o); });
        } else if (section.title == TITLE_NO_LOCKS || section.title == NO_SUCH_THREAD) {
            reader.Skip(section);
        } else {
            reader.Unknown(section);
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
    bool whole = by_address || field.size() == SUMMARY_FIGURES;
    for (size_t i = 0; whole && i < field.size(); ++i)
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
