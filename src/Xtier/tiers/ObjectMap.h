// Reads a value out of an object graph by a path of MapSteps.h. Worker only.
#pragma once

#include "MapSteps.h"

#include <cstdint>
#include <jni.h>

// Follows the path from the object. `map` is writable and is cut up. The last object as a local reference of
// the caller's frame, or null (logged). The references in between are dropped, the start never.
jobject ParseJVMTIObjectMap(char *map, jobject object);

// The same for a constant path.
jobject QorFollowObjectMap(const char *map, jobject object);

// Follows a path whose last step is a String and copies its text by the rules of ValueText.h. 0, or -1 with
// `dest` empty: no such string. `capacity` in bytes, terminator included, at least 1.
int32_t QorReadStringByMap(const char *map, jobject object, char *dest, int32_t capacity);
