// What a dump does before and after its walk, wherever the walk runs.
#pragma once

#include <cstdint>

// Opens `path` as the dump's file with its header, and prepares what the walk looks up: class numbers, names
// of methods. Needs gbDumpEnv and an open local frame, which is to hold all classes. 0, or -1 (logged) with
// nothing left to end.
int32_t QorBeginDump(const char *path);

// Writes the last line, with the seconds since the dump began.
void QorWriteDumpTrailer();

// Gives back what the walk looked up; the file is the caller's to close.
void QorEndDump();
