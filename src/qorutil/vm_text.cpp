#include "vm_text.h"

#include "vm_heap.h"
#include "vm_klass.h"
#include "vm_offsets.h"
#include "vm_reader.h"

#include "qorStrUtils.h"
#include "qorlog.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char REPLACEMENT = '?';
constexpr int32_t CHUNK_CHARS = 512;
constexpr char STRING_CLASS[] = "java/lang/String", CHARS_CLASS[] = "[C";

void LogCut(int32_t length) {
    QORLOG(LOG_POLL_FAILURE, "Qor Agent DIAG :: Buffer limit exceeded : %d", length);
}

// False when the characters can't be read to the end.
bool ReadChars(QorUtf16Text *text, uint64_t from, int32_t count) {
    uint16_t chunk[CHUNK_CHARS];
    while (count > 0) {
        const int32_t part = std::min(count, CHUNK_CHARS);
        if (!QorPeek(from, chunk, part * sizeof chunk[0]))
            return false;
        QorUtf16Append(text, chunk, part);
        from += part * sizeof chunk[0];
        count -= part;
    }
    QorUtf16End(text);
    return true;
}

bool IsInArray(uint64_t chars, int32_t count, int32_t offset) {
    const int32_t length = QorInt32At(chars - ARRAY_ELEMENTS + ARRAY_LENGTH);
    return offset >= 0 && count >= 0 && static_cast<int64_t>(offset) + count <= length;
}

char *CharsToText(char *dst, int32_t size, uint64_t chars, int32_t count, int32_t offset, int32_t limit) {
    dst[0] = 0;
    if (count > limit || count < 0)
        LogCut(count);
    if (chars == 0 || !IsInArray(chars, count, offset))
        return dst;
    QorUtf16Text text;
    QorUtf16Start(&text, dst, size);
    const uint64_t from = chars + static_cast<uint64_t>(offset) * sizeof(uint16_t);
    if (!ReadChars(&text, from, std::min(count, limit)))
        dst[0] = 0;
    return dst;
}

} // namespace

char *sym2str(char *dst, int32_t size, uint64_t symbol) {
    dst[0] = 0;
    if (symbol == 0)
        return dst;
    if (!QorIsOfType(symbol, TYPE_SYMBOL))
        return nullptr;
    const int32_t length = QorUint16At(symbol + SYMBOL_LENGTH);
    if (length > VM_TEXT_CHARS)
        LogCut(length);
    const int32_t copied = std::min({length, static_cast<int32_t>(VM_TEXT_CHARS), size - 1});
    if (!QorPeek(symbol + SYMBOL_BYTES, dst, static_cast<size_t>(copied))) {
        dst[0] = 0;
        return nullptr;
    }
    std::replace(dst, dst + copied, '\0', REPLACEMENT);
    dst[copied] = 0;
    if (copied < length)
        QorDropPartialCharacter(dst, copied);
    QorMakeFit(dst);
    return dst;
}

char *oop2str(char *dst, int32_t size, uint64_t chars, int32_t count, int32_t offset) {
    return CharsToText(dst, size, chars, count, offset, VM_TEXT_CHARS);
}

char *oop2str_big(char *dst, int32_t size, uint64_t chars, int32_t count, int32_t offset) {
    return CharsToText(dst, size, chars, count, offset, VM_BIG_TEXT_CHARS);
}

char *QorStringText(char *dst, int32_t size, uint64_t string) {
    dst[0] = 0;
    if (!valid_oop(string))
        return nullptr;
    const uint64_t array = QorWordAt(string + STRING_VALUE);
    if (!QorIsOfType(array, TYPE_TYPE_ARRAY))
        return nullptr;
    return oop2str(dst, size, array + ARRAY_ELEMENTS, QorInt32At(string + STRING_COUNT),
                   QorInt32At(string + STRING_OFFSET));
}

char *QorCharArrayText(char *dst, int32_t size, uint64_t array) {
    dst[0] = 0;
    if (!QorIsOfType(array, TYPE_TYPE_ARRAY))
        return nullptr;
    const int32_t length = QorInt32At(array + ARRAY_LENGTH);
    if (length < 0 || length > VM_TEXT_CHARS)
        return nullptr;
    return oop2str(dst, size, array + ARRAY_ELEMENTS, length, 0);
}

char *QorVmText(char *dst, int32_t size, uint64_t object) {
    dst[0] = 0;
    const VmType type = valid_oop(object) ? QorTypeOf(object) : TYPE_NONE;
    if (type != TYPE_INSTANCE && type != TYPE_TYPE_ARRAY)
        return nullptr;
    const uint64_t name = QorWordAt(QorWordAt(object + OBJECT_KLASS) + KLASS_PART + offsets[KLASS_NAME]);
    if (type == TYPE_INSTANCE)
        return QorSymbolIs(name, STRING_CLASS) ? QorStringText(dst, size, object) : nullptr;
    if (!QorSymbolIs(name, CHARS_CLASS))
        return nullptr;
    return oop2str(dst, size, object + ARRAY_ELEMENTS, QorInt32At(object + ARRAY_LENGTH), 0);
}

bool QorSymbolIs(uint64_t symbol, const char *text) {
    char bytes[VM_TEXT_CHARS];
    const size_t length = strlen(text);
    return length < sizeof bytes && QorUint16At(symbol + SYMBOL_LENGTH) == length &&
           QorIsOfType(symbol, TYPE_SYMBOL) && QorPeek(symbol + SYMBOL_BYTES, bytes, length) &&
           memcmp(bytes, text, length) == 0;
}
