// The choice of the road, and what either road wants from the JVM before its first request. Initialisation
// thread.
#pragma once

#include <cstdint>

// Chooses the road and resolves the JVM for it; sets `init_status`. Body of the initialisation thread.
void *do_initialization(void *unused);

// Resolves the JVM by the text of vendor and version. 0, or word 0 of the missing symbols, or 1.
int32_t initvar(const char *vendor, const char *version);
