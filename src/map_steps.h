// The path language by which a value is read out of an object graph, through the JVM's interfaces or by
// address.
//
//   map:  step { "|" step }            at most 50 steps
//   step: field name "," JVM field signature
//
// Any thread.
#pragma once

#include <cstdint>

enum : int32_t { OBJECT_MAP_STEPS = 50, OBJECT_MAP_SIZE = 4096 };

// Cuts a map into its steps, in place: their number, or -1 (logged) when there are too many.
int32_t QorSplitObjectMap(char *map, char *(&steps)[OBJECT_MAP_STEPS]);
