#include "LibraryDump.h"

int32_t gbLibraryDumpWritten;

int32_t QorHprofHeapDump(const char *, int32_t) {
    gbLibraryDumpWritten = 0;
    return 0;
}

int32_t QorPHDHeapDump(const char *) {
    gbLibraryDumpWritten = 0;
    return 0;
}
