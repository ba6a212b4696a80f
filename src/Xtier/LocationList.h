// The location list: for each thread of a sample that has listed frames, where in the reply the pieces lie
// that its data will replace, in the order in which the rows were written.
//
// Worker only.
#pragma once

#include "Xtier/tiers/CallRecords.h"
#include "reply/record_facts.h"

#include <cstdint>

struct QorAllThreadLocalInfoList;
struct QorThreadRecord;

// A framework frame: generic code, in whose place the reply shows what it works on.
enum QorFramework : int32_t {
    FRAMEWORK_NONE = -1,
    FRAMEWORK_VIEW,
    FRAMEWORK_ENTITY,
    FRAMEWORK_GROOVY,
    FRAMEWORK_EL,
};

// The pieces of one thread: offsets into the reply's text, -1 for a piece that isn't there. A piece ends
// after its last byte. They lie in the reply in this order.
struct QorXtierPositions {
    int32_t requestStart = -1, requestEnd = -1; // URL and detail columns, of a web frame without a URL
    int32_t currentCallStart = -1, currentCallEnd = -1; // current-call columns, of a framework frame
    int32_t rmiStart = -1, rmiEnd = -1;                 // detail block of "RMI Wait"
    int32_t dbStart = -1, dbEnd = -1;                   // detail block of "DB Wait"
    int32_t stackCallStart = -1, stackCallEnd = -1;     // equal: where the framework's stack row goes in
};

struct QorXtierLocationInfo {
    int64_t threadId; // ties the entry to those of the thread-local list
    char threadName[NAME_SIZE];
    char threadKey[DB_THREAD_KEY_SIZE]; // "process-thread"
    QorFramework framework;             // whose data the current call and the stack row show
    QorXtierPositions at;
    QorAllThreadLocalInfoList *newest; // the thread's newest entry; its others follow by `next`
    QorXtierLocationInfo *next;
};

// Appends an entry for the thread, its positions unset, and moves the tail to it. 0, or -1 (logged) when
// there is no memory.
int32_t AddToXtierLocationInfoList(const QorThreadRecord *thread, QorXtierLocationInfo **head,
                                   QorXtierLocationInfo **tail);

// Frees all entries; null is an empty list.
void FreeXtierLocationInfoArrayList(QorXtierLocationInfo *list);
