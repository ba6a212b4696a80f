// The answer of the Java side, spliced into the reply: each thread's text goes after its part.
#pragma once

#include <cstdint>

// The log threshold of what is logged about every request.
int32_t QorTracedAt();

// Merges `answer` (null and "" are logged) into `pagebuf`, by the end-to-end list. With `systemData` it
// begins with the system's section. The reply stays as it is unless the whole merge works. On the thread that
// has the reply.
void QorMergeAnswer(const char *answer, bool systemData);
