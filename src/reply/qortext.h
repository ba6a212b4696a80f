// Text built at a kept end.
//
// A reply is a million bytes of short appends, so its end is remembered and never searched for. The rule is
// that of QorStrncat2: an append goes in whole, terminator included, or is refused whole and reported.
// Any thread; one text has one writer at a time.
#pragma once

#include "qorStrUtils.h"

#include <cstdint>
#include <cstring>

struct QorText {
    char *text;     // always terminated at `length`
    int32_t size;   // bytes of storage, terminator included
    int32_t length; // bytes in use, terminator not counted
    bool refused;   // an append has been refused since the last clear or cut
};

// Starts an empty text on `size` bytes of storage (at least 1). Only the first byte is written.
inline void QorTextStart(QorText *t, char *storage, int32_t size) {
    *t = {storage, size, 0, false};
    storage[0] = 0;
}

// Goes on after what is in `storage`; an unterminated one is cut at its last byte.
inline void QorTextContinue(QorText *t, char *storage, int32_t size) {
    *t = {storage, size, static_cast<int32_t>(strnlen(storage, static_cast<size_t>(size) - 1)), false};
    storage[t->length] = 0;
}

// Cuts back to an earlier length.
inline void QorTextCut(QorText *t, int32_t length) {
    t->length = length;
    t->text[length] = 0;
    t->refused = false;
}

// Notes that `length` bytes of `src` did not fit. Always -1.
inline int32_t QorTextRefuse(QorText *t, const char *src, int32_t length) {
    t->refused = true;
    QorReportRefusedAppend(t->text, t->length, src, length, t->size);
    return -1;
}

// Appends `length` bytes of `src`. 1, or -1 when there is no room: nothing is written then.
inline int32_t QorTextAppend(QorText *t, const char *src, int32_t length) {
    if (t->size - t->length <= length)
        return QorTextRefuse(t, src, length);
    memcpy(t->text + t->length, src, static_cast<size_t>(length));
    t->length += length;
    t->text[t->length] = 0;
    return 1;
}

inline int32_t QorTextAppend(QorText *t, const char *src) {
    return QorTextAppend(t, src, static_cast<int32_t>(strlen(src)));
}

inline int32_t QorTextAppendChar(QorText *t, char c) {
    return QorTextAppend(t, &c, 1);
}

// Writes a number in decimal before `end`, at most 20 characters. Where it begins.
inline char *QorPutDigits(char *end, uint64_t value) {
    do
        *--end = static_cast<char>('0' + value % 10);
    while (value /= 10);
    return end;
}

// Appends a number in decimal.
inline int32_t QorTextAppendNumber(QorText *t, int64_t value) {
    char digits[24];
    char *const end = digits + sizeof digits;
    char *p = QorPutDigits(end, value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value));
    if (value < 0)
        *--p = '-';
    return QorTextAppend(t, p, static_cast<int32_t>(end - p));
}
