// Memory of this process that may not be there.
#pragma once

#include <cstddef>
#include <cstdint>

// Copies `size` bytes from an address that nothing vouches for. True when all of them could be read; never a
// fault, whatever the address is. Any thread.
bool QorReadOwnMemory(uint64_t address, void *out, size_t size);
