#include "frame_locals.h"

#include "qorutil/vm_calls.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

namespace {

constexpr int32_t MAX_SCOPES = 100; // one in another
constexpr uint64_t METHOD_BELOW_FP = 16;
constexpr uint64_t MAX_LOCALS_DISTANCE = 65536 * VM_WORD_SIZE; // from an interpreted frame to its locals

// The JVM's cache of the maps that say which slots of an interpreted frame hold objects, bytes.
enum : uint64_t {
    CACHE_ENTRIES = 8,
    CACHE_ENTRY_SIZE = 16,
    CACHE_MASK = 16, // in an entry, after the method that it is of
};
constexpr uint32_t CACHE_LENGTH = 32;
constexpr int32_t MASK_BITS = 32;

// ---- Compiled ----

bool FindBlob(const QorCodeRanges &code, uint64_t pc, QorBlob *blob) {
    QorBlobLook look = QorLookAtCode(code, pc, blob);
    if (look == BLOB_TO_ASK) {
        QorAskBlob(blob->address);
        look = QorLookAtCode(code, pc, blob);
    }
    return look == BLOB_FOUND && (blob->traits & BLOB_NMETHOD);
}

// The scope of the frame's method among those at its pc.
bool FindScope(const QorCodeRanges &code, uint64_t blob, QorFrameLocals *frame) {
    for (int32_t i = 0; i < MAX_SCOPES; i++) {
        QorFrameInfo info = {};
        info.sp = frame->frame->sp;
        if (!QorReadScope(code, blob, false, &frame->scopes, &info))
            return false;
        if (info.method == frame->frame->method) {
            frame->receiver = info.receiver;
            return true;
        }
        if (is_top(frame->scopes.sender, 0))
            return false;
    }
    return false;
}

// A value in its place on the stack is an object if it can be one: the compiler's notes don't say.
QorLocal LocalOf(const QorFrameLocals &frame, const QorScopeValue &value) {
    const auto number = static_cast<uint32_t>(value.first);
    uint64_t word = 0;
    switch (value.tag) {
    case TAG_LOCATION:
        if (!value.place || !QorStackWord(*frame.frame, value.place, &word))
            return {};
        return {valid_oop(word) ? LOCAL_OBJECT : LOCAL_NUMBER, word};
    case TAG_OOP:
        if (value.first >= 1 && value.first <= frame.scopes.oopCount)
            word = QorWordAt(frame.scopes.oops + (number - 1) * VM_WORD_SIZE);
        return {valid_oop(word) ? LOCAL_OBJECT : LOCAL_UNKNOWN, word};
    case TAG_INT:
        return {LOCAL_NUMBER, number};
    default:
        return {LOCAL_NUMBER, static_cast<uint64_t>(value.second) << 32 | number};
    }
}

bool NextCompiled(QorFrameLocals *frame, QorLocal *out) {
    QorScopeValue value;
    if (!QorReadScopeValue(frame->scopes.stream, &frame->at, frame->frame->sp, &value))
        return false;
    *out = LocalOf(*frame, value);
    return true;
}

// ---- Interpreted ----

uint64_t SlotPlace(const QorFrameLocals &frame, int32_t slot) {
    return frame.locals - static_cast<uint64_t>(slot) * VM_WORD_SIZE;
}

uint32_t ReadMask(const QorVmMethod &method, uint64_t address, uint32_t bci) {
    const uint64_t cache = QorWordAt(method.holder + KLASS_PART + offsets[KLASS_OOP_MAP_CACHE]);
    if (!cache)
        return 0;
    const uint32_t hash = static_cast<uint32_t>(method.locals) * 4 ^ bci ^
                          static_cast<uint32_t>(method.codeSize) << 4 ^
                          static_cast<uint32_t>(method.parameters) << 6;
    struct {
        uint64_t method, second;
        uint32_t mask, rest;
    } entry;
    static_assert(sizeof entry == CACHE_MASK + sizeof(uint64_t), "as the JVM has it");
    const uint64_t place = QorWordAt(cache + CACHE_ENTRIES) + hash % CACHE_LENGTH * CACHE_ENTRY_SIZE;
    return QorPeekValue(place, &entry) && entry.method == address ? entry.mask : 0;
}

bool NextInterpreted(QorFrameLocals *frame, bool wide, QorLocal *out) {
    const bool isObject = frame->slot < MASK_BITS && (frame->objects >> frame->slot & 1);
    uint64_t word = 0;
    // The interpreter keeps a value of two slots in the second one.
    if (!QorStackWord(*frame->frame, SlotPlace(*frame, frame->slot + (wide ? 1 : 0)), &word))
        *out = {};
    else if (!isObject || word == 0)
        *out = {LOCAL_NUMBER, word};
    else
        *out = {valid_oop(word) ? LOCAL_OBJECT : LOCAL_UNKNOWN, word};
    return true;
}

} // namespace

