#include "thread_records.h"

#include "cross_tier.h"
#include "protocol.h"

namespace qorctl {

namespace {

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

} // namespace

bool ReadFrameGroup(std::string_view call, std::string_view file, std::string_view line, Frame *frame,
                    bool by_address) {
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

namespace {

// Kind, fp, pc, sp, method.
bool ReadPlace(const std::string_view *field, Frame *frame) {
    FramePlace &place = frame->place.emplace();
    return ReadNumber(field[0], &place.kind) && ReadHex(field[1], &place.fp) &&
           ReadHex(field[2], &place.pc) && ReadHex(field[3], &place.sp) && ReadHex(field[4], &place.method);
}

} // namespace

bool ReadStackRow(std::string_view row, Frame *frame) {
    Fields field = Split(row, FIELD_SEP);
    int64_t thread = 0;
    if (field.size() >= 8 && field[7] != NO_VALUE)
        return ReadPlace(&field[3], frame) && ReadFrameGroup(field[0], field[1], field[2], frame, true);
    // What a framework works on has no more than this.
    if (field.size() == 3 || (field.size() == 4 && field[3].empty()))
        return ReadFrameGroup(field[0], field[1], field[2], frame, field.size() == 3) && frame->framework;
    if (field.size() < 8 || !ReadNumber(field[3], &thread) || !ReadNumber(field[4], &frame->index) ||
        !ReadNumber(field[5], &frame->method_id))
        return false;
    size_t count_end = field[0].find(' ');
    if (count_end != field[0].npos && field[0].substr(count_end) == SKIPPED_FRAMES)
        return ReadNumber(field[0].substr(0, count_end), &frame->skipped) && frame->skipped > 0;
    bool read = ReadFrameGroup(field[0], field[1], field[2], frame);
    frame->framework = false; // but a class of such a name
    return read;
}

namespace {

// The wire's lock text is "class@id" where the id is known anyway.
std::string LockClass(std::string_view text, int64_t lock) {
    std::string tail = fmt::format("@{}", lock);
    if (text.size() > tail.size() && text.substr(text.size() - tail.size()) == tail)
        text.remove_suffix(tail.size());
    return std::string(text);
}

} // namespace

bool ReadLockWait(std::string_view record, LockWait *wait) {
    Fields field = Split(record, FIELD_SEP);
    wait->by_address = field.size() >= 4 && field[1].find('-') == field[1].npos;
    if (field.size() < 4 || !ReadKey(field[1], &wait->owner, wait->by_address) ||
        !(wait->by_address ? ReadHex(field[0], &wait->lock) : ReadNumber(field[0], &wait->lock)))
        return false;
    wait->class_name = LockClass(field[2], wait->lock);
    return true;
}

namespace {

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

} // namespace

bool ReadOwnedLock(std::string_view record, OwnedLock *owned) {
    Fields field = Split(record, FIELD_SEP);
    if (field.size() >= 4 && field[2].find('@') == field[2].npos)
        return ReadLockByAddress(field, owned);
    if (field.size() < 4 || !ReadNumber(field[0], &owned->lock) || !ReadNumber(field[3], &owned->depth))
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
    if (field.size() < 2 || !ReadNumber(field[0], &blocker->lock))
        return false;
    blocker->class_name = LockClass(field[1], blocker->lock);
    return true;
}

namespace {

bool ReadCallType(std::string_view text, Frame *frame) {
    frame->user = text == USER_CALL;
    return text == USER_CALL || text == SYSTEM_CALL;
}

} // namespace

bool ReadFrameRow(std::string_view row, Frame *frame) {
    Fields field = Split(row, FIELD_SEP);
    int64_t thread = 0;
    if (field.size() >= 9 && (field[4] != "2" || field[5] != "3"))
        return ReadCallType(field[0], frame) && ReadPlace(&field[1], frame) &&
               ReadFrameGroup(field[6], field[7], field[8], frame, true);
    if (field.size() < 9 || !ReadCallType(field[0], frame) || !ReadNumber(field[1], &thread) ||
        !ReadNumber(field[2], &frame->index) || !ReadNumber(field[3], &frame->method_id) ||
        !ReadFrameGroup(field[6], field[7], field[8], frame))
        return false;
    frame->framework = frame->framework && frame->method_id == 0;
    return true;
}

bool ReadStackHead(std::string_view head, Thread *thread) {
    size_t detail = head.find(DETAIL_START);
    Fields field = Split(head.substr(0, detail), FIELD_SEP);
    if (field.size() < 9 || field[1] != NO_VALUE || !ReadKey(field[4], &thread->key) || field[8].empty())
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

bool ReadHolderRow(std::string_view row, Thread *thread) {
    Fields field = Split(row, FIELD_SEP);
    if (field.size() < 7 || field[6].empty() || !ReadKey(field[2], &thread->key))
        return false;
    thread->name = field[1];
    thread->state = field[6];
    Frame &call = thread->call.emplace();
    return ReadCallType(field[0], &call) && ReadFrameGroup(field[3], field[4], field[5], &call, true);
}

} // namespace qorctl
