// What the frames of a thread say of its work in other tiers: the web request it serves, the remote call it
// makes or answers, the database it talks to, and what a framework works on for it.
//
// A frame is known by its class and method, the object by the frame; which fields lead to the data is in
// tier_tables. All of it is read while the thread runs on, and only its kept stack pages are used. Worker.
#pragma once

#include "qorthreads/thread_facts.h"
#include "sunprint/frame_names.h"

#include "qorutil/vm_offsets.h"

#include "Xtier/LocationList.h"
#include "Xtier/tiers/CallRecords.h"

#include <cstdint>

enum : int32_t { FRAME_TEXT_SIZE = REQUEST_TEXT_SIZE, DETAIL_BLOCK_SIZE = 4096, CLIENT_HOST_SIZE = 64 };

// Of one thread; a text that isn't known is empty.
struct QorThreadTiers {
    char url[FRAME_TEXT_SIZE], remoteAddress[FRAME_TEXT_SIZE]; // of the web request
    char page[FRAME_TEXT_SIZE];                                // shown for a URL that says nothing
    char ejbClass[FRAME_TEXT_SIZE], ejbMethod[FRAME_TEXT_SIZE];
    char contextId[FRAME_TEXT_SIZE];       // with QORREQ_THREAD_DETAILS
    char databaseBlock[DETAIL_BLOCK_SIZE]; // detail block without an end mark
    QorRmiCallData call;                   // the remote call that it waits for; known with a host
    int32_t servedCall;                    // the remote call that it answers, -1 for none
    int32_t clientPort;
    char clientHost[CLIENT_HOST_SIZE];
    QorFramework framework;
    char frameworkName[FRAME_TEXT_SIZE];
    int32_t callSite; // of a Groovy script, to be looked for in its text; -1 for none
    int32_t lineAt;   // where the framework's row has its line; whoever writes the row sets it
    int32_t line;     // 0 until it is known
    bool hasWebFrame;
};

// Empties the record of the one thread that is read.
QorThreadTiers *QorClearTiers();

// One frame, number `printed` from the top.
struct QorTierView {
    const char *threadName, *threadKey;
    const QorFrameInfo *frame;
    const QorFrameNames *names;
    int32_t printed;
    bool database; // the thread waits for one
};

// Adds what the frame says. True when a framework's object has been found by this one.
bool QorReadTiers(const QorTierView &view, QorThreadTiers *tiers);

// True when the frame's method waits for a remote call.
bool QorWaitsForRemoteCall(const QorFrameNames &names);

// Looks for the thread's connection among those known, when no frame has led to it.
void QorUseKnownConnection(const char *threadName, const char *threadKey, QorThreadTiers *tiers);

// Whether this server's threads have context ids; and the id of what a java.lang.Thread works for: a String,
// or an array of characters; 0 for none.
bool QorHasContextIds();
uint64_t getContextId(uint64_t thread);
