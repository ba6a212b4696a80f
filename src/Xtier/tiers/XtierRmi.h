// Remote calls: the peer of an RMI call and the name of what it calls.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// Fills the record from an entry's object: 0, or -1 for a null argument. Peer and name stand in different
// frames, so the entries of a thread add up.
int32_t QorGetRmiCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorRmiCallData *record);

// The same from a frame by a reference walk, but for the peer's address; for gbQorRELocal. Nothing calls it.
int32_t QorGetRmiCallData(const QorThreadRecord *thread, const QorFrameRecord *frame, QorRmiCallData *record);
