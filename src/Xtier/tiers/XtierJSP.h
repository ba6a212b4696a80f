// Web requests: which URL a thread serves, read from the request class of its container.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// Fills the record's URL from an entry's object: 0, or -1 for a null argument (logged).
int32_t QorGetJSPRequestDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                              QorJSPRequestData *record);
