// Threads and frames: one snapshot of all Java threads, walked thread by thread and turned into text.
//
// A walk is QorInitThreadHandle, QorGetJVMThread until `index` reaches `count` (for each thread
// QorGetThreadInfo and QorGetFrames, for each frame QorReadFrame), and last QorCloseThreadHandle. The whole
// walk rests on a single call for all stacks (MountedThreads.h), so the JVM is stopped once. The threads run
// on meanwhile: a record's state can be some microseconds younger than its stack.
//
// A method is looked up once in a walk: the first frame of a method asks JVMTI for name, class, file and line
// table, later frames find these facts in a table that the close of the walk drops. Only complete facts are
// kept; what failed is asked again at the next frame.
//
// The snapshot's references are in a local frame that the first QorGetJVMThread opens and the close pops.
// So a view pops its own frames in between, and keeps no local reference made during the walk beyond its
// close.
//
// Everything here runs on the worker. One walk is open at a time.
#pragma once

#include "MountedThreads.h"
#include "reply/record_facts.h"

#include <cstdint>
#include <jni.h>
#include <jvmti.h>

enum : int32_t {
    MAX_WALK_THREADS = 1024,
    MAX_FRAMES = 1001,
    STATE_TEXT_SIZE = 64,
    MAX_BCI_THREADS = 1000,
};

enum QorThreadState : int32_t {
    STATE_RUNNABLE,
    STATE_INTERRUPTED,
    STATE_SUSPENDED,
    STATE_OBJECT_WAIT,
    STATE_LOCK,
    STATE_SLEEPING,
    STATE_CONDVAR_WAIT,
    STATE_NETWORK_WAIT,
    STATE_IO_WAIT,
    STATE_DB_WAIT,
    STATE_TERMINATED,
    STATE_NATIVE,
    STATE_UNKNOWN,
    STATE_RMI_WAIT,
    STATE_OTHER,
    STATE_COUNT,
};

// The cursor of a walk; one on the stack of each view.
struct QorThreadHandle {
    jthread *threads; // null before the first QorGetJVMThread
    int32_t count;    // threads in the walk, at most MAX_WALK_THREADS
    int32_t index;    // the current thread, -1 before the first
};

// One thread's facts, all of them the thread's own after QorGetThreadInfo gave 0, but for enhancedState. A
// view that reads the record of a failed call clears the state first.
struct QorThreadRecord {
    int64_t tid;   // Java thread id
    int64_t ostid; // operating system's thread id on IBM JVMs (-1 unknown), 0 elsewhere
    char name[NAME_SIZE];
    int32_t state;         // QorThreadState
    int32_t enhancedState; // copy of state, written whenever GetThreadEnhancedState refines it
    int32_t priority;
    int32_t daemon;           // 1 for a daemon thread
    int32_t nativeWaitFrames; // GetThreadEnhancedState's own: 1 when the top frame is Object.wait0
    QorThreadHandle *handle;
};

// One thread's frames, copied from the snapshot, top of stack first.
struct QorFrameHandle {
    jvmtiFrameInfo frames[MAX_FRAMES];
    int32_t count;
    int32_t index; // the current frame
};

// What is known of a method for the length of a walk. Texts are terminated and hold no control character of
// the record format. `callType` is QorGetMethodCallType's answer.
struct QorMethodFacts {
    jmethodID id;
    const char *method, *className, *fileName;
    int32_t methodLength, classLength, fileLength;
    int32_t callType;
    uint32_t tiers; // QorTierKindsOf
    jint lineCount; // 0: no line table
    jvmtiLineNumberEntry *lines;
};

// How much of a frame QorReadFrame must get; a frame lacking it is a failure.
enum QorFrameDetail { FRAME_METHOD_AND_CLASS, FRAME_WITH_FILE_AND_LINE };

// Thread ids that the instrumentation reports active; filled by dataFromBCI.
extern int64_t gBciThreadIds[MAX_BCI_THREADS];
extern int32_t gBciThreadIdCount;

