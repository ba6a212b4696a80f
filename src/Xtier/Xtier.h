// Cross-tier frames: which frames of a sample hold data of other tiers, and their way into the reply.
//
// A view classifies each frame while it walks and lists those of interest; one pass reads the objects of all
// listed frames after the walk, the readers turn them into call records, and these go into the rows that the
// view has written. The two lists of a sample live here, from the first listed frame to QorFreeXtierLists.
//
// Worker only.
#pragma once

#include "LocationList.h"
#include "Xtier/tiers/tier.h"
#include "XtierInsert.h"
#include "jvmti/threads/ThreadSystem.h"
#include "reply/qortext.h"

#include <cstdint>
#include <jni.h>

// The kinds of a frame (tiers/tier.h), 0 for nearly all. A frame without complete facts has none.
uint32_t QorClassifyFrame(const QorFrameRecord *frame);

// How far one of the three kinds of framework frame has been met on a thread.
enum QorFrameworkMeeting : int32_t {
    MEETING_NONE = 0,
    MEETING_NOW = 1,      // its frame is listed
    MEETING_RECORDED = 2, // and its place among the stack rows is noted
    MEETING_MISSED = 5,   // there is one, but its data is unavailable by reading at once
    MEETING_OTHER = 7,    // one of the other two came first
};

// What has been met on one thread; value-initialised before its first frame.
struct QorXtierFlags {
    bool web, database, file, network, server, rmi;
    bool tableWeb; // a web frame of the tables is listed
    QorFrameworkMeeting view, groovy, el;
};

// Starts a thread: entries that are listed from here on can be dropped by QorDropThreadFrames.
void QorStartThreadFrames();
// The thread gets no row: its entries go.
void QorDropThreadFrames();

// Lists a frame of the thread for the pass at the end. The framework that this frame makes the thread's
// current call, or FRAMEWORK_NONE.
QorFramework QorListXtierFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, uint32_t kinds,
                               QorXtierFlags *flags);

// The same for the view of one stack, which asks for requests, database calls and the first view or entity
// object only.
QorFramework QorListStackFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, uint32_t kinds,
                               QorXtierFlags *flags);

// Whether frames are listed whose data the thread's row can show; a server's frames alone are not.
bool QorHasRowData(const QorXtierFlags &flags);

// Appends the thread to the location list. 0, or -1 (logged) when there is no memory.
int32_t QorAddThreadLocation(const QorThreadRecord *thread, const char *threadKey,
                             const QorXtierPositions &positions, QorFramework framework);

// Reads the objects of all listed frames and puts what they found into the reply.
void QorInsertXtierData(QorText *reply);

// What the stack view shows of its thread. The records are the readers' own and valid until the next call.
struct QorStackViewData {
    const QorJSPRequestData *web;     // URL (the page's name in its place), view or entity name
    const QorDBRequestData *database; // see QorIsKnownDatabase
};
QorStackViewData QorReadStackViewData();

// Reading at once, gbQorRELocal: starts a thread's records, reads a frame's data into them, and hands them
// out.
void QorStartReadingAtOnce();
void QorReadFrameAtOnce(const QorThreadRecord *thread, const char *threadKey, const QorFrameRecord *frame,
                        uint32_t kinds, QorXtierFlags *flags);
QorStackViewData QorDataReadAtOnce();

// Ends the lists of a sample; on every way out of the view.
void QorFreeXtierLists();

// Drops what samples keep for the next one: the walk's memory, connections, drivers, end-to-end blocks.
// Worker, at its end, or the start that finds it gone; nobody may be taking the end-to-end list.
void QorDropXtier(JNIEnv *env);