bool QorStackWord(const QorFramePlace &frame, uint64_t address, uint64_t *out) {
    return frame.keptOnly ? QorPeekKept(address, out, sizeof *out) : QorPeekValue(address, out);
}

QorFrameFound QorFindCompiledFrame(QorFrameLocals *out) {
    const QorFramePlace &frame = *out->frame;
    QorCodeRanges code;
    QorBlob blob;
    out->scopes = {};
    out->scopes.keptOnly = frame.keptOnly;
    if (!QorReadCodeRanges(&code) || !FindBlob(code, frame.pc, &blob) || frame.sp % VM_WORD_SIZE != 0 ||
        !FindScope(code, blob.address, out))
        return FRAME_GONE;
    out->stackEnd = frame.sp + blob.frameBytes;
    if (out->method.native)
        return FRAME_WITHOUT_LOCALS;
    out->at = out->scopes.locals;
    QorLocal receiver;
    if (out->at < 0 || !get_int_from_compressed_stream(out->scopes.stream, &out->at, &out->count))
        out->count = 0;
    out->slot = out->method.isStatic ? 0 : 1;
    if (out->slot == 1 && out->count > 0 && !NextCompiled(out, &receiver))
        out->count = 0;
    return FRAME_FOUND;
}

QorFrameFound QorFindInterpretedFrame(QorFrameLocals *out) {
    const QorFramePlace &frame = *out->frame;
    uint64_t method = 0, bytecode = 0;
    if (frame.fp % VM_WORD_SIZE != 0 || !QorStackWord(frame, frame.fp - METHOD_BELOW_FP, &method) ||
        method != frame.method || !QorStackWord(frame, frame.fp - offsets[FRAME_LOCALS], &out->locals) ||
        !QorStackWord(frame, frame.fp - offsets[FRAME_BYTECODE], &bytecode) ||
        out->locals % VM_WORD_SIZE != 0 || out->locals < frame.fp ||
        out->locals - frame.fp > MAX_LOCALS_DISTANCE)
        return FRAME_GONE;
    const uint64_t bci = out->method.native ? 0 : bytecode - out->method.code;
    out->objects = ReadMask(out->method, frame.method, static_cast<uint32_t>(bci));
    out->count = out->method.native ? out->method.parameters : out->method.locals;
    out->slot = out->method.isStatic ? 0 : 1;
    if (!out->method.isStatic && !QorStackWord(frame, out->locals, &out->receiver))
        out->receiver = 0;
    return FRAME_FOUND;
}

bool QorNextLocal(QorFrameLocals *frame, bool wide, QorLocal *out) {
    if (frame->slot >= frame->count)
        return false;
    const bool compiled = frame->frame->kind == WALKED_COMPILED;
    QorLocal second;
    if (compiled ? !NextCompiled(frame, out) : !NextInterpreted(frame, wide, out))
        return false;
    frame->slot += wide ? 2 : 1;
    if (compiled && wide && !NextCompiled(frame, &second))
        frame->count = frame->slot; // this one was the last
    return true;
}
