// Reads a value out of an object graph by a path of map_steps.h, with further ends:
//
//   NAME,I                a number, as the last step; also Z and J
//   NAME,[LCLASS;@INDEX   one element of an array, by an int field of the same object
//   NAME,[B:FROM:TO       a range of a byte array, by two int fields of the same object
//   NAME,[B:FROM+LENGTH   the same
//
// Nothing runs Java code or a class's initialiser. Worker only.
#pragma once

#include "map_steps.h"

#include <cstdint>
#include <jni.h>
#include <string_view>

// Where a path has led: an object, a range of a byte array when `to` isn't 0, or a number.
struct QorPathEnd {
    jobject object; // null for a number and where the path ended early
    int32_t from, to;
    bool isText; // the object is declared a String
    bool isNumber;
    int64_t number;
    int32_t missingAt; // the step whose class has no such field, -1 for none

    bool IsThere() const { return object || isNumber; }
};

// The tables' paths say in the log where they end; those of rules are tried on any version of a product.
enum QorPathLog : bool { PATH_SILENT, PATH_LOGGED };

// Follows a path of at most OBJECT_MAP_SIZE bytes; the empty one ends at the object itself. The object found
// is a local reference of the caller's frame. The references in between are dropped, the start never.
QorPathEnd QorFollowPath(std::string_view path, jobject object, QorPathLog log);

// The same for a path that is writable and is cut up: the last object, or null (logged).
jobject ParseJVMTIObjectMap(char *map, jobject object); // nothing calls it

// The object at the end of a path of the tables.
jobject QorFollowObjectMap(const char *map, jobject object);

// Follows a path whose last step is a String and copies its text by the rules of ValueText.h. 0, or -1 with
// `dest` empty: no such string. `capacity` in bytes, terminator included, at least 1.
int32_t QorReadStringByMap(const char *map, jobject object, char *dest, int32_t capacity);
