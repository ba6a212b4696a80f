// The text heap dump: the whole reference graph of the Java heap, written to a file as the JVM reports it.
//
// The dump is a stream: one header line, then a line or two for each reference that the walk meets, then the
// records of the loaded classes, then the trailer. Objects are known by numbers, which are given out as
// objects are met and live in the objects' tags. The tags are an environment's of their own and go with it.
// The JVM is paused for the walk. Memory that the JVM needs for the tags meanwhile: up to 72 bytes an
// object.
//
// Worker only, or the one thread of a forked child.
#pragma once

#include <cstdint>

// Writes the dump to `path`. 0, or -1 when the file can't be opened (see QorDumpOpen), when the JVM refuses
// the walk, when the machine hasn't the memory for it, or when the file could not be written to its end: it
// is then empty. A walk that fails half-way is logged, and the file is kept as far as it came, with its
// trailer.
int32_t QorHeapDump(const char *path);

// Bytes of the buffer between the walk and the file; at least 64. Tests make it small.
extern int32_t gbiDumpBufferSize;
