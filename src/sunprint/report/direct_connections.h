// Which database a thread inside the driver talks to, read out of the driver's objects by address.
//
// The thread runs on and objects move meanwhile: what is found counts only if no collection has begun by the
// end. Worker, never while a thread is held: sockets are asked and lines are logged.
#pragma once

#include "Xtier/XtierInsert.h"
#include "reply/qortext.h"

#include <cstdint>

// What the object of a frame is.
enum QorDirectDriver {
    DRIVER_STATEMENT,
    DRIVER_CONNECTION,
    DRIVER_FERRULE_STATEMENT,
    DRIVER_FERRULE_CONNECTION
};

// Finds the connection of a driver's object, which may be any address, and makes the thread its owner. The
// native driver's descriptor is looked for when tessar_thick_driver is set. False when there is none, or when
// its socket is closed. The block's texts hold until the next call.
bool QorFindDirectConnection(QorDirectDriver driver, uint64_t object, const char *threadName,
                             const char *threadKey, QorDatabaseBlock *out);

// The connection that a thread was seen with before. False for none.
bool QorKnownConnectionOf(const char *threadName, const char *threadKey, QorDatabaseBlock *out);

// Appends "NAME|KEY" of the thread that used the connection of a local port last. False, with nothing
// appended, for a port that wasn't seen.
bool QorThreadOfClientPort(int32_t port, QorText *out);
