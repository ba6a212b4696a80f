#include "scopes.h"

#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>

QorFrameInfo frame_info[MAX_FRAME_RECORDS];
uint64_t frame_monitors[MONITOR_ROOM];
int32_t frameMonitorsUsed;

namespace {

constexpr int32_t MAX_STREAM = 1 << 20, MAX_INTEGER_BYTES = 5;
constexpr int32_t LAST_BYTE_ZERO = 192;
constexpr int32_t END_OF_SCOPES = -1;

// The same in all listed builds, bytes.
enum : uint64_t { BLOB_OOPS = 36, BLOB_OOP_COUNT = 40, PC_DESC_SCOPE = 4, LOCATION_UNIT = 4 };

// How a value of a scope is given.
enum ValueTag : int32_t { TAG_LOCATION, TAG_INT, TAG_OOP, TAG_LONG, TAG_DOUBLE };
// Integers behind each tag.
constexpr int32_t TAG_LENGTHS[] = {1, 1, 1, 2, 2};

// The word of a location.
enum : int32_t {
    LOCATION_OFFSET = 0xfff,
    LOCATION_TYPE_SHIFT = 12,
    LOCATION_TYPE = 7,
    LOCATION_IN_REGISTER = 1 << 15,
    LOCATION_INVALID = 7,
};

bool Near(const QorCodeRanges &code, uint64_t blob, uint64_t address) {
    return QorInCodeCache(code, address) && address >= blob && address - blob < MAX_STREAM;
}

// Finds the scopes by the description that the JVM looked up last in this code.
bool Open(const QorCodeRanges &code, uint64_t blob, QorScopes *scopes) {
    scopes->open = true;
    const uint64_t description = QorWordAt(blob + offsets[BLOB_PC_DESC_CACHE]);
    scopes->stream = blob + QorUint32At(blob + offsets[BLOB_SCOPES]);
    scopes->oops = blob + QorUint32At(blob + BLOB_OOPS);
    scopes->oopCount = QorInt32At(blob + BLOB_OOP_COUNT);
    if (description == 0 || scopes->oopCount <= 0 || !Near(code, blob, scopes->stream) ||
        !Near(code, blob, scopes->oops))
        return false;
    return QorPeekValue(description + PC_DESC_SCOPE, &scopes->sender);
}

// The address of a value on the stack; 0 when it is in a register or nowhere.
uint64_t StackPlace(int32_t location, uint64_t sp) {
    const auto type = location >> LOCATION_TYPE_SHIFT & LOCATION_TYPE;
    if ((location & LOCATION_IN_REGISTER) || type == LOCATION_INVALID)
        return 0;
    return sp + static_cast<uint64_t>(location & LOCATION_OFFSET) * LOCATION_UNIT;
}

uint64_t WordInPlace(int32_t location, uint64_t sp) {
    const uint64_t place = StackPlace(location, sp);
    return place ? QorWordAt(place) : 0;
}

uint64_t ReadReceiver(uint64_t stream, int32_t at, uint64_t sp) {
    int32_t count = 0, tag = 0, location = 0;
    if (!get_int_from_compressed_stream(stream, &at, &count) || count < 1 ||
        !get_int_from_compressed_stream(stream, &at, &tag) || tag != TAG_LOCATION ||
        !get_int_from_compressed_stream(stream, &at, &location))
        return 0;
    return WordInPlace(location, sp);
}

// Reads the monitors: of each its owner's place, a tag, and the place of the object.
void ReadMonitors(QorFrameInfo *frame) {
    int32_t at = frame->monitorsOffset, count = 0, owner = 0, tag = 0, value = 0;
    if (at < 0 || !get_int_from_compressed_stream(frame->stream, &at, &count))
        return;
    for (int32_t i = 0; i < count && i < MAX_FRAME_MONITORS; i++) {
        if (!get_int_from_compressed_stream(frame->stream, &at, &owner) ||
            !get_int_from_compressed_stream(frame->stream, &at, &tag) || tag < TAG_LOCATION ||
            tag > TAG_DOUBLE)
            break;
        for (int32_t part = 0; part < TAG_LENGTHS[tag]; part++)
            if (!get_int_from_compressed_stream(frame->stream, &at, &value))
                return;
        if (tag == TAG_LOCATION)
            QorAddFrameMonitor(frame, WordInPlace(value, frame->sp));
    }
    uint64_t *first = frame_monitors + frame->firstMonitor;
    std::reverse(first, first + frame->monitorCount); // the stream has the outermost first
}

bool ReadFields(QorScopes *scopes, int32_t at, bool monitors, QorFrameInfo *out) {
    int32_t method = 0, locals = 0, expressions = 0;
    for (int32_t *field : {&scopes->sender, &method, &out->bci, &locals, &expressions, &out->monitorsOffset})
        if (!get_int_from_compressed_stream(scopes->stream, &at, field))
            return false;
    if (method < 1 || method > scopes->oopCount)
        return false;
    out->stream = scopes->stream;
    out->method = QorWordAt(scopes->oops + static_cast<uint64_t>(method - 1) * VM_WORD_SIZE);
    out->receiver = locals >= 0 ? ReadReceiver(scopes->stream, locals, out->sp) : 0;
    if (monitors)
        ReadMonitors(out);
    return out->method != 0;
}

} // namespace

bool get_int_from_compressed_stream(uint64_t data, int32_t *position, int32_t *value) {
    int64_t sum = 0;
    for (int32_t i = 0; i < MAX_INTEGER_BYTES; i++) {
        uint8_t byte = 0;
        if (*position < 0 || *position >= MAX_STREAM ||
            !QorPeekValue(data + static_cast<uint64_t>(*position), &byte))
            return false;
        ++*position;
        const int64_t unit = int64_t(1) << (7 * i);
        if (byte < 128) {
            sum += byte * unit;
            continue;
        }
        *value = static_cast<int32_t>(sum + (byte - LAST_BYTE_ZERO) * unit);
        return true;
    }
    return false;
}

bool QorReadScope(const QorCodeRanges &code, uint64_t blob, bool monitors, QorScopes *scopes,
                  QorFrameInfo *out) {
    if ((scopes->open || Open(code, blob, scopes)) && ReadFields(scopes, scopes->sender, monitors, out))
        return true;
    scopes->sender = END_OF_SCOPES;
    return false;
}

void QorAddFrameMonitor(QorFrameInfo *frame, uint64_t object) {
    if (frameMonitorsUsed == MONITOR_ROOM)
        return;
    if (frame->monitorCount++ == 0)
        frame->firstMonitor = frameMonitorsUsed;
    frame_monitors[frameMonitorsUsed++] = object;
}
