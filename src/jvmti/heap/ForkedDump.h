// The text heap dump, written by a copy of the process: the JVM is paused for the fork alone.
//
// The file is the one that QorHeapDump writes. Everything that needs the JVM is taken before the fork, the
// records of the classes included; so the copy needs nobody to complete its file.
#pragma once

#include <cstdint>

// Begins a dump to `path`. The copy's process id, or a QorForkRefusal. The copy writes its last word to
// pipe[1]. QorForgetFork, when it has ended, settles what is left. Worker.
int32_t QorForkHeapDump(const char *path, const int32_t pipe[2]);
