#include "utf16_text.h"

namespace {

constexpr uint32_t FIRST_SHOWN = 32; // below are controls and separators
constexpr uint32_t REPLACEMENT = '?';

bool IsHighHalf(uint32_t c) {
    return (c & 0xfc00) == 0xd800;
}

bool IsLowHalf(uint32_t c) {
    return (c & 0xfc00) == 0xdc00;
}

void Put(QorUtf16Text *text, uint32_t c) {
    if (c < FIRST_SHOWN)
        c = ' ';
    const int32_t length = c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
    if (text->full || text->last - text->next < length) {
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
void Take(QorUtf16Text *text, uint32_t c) {
    if (text->high && IsLowHalf(c)) {
        Put(text, 0x10000 + ((text->high - 0xd800) << 10) + (c - 0xdc00));
        text->high = 0;
        return;
    }
    if (text->high)
        Put(text, REPLACEMENT);
    text->high = IsHighHalf(c) ? c : 0;
    if (!text->high)
        Put(text, IsLowHalf(c) ? REPLACEMENT : c);
}

} // namespace

void QorUtf16Start(QorUtf16Text *text, char *storage, int32_t size) {
    *text = {storage, storage + size - 1, 0, false};
}

void QorUtf16Append(QorUtf16Text *text, const uint16_t *chars, int32_t count) {
    for (int32_t i = 0; i < count; i++)
        Take(text, chars[i]);
}

void QorUtf16End(QorUtf16Text *text) {
    if (text->high)
        Put(text, REPLACEMENT);
    *text->next = 0;
}
