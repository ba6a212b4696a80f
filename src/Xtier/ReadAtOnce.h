// Readers of one frame, each by its own reference walk, for gbQorRELocal: what the readers of tiers/ do with
// the objects of a list of frames.
//
// Each returns 0, or -1 for a null argument. Worker only, on the session's environment.
#pragma once

#include "Xtier/tiers/CallRecords.h"
#include "jvmti/threads/ThreadSystem.h"

#include <cstdint>

int32_t QorGetDBRequestData(const QorThreadRecord *thread, const QorFrameRecord *frame,
                            QorDBRequestData *record);
int32_t QorGetJSPRequest(const QorThreadRecord *thread, const QorFrameRecord *frame,
                         QorJSPRequestData *record);

// No request reaches these two: a remote call but for the peer's address; and a text by a path from a frame's
// object, into REQUEST_TEXT_SIZE bytes.
int32_t QorGetRmiCallData(const QorThreadRecord *thread, const QorFrameRecord *frame, QorRmiCallData *record);
int32_t getQRFData(const QorThreadRecord *thread, const QorFrameRecord *frame, const char *map, char *dest);
