// The file of a text heap dump: opened with care, written through one buffer.
//
// A walk over the heap writes tens of millions of short lines while the JVM is paused, so a record is
// composed directly in the buffer: reserve room, let the Put functions move a pointer on, commit. Nothing
// here allocates, locks or logs, so that a heap walk's callback may call all but open and close.
//
// The first failed write is kept in `error`. From then on everything written is dropped, and whoever drives
// the walk is expected to look at `error` and to stop.
#pragma once

#include <cstdint>
#include <cstring>
#include <sys/types.h>

enum : int32_t {
    DUMP_BUFFER_SIZE = 1 << 20,
    DUMP_LEAST_BUFFER = 64, // also the longest piece that can be reserved
    DUMP_COUNT_WIDTH = 10,  // digits of a count that is filled in later
    DUMP_IN_MEMORY = -2,    // in place of a descriptor
};

struct QorDumpFile {
    int32_t fd;    // -1: not open; DUMP_IN_MEMORY: the buffer grows and is all there is
    int32_t error; // errno of the first failure, 0 for none
    int32_t size, used;
    int64_t flushed; // bytes handed to the system
    char *buffer;
    volatile int32_t writing; // 1 while a write is under way
};

// Begins a text in memory, to be written to a file later. False when there is no memory.
bool QorDumpBegin(QorDumpFile *file, int32_t bufferSize);

// Frees the buffer and forgets the descriptor, without writing or closing anything.
void QorDumpAbandon(QorDumpFile *file);

// Opens `path` for writing, empty and readable by its owner alone. Only a new file or a plain file of this
// user's, with this one name, is taken: never a symbolic link, a pipe, a device or somebody else's file, and
// what is refused is left untouched. 0, or -1 with errno set.
int32_t QorDumpOpen(QorDumpFile *file, const char *path, int32_t bufferSize);

// Writes what the buffer holds. False after a failure, also an earlier one.
bool QorDumpFlush(QorDumpFile *file);

// Flushes and closes. A dump that could not be written whole is emptied, as a full disk is the host's trouble
// first of all. 0, or -1 with errno set to the first failure.
int32_t QorDumpClose(QorDumpFile *file);

// Offset in the file at which the next byte goes.
inline int64_t QorGetCurrentPos(const QorDumpFile *file) { // nothing calls it
    return file->flushed + file->used;
}

// Room for `length` bytes (at most DUMP_LEAST_BUFFER) at the end of the buffer.
inline char *QorDumpReserve(QorDumpFile *file, int32_t length) {
    if (__builtin_expect(file->size - file->used < length, 0))
        QorDumpFlush(file);
    return file->buffer + file->used;
}

// Takes the reserved room up to `end` into the file.
inline void QorDumpCommit(QorDumpFile *file, const char *end) {
    file->used = static_cast<int32_t>(end - file->buffer);
}

// Writes text of any length.
void QorDumpText(QorDumpFile *file, const char *text, int64_t length);

// Writes a text of the host's as a field: what would end the field or the line becomes a blank.
void QorDumpField(QorDumpFile *file, const char *text);

// Overwrites the ten digits at `offset` by `count` in hexadecimal with zeros in front, in the buffer or,
// where they have left it, in the file.
void QorDumpPatchCount(QorDumpFile *file, int64_t offset, uint64_t count);

extern const char qorDigitPairs[201]; // "00" to "99"

// Numbers in the shortest decimal or hexadecimal form. Each returns the end of what it wrote.
inline char *QorPutDecimal(char *p, uint64_t value) {
    char digits[20];
    char *first = digits + sizeof digits;
    while (value >= 100) {
        first -= 2;
        memcpy(first, qorDigitPairs + value % 100 * 2, 2);
        value /= 100;
    }
    if (value >= 10) {
        first -= 2;
        memcpy(first, qorDigitPairs + value * 2, 2);
    } else {
        *--first = static_cast<char>('0' + value);
    }
    const size_t length = static_cast<size_t>(digits + sizeof digits - first);
    memcpy(p, first, length);
    return p + length;
}

inline char *QorPutSigned(char *p, int64_t value) {
    if (value >= 0)
        return QorPutDecimal(p, static_cast<uint64_t>(value));
    *p = '-';
    return QorPutDecimal(p + 1, 0 - static_cast<uint64_t>(value));
}

inline char *QorPutHex(char *p, uint64_t value) {
    int shift = 60 - (value ? __builtin_clzll(value) & ~3 : 60);
    for (; shift >= 0; shift -= 4)
        *p++ = "0123456789abcdef"[value >> shift & 15];
    return p;
}

inline char *QorPutChar(char *p, char c) {
    *p = c;
    return p + 1;
}

// A text whose length the compiler knows.
template <size_t N>
inline char *QorPutText(char *p, const char (&text)[N]) {
    memcpy(p, text, N - 1);
    return p + N - 1;
}
