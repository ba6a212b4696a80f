#include "code_blobs.h"

#include "scopes.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "qorrequest.h"
#include "qorutil/vm_calls.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>

namespace {

// The same in all listed builds, bytes.
enum : uint64_t {
    CODE_HEAP_LOW = 16,
    CODE_HEAP_HIGH = 24,
    BLOCK_IN_USE = 8, // one byte
    BLOCK_HEAD = 16,  // the blob follows
    BLOB_FRAME_WORDS = 44,
    INTERPRETER_START = 8,
    INTERPRETER_SIZE = 20,
    CLIENT_ENTRY_BLOB = 31,
    CLIENT_ENTRY_OFFSET = 24,
    MAP_SET_MAPS = 8,
    MAP_SIZE = 8,
    MAP_DATA = 16,
};

constexpr uint8_t FREE_SEGMENT = 255;
constexpr int32_t MAX_STEPS_BACK = 4096;
constexpr uint32_t MIN_SEGMENT_LOG2 = 4, MAX_SEGMENT_LOG2 = 16;
constexpr uint32_t MAX_FRAME_WORDS = 1 << 17;
constexpr int32_t LINK_UNKNOWN = -2, NO_LINK = -1;
constexpr int32_t MAX_MAP_BYTES = 4096;

// Entries of a stack map.
enum : int32_t {
    MAP_TYPE_MASK = 31,
    MAP_CALLEE_SAVED = 8, // as the next, followed by a register's number
    MAP_DERIVED = 16,
    MAP_SLOT_MASK = 0xffe0,
    MAP_SLOT_SHIFT = 5,
    MAP_FRAME_POINTER = 22,
};

uint64_t ClientEntry(const QorCodeRanges &code) {
    if (jat_server_jvm || !nsymbols[SYM_RUNTIME1_BLOBS])
        return 0;
    const uint64_t blob = QorWordAt(nsymbols[SYM_RUNTIME1_BLOBS] + CLIENT_ENTRY_BLOB * VM_WORD_SIZE);
    const uint64_t entry = blob + QorUint32At(blob + CLIENT_ENTRY_OFFSET);
    return blob != 0 && cb(code, entry) == blob ? entry : 0;
}

// The segment in which the block begins that this one belongs to; false for a free one.
bool FirstSegment(const QorCodeRanges &code, uint64_t *segment) {
    for (int32_t i = 0; i < MAX_STEPS_BACK; i++) {
        uint8_t back = FREE_SEGMENT;
        if (!QorPeekValue(code.segmentMap + *segment, &back) || back == FREE_SEGMENT || back > *segment)
            return false;
        if (back == 0)
            return true;
        *segment -= back;
    }
    return false;
}

// Looks the saved fp up in the blob's first stack map.
bool FindLink(QorBlob *blob) {
    const uint64_t set = QorWordAt(blob->address + offsets[BLOB_OOP_MAPS]);
    const uint64_t map = QorInt32At(set) > 0 ? QorWordAt(QorWordAt(set + MAP_SET_MAPS)) : 0;
    blob->mapRegister = map ? -1 : NO_STACK_MAP;
    const uint64_t data = map ? QorWordAt(map + MAP_DATA) : 0;
    const int32_t size = data ? QorInt32At(map + MAP_SIZE) : 0;
    for (int32_t at = 0; at < size && at < MAX_MAP_BYTES;) {
        int32_t entry = 0;
        if (!get_int_from_compressed_stream(data, &at, &entry))
            return false;
        const int32_t type = entry & MAP_TYPE_MASK;
        if ((type == MAP_CALLEE_SAVED || type == MAP_DERIVED) &&
            !get_int_from_compressed_stream(data, &at, &blob->mapRegister))
            return false;
        if (blob->mapRegister == MAP_FRAME_POINTER) {
            blob->link = ((entry & MAP_SLOT_MASK) >> MAP_SLOT_SHIFT) - QorInt32At(nsymbols[SYM_STACK0]);
            return blob->link >= 0;
        }
    }
    return false;
}

} // namespace

