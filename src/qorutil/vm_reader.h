// The one way to read the JVM's memory on the direct road.
//
// The JVM's structures are read while the JVM changes and frees them, so any address may have gone a moment
// ago. Every read goes through the system, which refuses where a load would fault: a failed read is false,
// never a signal. Addresses are numbers everywhere above this unit.
//
// A system call costs about a microsecond whether it copies a word or a page, so whole pages are copied and
// kept: what is read between two calls of QorForgetPages is one picture per page, not one picture of the JVM.
//
// One thread reads at a time: the worker, or the initialisation thread while nobody else is there. Nothing
// here allocates, logs or takes a lock; errno may change.
#pragma once

#include <cstddef>
#include <cstdint>

enum : uint64_t { VM_PAGE_SIZE = 4096, VM_WORD_SIZE = 8 };

// Copies `size` bytes from `address` to `out`, by way of the kept pages. False when one of them can't be
// read; `out` is then undefined.
bool QorPeek(uint64_t address, void *out, size_t size);

// The same straight from the memory, for words that are polled and for windows of 64 KB and more. May be
// called on any thread.
bool QorPeekFresh(uint64_t address, void *out, size_t size);

// The same from the kept pages alone, false where one isn't kept: for what may have changed since, such as
// the stack of a thread that was held.
bool QorPeekKept(uint64_t address, void *out, size_t size);

// Drops the kept pages. Call it before each thread of a sample, before each retry, and when a thread has been
// stopped.
void QorForgetPages();

struct QorMemoryRange {
    uint64_t start, end;
};

// From now on both reads copy what lies wholly inside one of these ranges without asking the system: for a
// copy of the process, whose memory nobody changes. `ranges` stays the caller's and must outlive the reads; a
// count of 0 ends it. A range that isn't mapped ends the copy by a fault.
void QorPlainReads(const QorMemoryRange *ranges, size_t count);

// One value; false, and *out undefined, when it can't be read.
template <typename T>
bool QorPeekValue(uint64_t address, T *out) {
    return QorPeek(address, out, sizeof *out);
}

// One value, or 0 for one that can't be read: for chains where 0 ends the walk anyway.
uint64_t QorWordAt(uint64_t address);
uint32_t QorUint32At(uint64_t address);
int32_t QorInt32At(uint64_t address);
uint16_t QorUint16At(uint64_t address);
