// Values and texts that a short path of fields leads to.
//
//   path: step { "|" step }
//   step: field name [ "," JVM field signature ]; without it the field of that name, whatever its type
//
// Worker.
#pragma once

#include <cstdint>

enum : int32_t { TIER_NAME_CHARS = 1023 };

// The value of the last field, widened with its sign; an object's address, untested. 0 for a path that ends
// early, and for an empty one the object itself.
uint64_t QorTierValue(const char *path, uint64_t object);

// The text of the String that it leads to. False, with "" in `out`, for none, an empty one, or one of more
// than TIER_NAME_CHARS characters (logged).
bool QorTierText(const char *path, uint64_t object, char *out, int32_t size);

// The name of the class that a java.lang.Class object stands for, or the text of a String.
bool QorTierClassName(uint64_t object, char *out, int32_t size);

// "%d.%d.%d.%d" of an address as Java keeps it; "" for 0.
void QorTierHost(uint64_t address, char *out, int32_t size);
