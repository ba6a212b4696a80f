// The record format, as far as both roads share it: the marks that separate fields, records and sections of a
// reply, the titles, and the fields that every record has.
#pragma once

#include "qortext.h"

#include <cstdint>

constexpr char STATE_MARK = 14;       // before the state field, at optimisation level 3 only
constexpr char FIELD_COUNT_MARK = 26; // after the field count of a database detail block
constexpr char RMI_MARK = 27;         // second mark of an RMI detail block
constexpr char WAIT_DETAIL = 28;      // starts a detail block after the state field
constexpr char FIELD_SEP = 29;
constexpr char RECORD_END = 30; // also follows a section title
constexpr char SECTION_END = 31;

// The placeholder of an empty field. Start-up sets it to "^".
extern char null_str[2];

// The text, or the placeholder for an empty one.
inline const char *OrPlaceholder(const char *text) {
    return text[0] ? text : null_str;
}

// Section titles.
constexpr char TITLE_ACTIVE_THREADS[] = "JVM Active Threads";
constexpr char TITLE_MEMORY_ACTIVITY[] = "JVM Memory Activity";
constexpr char TITLE_THREAD_DETAILS[] = "Thread Info Details";
constexpr char TITLE_CALL_STACK[] = "Call Stack";
constexpr char TITLE_LOCKS[] = "JVM Locks";
constexpr char TITLE_TIME_SPENT[] = "Time spent in JVM for processing request";
constexpr char TITLE_COST[] = "QOR Request Cost";
constexpr char TITLE_LOCK_WAIT[] = "Lock On";
constexpr char TITLE_PARKED[] = "Parked On";
constexpr char TITLE_VIRTUAL_THREADS[] = "JVM Virtual Threads";
constexpr char TITLE_VIRTUAL_CALLS[] = "JVM Virtual Thread Calls";
constexpr char TITLE_COLLECTIONS[] = "JVM Garbage Collections";
constexpr char TITLE_HEAP_MEMORY[] = "JVM Heap Memory Usage";
constexpr char TITLE_CLASSES[] = "JVM Class Details";
constexpr char TITLE_HEAP_OBJECTS[] = "JVM Heap Number of Objects";
constexpr char TITLE_MESSAGE[] = "Message";
constexpr char TITLE_OBJECT[] = "Object Description";
constexpr char TITLE_PARENT[] = "Parent of the Object above:";

// In front of the class of an object that is shown.
constexpr char LABEL_OBJECT_NAME[] = "Object Name :";
// In place of what a collection has moved while it was read; a section.
constexpr char COLLECTOR_RUNNING[] = "Unable to complete Request GC running";

// A label of the console after a lock that a thread waits for.
constexpr char VIEW_LOCK_HOLDER[] = "View Thread Holding this Lock";
// In the place of the file where no line is known.
constexpr char NO_LINE_FILE[] = "Native Method";

// Why a JVM shows no virtual threads.
constexpr char NO_VIRTUAL_THREADS[] = "no virtual threads before Java 21";

// The answer for a client port that no connection is known of.
constexpr char NO_CLIENT_PORT[] = "Client Port not found on JVM";

enum : int32_t { TITLE_SIZE = 128, THREAD_KEY_SIZE = 64 };

// The title record of a request, its RECORD_END included, into TITLE_SIZE bytes; empty when the request has
// none. A poll that traces a single thread gets `poll_details` set.
void InitResponseHeader(uint32_t reqid, char *header);

// A thread's identity on the wire, "process-thread", into THREAD_KEY_SIZE bytes. Ids are cut to 32 bits, as
// the console expects. Returns the length.
int32_t QorFormatThreadKey(char *key, int32_t processId, int64_t threadId);

// A text and its separator; a number and its separator; a title and the mark after it.
void QorAppendField(QorText *out, const char *text);
void QorAppendNumberField(QorText *out, int64_t number);
void QorAppendTitle(QorText *out, const char *title);

// Figures of the machine and the JVM at one moment: ticks per processor, collections and milliseconds spent
// in them, percent of the heap in use.
struct QorSystemFigures {
    int64_t machine, process;
    uint32_t minorCount, majorCount, heapPercent;
    uint64_t minorTime, majorTime;
};

// The section of one line that has them, and the time of the machine's figure.
void QorAppendSystemData(QorText *out, const QorSystemFigures &figures);

// An address as records have it, hexadecimal without a prefix, wrapping. Any character counts, by its code.
uint64_t atoqoraddr(const char *text);
