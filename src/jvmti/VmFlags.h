// Flags of a HotSpot JVM, by the description of itself that it exports for debuggers.
#pragma once

// Whether the JVM has a flag of this name that is off; false for one that it doesn't have or when it can't be
// read. For flags of the kind that is on or off. Any thread.
bool QorVmFlagIsOff(const char *name);
