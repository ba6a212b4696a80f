// Bounded strings: the agent's one way of copying and appending text.
//
// A copy that does not fit is cut, on a character boundary of (modified) UTF-8, and still a success. An
// append that does not fit is refused whole, so that a reply stays well-formed up to its last complete field.
// QorStrncat's refusals are reported once an hour at most, since a full reply refuses every further append of
// a request.
//
// Any thread; one text has one writer at a time. Only the counters are shared: their use is statistical, and
// a lost count does no harm.
#pragma once

#include <cstdint>
#include <cstring>
#include <sys/time.h>

extern int32_t bufferOverflowCount;               // appends refused
extern int32_t bufferOverflowDumpCount;           // reports made of them
extern struct timeval prevBufferOverFlowDumpTime; // time of the last report, on the monotonic clock

// The length of a text cut at `length` without what the cut has torn: part of a character, which would make
// the JVM's NewStringUTF read past the text's end, and the first half of a surrogate pair. Bytes that are no
// UTF-8 count as whole.
int32_t QorWholeCharacters(const char *text, int32_t length);

// Sets of control characters: those that a record is made of, line ends, and all that the records and the
// merge of the Java side's answer cut at.
enum : uint32_t {
    BLANK_NOTHING = 0,
    BLANK_MARKS = 1U << 14 | 0x3fU << 26,
    BLANK_LINE_ENDS = 1U << '\n' | 1U << '\r',
    BLANK_SEPARATORS = BLANK_MARKS | BLANK_LINE_ENDS | 1U << 15,
};

// Replaces the characters of a set by blanks. The text's length.
int32_t QorBlank(char *text, uint32_t blanked);

// The one copier of names and values: cut at a character where `capacity` bytes (at least 2, terminator
// included) hold no more, with the characters of a set as blanks. A null source is "". The copy's length.
int32_t QorCopyText(char *dest, const char *src, int32_t capacity, uint32_t blanked);

// Makes bytes of no known encoding fit for a record: foreign ones become "?", separators blanks.
void QorMakeFit(char *text);

// Ends a text that was cut at `length` before what the cut has torn: an incomplete last character, a
// high surrogate without its partner. Returns the length.
int32_t QorDropPartialCharacter(char *text, int32_t length);

// Replaces each sequence that isn't modified UTF-8 (4-byte forms included) by "?". For bytes of unknown
// origin.
void QorReplaceForeignBytes(char *text);

// Copies at most `len` bytes of `src`, or up to its terminator, into `size` bytes of storage and terminates.
// `len` may be the exact length or any upper bound of it. 0, or -1 with nothing written: no destination, a
// size below 2, no source, or a `len` below 1.
int32_t QorStrncpy(char *dst, const char *src, int32_t size, int32_t len);
int32_t QorAgentStrncpy(char *dst, const char *src, int32_t size, int32_t len); // nothing calls it

// The same with the length taken from *count, which returns the bytes copied, 0 on failure. A caller compares
// it with what it asked for to notice a cut copy.
int32_t QorStrncpy2(char *dst, const char *src, int32_t size, int32_t *count);

// Appends the text `src` to the text in `size` bytes of storage. 1, or -1 when there is no room for it and
// the terminator; nothing is written then. An unterminated destination has no room.
int32_t QorStrncat2(char *dst, const char *src, int32_t size);
void QorStrncat(char *dst, const char *src, int32_t size);

// Counts a refused append and reports it when a report is due. `src` and `dst` need no terminator.
void QorReportRefusedAppend(const char *dst, int32_t dstLen, const char *src, int32_t srcLen, int32_t size);

// Appends without trusting either text to be terminated: both buffers get a 0 in their last byte, so a full
// one loses it. Neither may be a literal. 0, or -1 when refused.
int32_t QorAgentStrncat(char *dst, char *src, int32_t dst_size, int32_t src_size);

// As strstr and strchr; null when a pointer is null.
inline const char *QorStrstr(const char *text, const char *part) {
    return text && part ? strstr(text, part) : nullptr;
}
inline char *QorStrstr(char *text, const char *part) {
    return text && part ? strstr(text, part) : nullptr;
}
inline const char *QorAgentStrstr(const char *text, const char *part) { // nothing calls it
    return QorStrstr(text, part);
}
inline char *QorAgentStrstr(char *text, const char *part) { // nothing calls it
    return QorStrstr(text, part);
}
inline const char *QorStrchr(const char *text, int c) {
    return text ? strchr(text, c) : nullptr;
}
inline char *QorStrchr(char *text, int c) {
    return text ? strchr(text, c) : nullptr;
}

// Traces the time between two readings under a label. 0, or -1 for a null label while requests are traced.
int32_t QorDumpTime(int64_t startSec, int64_t startUsec, int64_t endSec, int64_t endUsec, const char *label);

// Microseconds between two readings.
int64_t deltaTimeUsec(int64_t startSec, int64_t startUsec, int64_t endSec, int64_t endUsec);
