#include "scopes.h"

#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>

QorFrameInfo frame_info[MAX_FRAME_RECORDS];
uint64_t frame_monitors[MONITOR_ROOM];
int32_t frameMonitorsUsed;

namespace {

constexpr uint64_t NEAR = 1 << 20; // what the compiler notes lies close to the code
constexpr int32_t END_OF_SCOPES = -1;

// The same in all listed builds, bytes.
enum : uint64_t { BLOB_OOPS = 36, BLOB_OOP_COUNT = 40, PC_DESC_SCOPE = 4 };

bool Near(const QorCodeRanges &code, uint64_t blob, uint64_t address) {
    return QorInCodeCache(code, address) && address >= blob && address - blob < NEAR;
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

uint64_t WordOf(const QorScopeValue &value, bool keptOnly) {
    uint64_t word = 0;
    if (value.tag != TAG_LOCATION || !value.place)
        return 0;
    const bool read =
        keptOnly ? QorPeekKept(value.place, &word, sizeof word) : QorPeekValue(value.place, &word);
    return read ? word : 0;
}

uint64_t ReadReceiver(const QorScopes &scopes, uint64_t sp) {
    int32_t at = scopes.locals;
    int32_t count = 0;
    QorScopeValue value;
    if (at < 0 || !get_int_from_compressed_stream(scopes.stream, &at, &count) || count < 1 ||
        !QorReadScopeValue(scopes.stream, &at, sp, &value))
        return 0;
    return WordOf(value, scopes.keptOnly);
}

// Reads the monitors: of each its owner's place, and the object.
void ReadMonitors(QorFrameInfo *frame) {
    int32_t at = frame->monitorsOffset, count = 0, owner = 0;
    QorScopeValue value;
    if (at < 0 || !get_int_from_compressed_stream(frame->stream, &at, &count))
        return;
    for (int32_t i = 0; i < count && i < MAX_FRAME_MONITORS; i++) {
        if (!get_int_from_compressed_stream(frame->stream, &at, &owner) ||
            !QorReadScopeValue(frame->stream, &at, frame->sp, &value))
            break;
        const uint64_t object = WordOf(value, false);
        if (value.tag == TAG_LOCATION && (object || !value.place)) // a slot that isn't in use has none
            QorAddFrameMonitor(frame, object);
    }
    uint64_t *first = frame_monitors + frame->firstMonitor;
    std::reverse(first, first + frame->monitorCount); // the stream has the outermost first
}

bool ReadFields(QorScopes *scopes, int32_t at, bool monitors, QorFrameInfo *out) {
    int32_t method = 0, expressions = 0;
    for (int32_t *field :
         {&scopes->sender, &method, &out->bci, &scopes->locals, &expressions, &out->monitorsOffset})
        if (!get_int_from_compressed_stream(scopes->stream, &at, field))
            return false;
    if (method < 1 || method > scopes->oopCount)
        return false;
    out->stream = scopes->stream;
    out->method = QorWordAt(scopes->oops + static_cast<uint64_t>(method - 1) * VM_WORD_SIZE);
    out->receiver = ReadReceiver(*scopes, out->sp);
    if (monitors)
        ReadMonitors(out);
    return out->method != 0;
}

} // namespace

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
