// Remote calls: the peer of an RMI call and the name of what it calls.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// Fills the record from an entry's object: 0, or -1 for a null argument.
int32_t QorGetRmiCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorRmiCallData *record);
