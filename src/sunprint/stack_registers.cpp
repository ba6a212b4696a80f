#include "stack_registers.h"

#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

namespace {

constexpr int32_t ANCHOR_TRIES = 3;
constexpr uint64_t SP_FLAGS = 3;
constexpr uint64_t SAFEPOINT_COPY = 32; // bytes in the thread's safepoint record, in all listed builds

template <typename T>
bool Fresh(uint64_t address, T *out) {
    return QorPeekFresh(address, out, sizeof *out);
}

} // namespace

// The three words are written one by one while the thread runs, so the first is read again.
QorAnchorLook QorReadAnchor(uint64_t thread, QorRegisters *out) {
    for (int32_t i = 0; i < ANCHOR_TRIES; i++) {
        uint64_t sp = 0, again = 0;
        *out = {};
        if (!Fresh(thread + offsets[THREAD_LAST_SP], &sp) ||
            !Fresh(thread + offsets[THREAD_LAST_PC], &out->pc) ||
            !Fresh(thread + offsets[THREAD_LAST_FP], &out->fp))
            return ANCHOR_GONE;
        out->sp = sp & ~SP_FLAGS;
        if (out->sp != 0 && out->pc == 0 && !Fresh(out->sp - VM_WORD_SIZE, &out->pc))
            return ANCHOR_GONE;
        if (!Fresh(thread + offsets[THREAD_LAST_SP], &again))
            return ANCHOR_GONE;
        if (sp == again)
            return ANCHOR_READ;
    }
    *out = {};
    return ANCHOR_RESTLESS;
}

void QorReadCodeCopy(uint64_t thread, QorCodeCopy *out) {
    *out = {};
    const uint64_t record = QorWordAt(thread + offsets[THREAD_SAFEPOINT]);
    const uint64_t copy = record ? QorWordAt(record + SAFEPOINT_COPY) : 0;
    if (!copy)
        return;
    const uint64_t start = QorWordAt(copy);
    const uint64_t end = start + QorUint32At(copy + offsets[CODE_COPY_SIZE]);
    const uint64_t origin = QorWordAt(copy + offsets[CODE_COPY_ORIGIN]);
    if (start != 0 && origin != 0 && end > start)
        *out = {start, end, origin};
}

uint64_t QorTranslatePc(const QorCodeCopy &copy, const QorCodeRanges &code, uint64_t pc) {
    if (pc < copy.start || pc >= copy.end)
        return pc;
    const uint64_t real = pc - copy.start + copy.origin;
    return QorInCodeCache(code, real) ? real : pc;
}
