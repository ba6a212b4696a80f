#include "frame_names.h"

#include "scopes.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t FLAG_STATIC = 0x8, FLAG_NATIVE = 0x100;
constexpr int32_t MAX_BCI = 65535, MAX_LINE = 65535, MAX_TABLE = 65536;

// Marks of the line table: its end, and two whole numbers in place of the byte that holds both.
constexpr uint8_t TABLE_END = 0, TABLE_LONG = 255;
constexpr int32_t LINE_BITS = 3, LINE_MASK = 7;

// Steps to the next entry. False at the end.
bool NextEntry(uint64_t table, int32_t *at, int32_t *bci, int32_t *line) {
    uint8_t byte = TABLE_END;
    if (*at >= MAX_TABLE || !QorPeekValue(table + static_cast<uint64_t>(*at), &byte) || byte == TABLE_END)
        return false;
    ++*at;
    if (byte != TABLE_LONG) {
        *bci += byte >> LINE_BITS;
        *line += byte & LINE_MASK;
        return true;
    }
    int32_t bciStep = 0, lineStep = 0;
    if (!get_int_from_compressed_stream(table, at, &bciStep) ||
        !get_int_from_compressed_stream(table, at, &lineStep) || bciStep < -MAX_BCI || bciStep > MAX_BCI ||
        lineStep < -MAX_LINE || lineStep > MAX_LINE)
        return false;
    *bci += bciStep;
    *line += lineStep;
    return true;
}

// The line of the last entry at or in front of `wanted`; 0 for none. A method may have no table: then bytes
// of its neighbour are read, which is why what comes out is held against what a line can be.
int32_t FindLine(uint64_t table, int32_t wanted) {
    int32_t best = -1, bestLine = 0;
    for (int32_t at = 0, bci = 0, line = 0;
         NextEntry(table, &at, &bci, &line) && bci >= 0 && bci <= MAX_BCI;) {
        if (bci <= wanted && bci >= best) {
            best = bci;
            bestLine = line;
        }
        if (bci == wanted)
            break;
    }
    return bestLine >= 1 && bestLine <= MAX_LINE ? bestLine : 0;
}

int32_t LineOf(const QorFrameInfo &frame, uint64_t constMethod) {
    const uint64_t code = constMethod + offsets[CONST_METHOD_CODE];
    const int32_t size = QorUint16At(constMethod + offsets[CONST_METHOD_CODE_SIZE]);
    const bool interpreted = frame.kind == WALKED_INTERPRETED;
    const int64_t bci = interpreted ? static_cast<int64_t>(frame.bcp - code) : frame.bci;
    if (bci < 0 || bci >= size)
        return 0;
    return FindLine(code + static_cast<uint64_t>(size), static_cast<int32_t>(bci));
}

} // namespace

QorNaming QorNameFrame(const QorFrameInfo &frame, QorFrameNames *out) {
    *out->className = *out->method = *out->file = 0;
    uint64_t parts[2]; // constMethod and constant pool
    static_assert(METHOD_POOL == METHOD_CONST + VM_WORD_SIZE, "read as a pair");
    uint32_t flags = 0;
    if (!QorPeek(frame.method + METHOD_CONST, parts, sizeof parts) ||
        !QorPeekValue(frame.method + offsets[METHOD_FLAGS], &flags))
        return FRAME_UNREADABLE;
    const uint64_t constMethod = parts[0], pool = parts[1];
    if (!QorIsOfType(frame.method, TYPE_METHOD) || !valid_oop(constMethod) || !valid_oop(pool))
        return FRAME_NAMELESS;
    const uint64_t holder = QorWordAt(pool + POOL_HOLDER);
    const uint64_t name = QorUint16At(constMethod + offsets[CONST_METHOD_NAME]);
    const uint64_t klass = holder + KLASS_PART;
    if (!valid_klass(holder) ||
        !sym2str(out->className, VM_SYMBOL_SIZE, QorWordAt(klass + offsets[KLASS_NAME])) ||
        !sym2str(out->method, VM_SYMBOL_SIZE, QorWordAt(pool + POOL_ENTRIES + name * VM_WORD_SIZE)) ||
        !out->className[0] || !out->method[0])
        return FRAME_NAMELESS;
    strip_slash(out->className);
    sym2str(out->file, VM_SYMBOL_SIZE, QorWordAt(klass + offsets[KLASS_SOURCE]));
    out->native = flags & FLAG_NATIVE;
    out->isStatic = flags & FLAG_STATIC;
    out->line = out->native ? 0 : LineOf(frame, constMethod);
    return FRAME_NAMED;
}

void strip_slash(char *name) {
    char *const end = name + strlen(name);
    std::replace(name, end, '/', '.');
    std::replace(name, end, ';', ' ');
}

bool QorClassNameOf(uint64_t object, char *out) {
    *out = 0;
    if (!valid_oop(object))
        return false;
    const uint64_t klass = QorWordAt(object + OBJECT_KLASS);
    if (!sym2str(out, VM_SYMBOL_SIZE, QorWordAt(klass + KLASS_PART + offsets[KLASS_NAME])))
        return false;
    strip_slash(out);
    return true;
}
