// Heap dump requests that the JVM's own dump code answers.
#pragma once

#include <cstdint>

// Answers the request in `buf` if it asks for such a dump: true, with the reply in `pagebuf` and the request
// still in progress. A reply names a file only when that file was written. Worker.
bool QorAnswerLibraryDump();
