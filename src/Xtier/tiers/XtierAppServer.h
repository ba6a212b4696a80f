// Application server calls: the work that the server has given a thread.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// Fills the record from an entry's object: 0, or -1 for a null argument.
int32_t QorGetAppServerCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                                 QorAppServerCallData *record);
