// The first line of a dump: what was dumped, where and when.
#pragma once

#include "platforms/dump_file.h"

enum : int32_t { HEADER_DATE_SIZE = 64 };

// 0, or -1 for a null file.
int32_t QorWriteHeapDumpHeader(QorDumpFile *file);

// Today's date as a Nimb JVM's header has it, into HEADER_DATE_SIZE bytes. 1, or 0 with a fixed date where
// the system's date text can't be used.
int32_t QorWriteHeapDumpHeaderDate(char *out);

// The same for a given text in the form of ctime, null for none.
int32_t QorFormatHeaderDate(const char *text, char *out);
