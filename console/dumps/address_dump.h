// A heap dump of a JVM that is read by address: its roots, then every object with its size and what it refers
// to, space by space.
//
// Lines begin with "S" and a letter for a root; with a space's and a type's letter for an object; with "I",
// "L" or "R" for a reference of the object above. Addresses are relative to the heap. A class is known by the
// address of its name, which is an object of the dump as well.
#pragma once

#include "dump_lines.h"

namespace qorctl {

// Reads on after the header, of which `summary` has the figures. Throws a Failure for lines of another form.
DumpSummary ReadAddressDump(LineReader *lines, size_t largest_arrays, DumpSummary summary);

} // namespace qorctl
