// The path language by which a value is read out of an object graph.
//
//   map:  step { "|" step }            at most 50 steps
//   step: field name "," JVM field signature
//
// Worker only.
#pragma once

#include <cstdint>
#include <jni.h>

enum : int32_t { OBJECT_MAP_STEPS = 50, OBJECT_MAP_SIZE = 4096 };

// Cuts a map into its steps, in place: their number, or -1 when there are too many. Any thread.
int32_t QorSplitObjectMap(char *map, char *(&steps)[OBJECT_MAP_STEPS]);

// Follows the path from the object. `map` is writable and is cut up. The last object as a local reference of
// the caller's frame, or null (logged). The references in between are dropped, the start never.
jobject ParseJVMTIObjectMap(char *map, jobject object);

// The same for a constant path.
jobject QorFollowObjectMap(const char *map, jobject object);

// Follows a path whose last step is a String and copies its text by the rules of ValueText.h. 0, or -1 with
// `dest` empty: no such string. `capacity` in bytes, terminator included, at least 1.
int32_t QorReadStringByMap(const char *map, jobject object, char *dest, int32_t capacity);
