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

constexpr uint32_t FIRST_SHOWN = 32; // below are controls and separators
constexpr uint32_t REPLACEMENT = '?';
constexpr int32_t CHUNK_CHARS = 512;
constexpr char STRING_CLASS[] = "java/lang/String", CHARS_CLASS[] = "[C";

void LogCut(int32_t length) {
    QORLOG(LOG_POLL_FAILURE, "Qor Agent DIAG :: Buffer limit exceeded : %d", length);
}

bool IsHighHalf(uint32_t c) {
    return (c & 0xfc00) == 0xd800;
}

bool IsLowHalf(uint32_t c) {
    return (c & 0xfc00) == 0xdc00;
}

// A text in UTF-8 that grows by characters.
struct Utf8Text {
    char *next, *end; // `end` is the terminator's last place
    bool full;
};

void Put(Utf8Text *text, uint32_t c) {
    if (c < FIRST_SHOWN)
        c = ' ';
    const int32_t length = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
    if (text->full || text->end - text->next < length) {
        text->full = true;
        return;
    }
    constexpr uint32_t LEAD[] = {0, 0, 0xc0, 0xe0, 0xf0};
    for (int32_t i = length - 1; i > 0; i--, c >>= 6)
        text->next[i] = static_cast<char>(0x80 | (c & 0x3f));
    text->next[0] = static_cast<char>(LEAD[length] | c);
    text->next += length;
}

// Joins the halves of pairs on their way into the text.
struct Utf16Reader {
    Utf8Text text;
    uint32_t high; // waits for its other half; 0 for none
};

void Take(Utf16Reader *reader, uint32_t c) {
    if (reader->high && IsLowHalf(c)) {
        Put(&reader->text, 0x10000 + ((reader->high - 0xd800) << 10) + (c - 0xdc00));
        reader->high = 0;
        return;
    }
    if (reader->high)
        Put(&reader->text, REPLACEMENT);
    reader->high = IsHighHalf(c) ? c : 0;
    if (!reader->high)
        Put(&reader->text, IsLowHalf(c) ? REPLACEMENT : c);
}

// False when the characters can't be read to the end.
bool ReadChars(Utf16Reader *reader, uint64_t from, int32_t count) {
    uint16_t chunk[CHUNK_CHARS];
    while (count > 0) {
        const int32_t part = std::min(count, CHUNK_CHARS);
        if (!QorPeek(from, chunk, part * sizeof chunk[0]))
            return false;
        for (int32_t i = 0; i < part; i++)
            Take(reader, chunk[i]);
        from += part * sizeof chunk[0];
        count -= part;
    }
    if (reader->high)
        Put(&reader->text, REPLACEMENT);
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
    Utf16Reader reader = {{dst, dst + size - 1, false}, 0};
    const uint64_t from = chars + static_cast<uint64_t>(offset) * sizeof(uint16_t);
    const bool read = ReadChars(&reader, from, std::min(count, limit));
    *(read ? reader.text.next : dst) = 0;
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
    std::replace(dst, dst + copied, '\0', static_cast<char>(REPLACEMENT));
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

char *QorUtf16Text(char *dst, int32_t size, const uint16_t *chars, int32_t count) {
    Utf16Reader reader = {{dst, dst + size - 1, false}, 0};
    for (int32_t i = 0; i < count; i++)
        Take(&reader, chars[i]);
    if (reader.high)
        Put(&reader.text, REPLACEMENT);
    *reader.text.next = 0;
    return dst;
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
