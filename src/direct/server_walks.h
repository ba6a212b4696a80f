// Ways to an application server's port through the objects of a JVM read by address.
//
// Each returns the port, or 0 with the missing link logged. What objects are read is read once; whoever asks
// makes sure that no collection moved them meanwhile. Initialisation thread, which holds the GC lock and
// whose caller waits, so that the marker classes' references are alive.
#pragma once

#include <cstdint>

int32_t findFerrulePort();
int32_t findFerrule9Port();
int32_t findQVSPort();
int32_t findJServPort();

// Looks at the frames of all threads for one in a class of the server's that has the port.
int32_t QorScanForPort();
