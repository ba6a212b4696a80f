// Memory of this process that may not be there.
#pragma once

#include <cstddef>
#include <cstdint>

// Copies `size` bytes from an address that nothing vouches for. True when all of them could be read; never a
// fault, whatever the address is. Any thread.
bool QorReadOwnMemory(uint64_t address, void *out, size_t size);

// In a copy of the process, before it can't open anything any more: opens anew what the read above falls back
// on. The descriptor to keep, -1 when it can't be opened.
int32_t QorKeepOwnMemory();
