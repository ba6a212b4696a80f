#include "frame_names.h"

#include "scope_values.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>
#include <cstring>

namespace {

// Bytes in a method, 16 bits each. No source is known for them.
constexpr uint64_t METHOD_LOCALS = 56, METHOD_PARAMETERS = 58;
constexpr uint32_t FLAG_STATIC = 0x8, FLAG_NATIVE = 0x100;
constexpr int32_t MAX_BCI = 65535, MAX_LINE = 65535, MAX_TABLE = 4096;

// Marks of the line table: its end, and two whole numbers in place of the byte that holds both.
constexpr uint8_t TABLE_END = 0, TABLE_LONG = 255;
constexpr int32_t LINE_BITS = 3, LINE_MASK = 7;

// Steps to the next entry. False at the end.
bool NextEntry(uint64_t table, int32_t *at, int32_t *bci, int64_t *line) {
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
        !get_int_from_compressed_stream(table, at, &lineStep) || bciStep < -MAX_BCI || bciStep > MAX_BCI)
        return false;
    *bci += bciStep;
    *line += lineStep;
    return true;
}

// The line of the last entry at or before `wanted`; 0 for none. A method may have no table: then bytes
// of its neighbour are read, which is why what comes out is held against what a line can be.
int32_t FindLine(uint64_t table, int32_t wanted) {
    int32_t best = -1, at = 0, bci = 0;
    int64_t line = 0, bestLine = 0;
    while (NextEntry(table, &at, &bci, &line) && bci >= 0 && bci <= MAX_BCI) {
        if (bci <= wanted && bci >= best) {
            best = bci;
            bestLine = line;
        }
        if (bci == wanted)
            break;
    }
    return bestLine >= 1 && bestLine <= MAX_LINE ? static_cast<int32_t>(bestLine) : 0;
}

int32_t LineOf(const QorFrameInfo &frame, const QorVmMethod &method) {
    const bool interpreted = frame.kind == WALKED_INTERPRETED;
    const int64_t bci = interpreted ? static_cast<int64_t>(frame.bcp - method.code) : frame.bci;
    if (bci < 0 || bci >= method.codeSize)
        return 0;
    return FindLine(method.code + static_cast<uint64_t>(method.codeSize), static_cast<int32_t>(bci));
}

bool PoolSymbol(const QorVmMethod &method, uint64_t indexPlace, char *out) {
    const uint64_t index = QorUint16At(method.constMethod + indexPlace);
    return sym2str(out, VM_SYMBOL_SIZE, QorWordAt(method.pool + POOL_ENTRIES + index * VM_WORD_SIZE)) &&
           out[0];
}

} // namespace

QorNaming QorReadMethod(uint64_t method, QorVmMethod *out) {
    uint64_t parts[2]; // constMethod and constant pool
    static_assert(METHOD_POOL == METHOD_CONST + VM_WORD_SIZE, "read as a pair");
    static_assert(METHOD_PARAMETERS == METHOD_LOCALS + sizeof(uint16_t), "likewise");
    uint32_t flags = 0;
    uint16_t sizes[2];
    if (!QorPeek(method + METHOD_CONST, parts, sizeof parts) ||
        !QorPeekValue(method + offsets[METHOD_FLAGS], &flags) ||
        !QorPeek(method + METHOD_LOCALS, sizes, sizeof sizes))
        return FRAME_UNREADABLE;
    out->constMethod = parts[0];
    out->pool = parts[1];
    if (!QorIsOfType(method, TYPE_METHOD) || !QorIsOfType(out->constMethod, TYPE_CONST_METHOD) ||
        !QorIsOfType(out->pool, TYPE_POOL))
        return FRAME_NAMELESS;
    out->holder = QorWordAt(out->pool + POOL_HOLDER);
    if (!valid_klass(out->holder))
        return FRAME_NAMELESS;
    out->code = out->constMethod + offsets[CONST_METHOD_CODE];
    out->codeSize = QorUint16At(out->constMethod + offsets[CONST_METHOD_CODE_SIZE]);
    out->locals = sizes[0];
    out->parameters = sizes[1];
    out->native = flags & FLAG_NATIVE;
    out->isStatic = flags & FLAG_STATIC;
    return FRAME_NAMED;
}

bool QorHolderName(const QorVmMethod &method, char *out) {
    const uint64_t name = QorWordAt(method.holder + KLASS_PART + offsets[KLASS_NAME]);
    return sym2str(out, VM_SYMBOL_SIZE, name) && out[0];
}

bool QorMethodName(const QorVmMethod &method, char *out) {
    return PoolSymbol(method, offsets[CONST_METHOD_NAME], out);
}

bool QorMethodSignature(const QorVmMethod &method, char *out) {
    return PoolSymbol(method, offsets[CONST_METHOD_NAME] + sizeof(uint16_t), out);
}

QorNaming QorNameFrame(const QorFrameInfo &frame, QorFrameNames *out) {
    *out->className = *out->method = *out->file = 0;
    QorVmMethod method;
    const QorNaming naming = QorReadMethod(frame.method, &method);
    if (naming != FRAME_NAMED)
        return naming;
    if (!QorHolderName(method, out->className) || !QorMethodName(method, out->method))
        return FRAME_NAMELESS;
    strip_slash(out->className);
    sym2str(out->file, VM_SYMBOL_SIZE, QorWordAt(method.holder + KLASS_PART + offsets[KLASS_SOURCE]));
    out->native = method.native;
    out->line = method.native ? 0 : LineOf(frame, method);
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