bool QorReadCodeRanges(QorCodeRanges *out) {
    *out = {};
    out->callStubReturn = QorWordAt(nsymbols[SYM_CALL_STUB_RETURN]);
    const uint64_t interpreter = QorWordAt(nsymbols[SYM_INTERPRETER_CODE]);
    if (interpreter) {
        out->interpreterStart = QorWordAt(interpreter + INTERPRETER_START);
        out->interpreterEnd = out->interpreterStart + QorUint32At(interpreter + INTERPRETER_SIZE);
    }
    const uint64_t heap = QorWordAt(nsymbols[SYM_CODE_HEAP]);
    if (!heap)
        return false;
    out->low = QorWordAt(heap + CODE_HEAP_LOW);
    out->high = QorWordAt(heap + CODE_HEAP_HIGH);
    out->segmentMap = QorWordAt(heap + offsets[CODE_HEAP_MAP]);
    out->segmentLog2 = QorUint32At(heap + offsets[CODE_HEAP_SEGMENT_LOG2]);
    if (out->low == 0 || out->segmentMap == 0 || out->segmentLog2 < MIN_SEGMENT_LOG2 ||
        out->segmentLog2 > MAX_SEGMENT_LOG2) {
        out->low = out->high = 0;
        return false;
    }
    out->clientEntry = ClientEntry(*out);
    return true;
}

bool QorInInterpreter(const QorCodeRanges &code, uint64_t pc) {
    return pc >= code.interpreterStart && pc < code.interpreterEnd;
}

bool QorInCodeCache(const QorCodeRanges &code, uint64_t address) {
    return address >= code.low && address < code.high;
}

uint64_t cb(const QorCodeRanges &code, uint64_t pc) {
    if (!QorInCodeCache(code, pc))
        return 0;
    uint64_t segment = (pc - code.low) >> code.segmentLog2;
    if (!FirstSegment(code, &segment))
        return 0;
    const uint64_t block = code.low + (segment << code.segmentLog2);
    uint8_t inUse = 0;
    return QorPeekValue(block + BLOCK_IN_USE, &inUse) && inUse ? block + BLOCK_HEAD : 0;
}

QorBlobLook QorLookAtCode(const QorCodeRanges &code, uint64_t pc, QorBlob *out) {
    *out = {cb(code, pc), 0, 0, NO_LINK, false, -1};
    if (!out->address)
        return BLOB_NONE;
    const BlobAnswer answer = QorBlobTraits(out->address, &out->traits);
    if (answer != BLOB_ANSWERED)
        return answer == BLOB_NOT_ASKED ? BLOB_TO_ASK : BLOB_OF_NO_KIND;
    const uint32_t words = QorUint32At(out->address + BLOB_FRAME_WORDS);
    out->frameBytes = words <= MAX_FRAME_WORDS ? words * VM_WORD_SIZE : 0;
    if (!jat_server_jvm)
        return BLOB_FOUND;
    out->link = QorInt32At(out->address + offsets[BLOB_LINK]);
    if (out->link != LINK_UNKNOWN)
        return BLOB_FOUND;
    out->link = NO_LINK;
    if (out->traits & BLOB_NMETHOD)
        return BLOB_FOUND;
    out->linkFromMap = FindLink(out);
    return out->linkFromMap ? BLOB_FOUND : BLOB_LINK_LOST;
}

void QorAskAllCode(const QorCodeRanges &code) {
    const uint64_t segments = code.high > code.low ? (code.high - code.low) >> code.segmentLog2 : 0;
    static uint8_t steps[VM_PAGE_SIZE]; // back to a block's first segment; the worker alone asks
    for (uint64_t first = 0; first < segments && !qorLeave; first += sizeof steps) {
        const uint64_t count = std::min<uint64_t>(sizeof steps, segments - first);
        if (!QorPeekFresh(code.segmentMap + first, steps, count))
            continue;
        for (uint64_t i = 0; i < count; i++) {
            const uint64_t blob = steps[i] == 0 ? cb(code, code.low + ((first + i) << code.segmentLog2)) : 0;
            uint32_t traits = 0;
            if (blob != 0 && QorBlobTraits(blob, &traits) == BLOB_NOT_ASKED)
                QorAskBlob(blob);
        }
    }
}
