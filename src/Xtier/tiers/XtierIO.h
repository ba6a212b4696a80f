// File calls: the name of the file that a thread reads or writes.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// Fills the record from an entry's object: 0, or -1 for a null argument.
int32_t QorGetIOCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorIOCallData *record);
