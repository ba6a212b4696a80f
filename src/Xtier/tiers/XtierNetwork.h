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

// Port and host of the peer of a socket of this process into the record; 0 and "" for anything else.
void QorExtractNetworkSocketData(int32_t fd, QorNetworkCallData *record);
