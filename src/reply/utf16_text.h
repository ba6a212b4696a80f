// Characters of Java, in pieces of any length, as a bounded UTF-8 text that is fit for a record: separators
// become blanks, and a lone half of a surrogate pair becomes "?". A text that is too long ends with its last
// whole character. Any thread.
#pragma once

#include <cstdint>

enum : int32_t {
    VM_TEXT_CHARS = 1023,                 // of the texts that a record has
    VM_TEXT_SIZE = 3 * VM_TEXT_CHARS + 1, // room for so many characters
};

struct QorUtf16Text {
    char *next, *last; // where it goes on; the terminator's last place
    uint32_t high;     // half of a pair that waits for the other; 0 for none
    bool full;
};

// Starts an empty text on `size` bytes of storage (at least 1), unterminated until its end.
void QorUtf16Start(QorUtf16Text *text, char *storage, int32_t size);

// Appends characters, as many as there is room for.
void QorUtf16Append(QorUtf16Text *text, const uint16_t *chars, int32_t count);

// Ends and terminates it.
void QorUtf16End(QorUtf16Text *text);