void QorInitThreadHandle(QorThreadHandle *handle);

// First call: takes the snapshot. Every call: moves the cursor by one. Returns the handle, null for null. The
// walk has ended when index is not below count; a failed snapshot ends it at once.
QorThreadHandle *QorGetJVMThread(QorThreadHandle *handle, int32_t unused);

// Turns an open walk into one of the virtual thread with this Java thread id, mounted or not: the cursor is
// at it, its frames are those after the scheduler's. Looks for it for a second at most, in polls not again
// within ten seconds of not finding it: traces go on when their thread has ended. False when it isn't found:
// the walk is then over.
bool QorTurnToVirtual(QorThreadHandle *handle, int64_t tid);

// Drops the snapshot, its references and the methods' facts. Safe without an open walk.
void QorCloseThreadHandle(QorThreadHandle *handle);

// Facts of the thread at the cursor. 0, or -1 when the thread is gone.
int32_t QorGetThreadInfo(QorThreadHandle *handle, QorThreadRecord *record);

// Java thread id of the `index`th thread of the walk, 0 when it can't be read.
int64_t QorGetWalkThreadId(const QorThreadHandle *handle, int32_t index);

// The `index`th thread of the walk as the snapshot has it; null without one.
const jvmtiStackInfo *QorWalkStack(const QorThreadHandle *handle, int32_t index);

// What the `index`th thread of the walk is. Of a carrier's virtual thread or of a mounted thread's carrier
// the Java thread id; 0 for other threads.
QorThreadKind QorWalkThreadKind(const QorThreadHandle *handle, int32_t index);
bool QorIsVirtual(const QorThreadHandle *handle, int32_t index);
int64_t QorGetPartnerId(const QorThreadHandle *handle, int32_t index);

// Copies the frames of the thread at the cursor. Their number, or -1.
int32_t QorGetFrames(QorThreadHandle *handle, QorFrameHandle *frameHandle);

// Reads the frame at frameHandle->index. 0, or -1 with what could be read left in the record.
int32_t QorReadFrame(QorFrameHandle *frameHandle, QorFrameDetail detail, QorFrameRecord *record);

// The single readings behind QorReadFrame, each on the frame at frameHandle->index, into NAME_SIZE bytes:
// 0, or -1 with the destination as it was.
int32_t QorGetMethodInfo(const QorFrameHandle *frameHandle, char *dest); // nothing calls it
int32_t QorGetClassInfo(const QorFrameHandle *frameHandle, char *dest);  // nothing calls it
int32_t QorGetFileName(const QorFrameHandle *frameHandle, char *dest);   // nothing calls it
// The line, 0 when the method has no line table, -1 when no entry fits.
int32_t QorGetLineNumber(const QorFrameHandle *frameHandle); // nothing calls it

// The line of `table` (sorted by start location) for a location, -1 if none.
int32_t QorMapLoc2Line(jlocation location, const jvmtiLineNumberEntry *table, jint count);

// A JVM class signature, without its leading 'L', to a dotted name, in place.
void Slash2Dot(char *text);

// A JVMTI thread state to a QorThreadState; tid is looked for in gBciThreadIds.
int32_t mapThreadStatetoQorState(jint jvmtiState, int64_t tid);

// The state's text into STATE_TEXT_SIZE bytes; "Unknown" for a number outside 0 to 14.
void mapQorThreadState2String(int32_t state, char *dest);

// Refines the thread's state from a frame of its stack; call it for each frame from the top. A null frame
// means that the thread has no usable user frame. Always 0.
int32_t GetThreadEnhancedState(const QorFrameRecord *frame, QorThreadRecord *thread);

// Whether no frame from `frameIndex` on can change the state any more.
bool QorStateIsSettled(int32_t state, int32_t frameIndex);

// Stores 1 for a user call, 0 for a system call; a null record stores nothing.
void QorGetMethodCallType(const QorFrameRecord *frame, int32_t *out);

// Microseconds that a sleep(0) takes.
int32_t GetOSRValue();
