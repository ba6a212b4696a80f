// Heap dumps that the JVM writes itself.
//
// The JVM is not asked yet: no dump is ever written, and gbLibraryDumpWritten stays 0 so that no reply claims
// one. Worker only.
#pragma once

#include <cstdint>

// 1 when the last call wrote its file.
extern int32_t gbLibraryDumpWritten;

// 0, or 1 when the JVM could not be asked. A 0 alone says nothing about the file.
int32_t QorHprofHeapDump(const char *path, int32_t keepAttached);
int32_t QorPHDHeapDump(const char *path);
