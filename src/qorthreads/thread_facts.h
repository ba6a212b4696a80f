// What is known of a thread before its stack is read.
//
// A thread is known by two things, its JavaThread's address and its kernel id: the JavaThread of a thread
// that has ended is freed, and may be another thread's a moment later. Worker; nothing here allocates or
// logs.
#pragma once

#include "qorutil/vm_offsets.h"
#include "qorutil/vm_text.h"

#include <cstddef>
#include <cstdint>

enum : int32_t { QOR_THREAD_NAME_SIZE = VM_TEXT_SIZE, QOR_THREAD_KEY_SIZE = 64 };

struct QorThreadFacts {
    uint64_t address;  // of the JavaThread
    uint64_t osThread; // 0 for none
    uint64_t object;   // the java.lang.Thread, untested
    uint64_t lastSp;   // of the frame anchor; 0: the thread runs Java code, or has no frames
    int32_t id;        // the kernel's
    int32_t osState;   // NO_OS_THREAD without an OSThread
    int32_t vmState;
    QorDirectState state;
};

// Reads the facts as they are now, dropping the kept pages. False when the memory is gone.
bool QorReadThreadFacts(uint64_t thread, QorThreadFacts *out);

// Whether the JavaThread still is that of the thread with this kernel id, and that one is alive. Unlike
// QorIsListed it takes the same time however many threads there are.
bool QorStillThatThread(const QorThreadFacts &facts);

// The thread's name into QOR_THREAD_NAME_SIZE bytes, bars as blanks; the placeholder when it can't be read.
// Never while a thread is held.
void QorReadThreadName(const QorThreadFacts &facts, char *out);

// The thread's key as records have it, into QOR_THREAD_KEY_SIZE bytes: "process-thread", or the thread's id
// alone where each thread is a process.
void QorFormatDirectKey(const QorThreadFacts &facts, char *out);
