// Services of the operating system that every platform has: guarded memory, shared libraries, call stacks.
#pragma once

#include <cstdint>

// Memory with an inaccessible page after it, so that a runaway write stops at once. Between the last byte
// and that page lies less than a page of slack. The block, or null; a guard that can't be set is reported
// only.
void *QorMalloc(int32_t size);

// Frees a block of QorMalloc; `size` must be what was asked for. A block whose guard can't be lifted is left
// allocated: the allocator must not get a page that faults.
void QorFree(void *address, int32_t size);

// Loads a shared library, or finds the loaded one: 0 with *handle set, or -1 with *handle null.
int32_t QorLoadLibrary(void **handle, const char *name);

// Address of a symbol, null when it is missing.
void *QorFindSymbol(void *handle, const char *name);

// Gives a library back. Always 0 on a Nimb JVM, where libraries stay.
int32_t QorCloseLibrary(void *handle);

// Logs the caller's stack, as notes. Allocates: not for signal handlers.
void QorBacktrace();
