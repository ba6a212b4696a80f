// Heap dumps that the JVM writes itself: Hprof by its management table, PHD by an extension of IBM's.
//
// The agent only names the file. No lock is held around the call; the JVM is paused for the dump. Hprof
// files hold live objects only, are their owner's alone, and never replace a file.
//
// A result of 0 says that nothing went wrong on the way to the JVM, not that there is a file: for that look
// at gbLibraryDumpWritten. Worker only.
#pragma once

#include <cstdint>

// 1 when the last call wrote its file.
extern int32_t gbLibraryDumpWritten;

// Attaches the calling thread, which may be attached already; one that wasn't is detached again unless
// `keepAttached`. 0, or 1 when the thread or the path could not be handed to the JVM.
int32_t QorHprofHeapDump(const char *path, int32_t keepAttached);

// Always 0.
int32_t QorPHDHeapDump(const char *path);
