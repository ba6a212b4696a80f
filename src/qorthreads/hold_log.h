// The log of held threads. A line written while a thread is held may wait for ever, as that thread may own
// the log's lock, so events are kept and written afterwards.
#pragma once

#include <cstddef>
#include <cstdint>

enum QorHoldEventKind : int32_t {
    HOLD_BEGUN,
    HOLD_REFUSED,
    HOLD_NOT_SENT,
    HOLD_LAPSED,
    HOLD_DONE,
    HOLD_DUMP_LAPSED
};

struct QorHoldEvent {
    QorHoldEventKind kind;
    int32_t why; // QorHoldCase
    int32_t id;  // the thread's kernel id; of HOLD_DUMP_LAPSED its place in the dump's table
    uint64_t thread;
};

// Keeps an event that the log's level asks for; beyond 256 they are counted only. Any thread, any handler.
void QorNoteHold(const QorHoldEvent &event);

// Writes what was kept, and what the signal's handler has counted. `name` writes a thread's name, null: none
// is known. Worker, with nobody held.
void QorLogHolds(void (*name)(uint64_t thread, char *out, size_t size));
