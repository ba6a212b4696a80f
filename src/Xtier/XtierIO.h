// File calls: the name of the file that a thread reads or writes.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// Fills the record from an entry's object: 0, or -1 for a null argument.
int32_t QorGetIOCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorIOCallData *record);

// What the kernel calls the file behind a descriptor of this process, fit for a record, into DB_URL_SIZE
// bytes. 0, or -1 with `out` empty.
int32_t QorGetFileNameFromFD(int32_t fd, char *out);
