// Network calls: the peer of a socket. No frame is known to be one yet.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// Fills the record from an entry's object: 0, or -1 for a null argument.
int32_t QorGetNetworkCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                               QorNetworkCallData *record);
