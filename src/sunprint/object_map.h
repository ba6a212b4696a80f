// The path language of map_steps.h over addresses.
//
//   path: step { "|" step }                                    at most 50 steps, 4,095 bytes
//   step: field name "," JVM field signature [ "," condition ]
//
// After a step whose signature begins with "[" the next one is taken on each element until one leads on. Its
// condition, if any, is a class name with slashes, which the object that it leads to must have. Where that
// signature holds "Hash" the elements are chains of entries, and a condition of digits is the hash of the
// entry's key, a String; 0 is the first entry from whose "value" the step after leads on, which is then
// taken, too.
//
// The value 0 can't be told from a path that ends early. Worker, never while a thread is held: it logs.
#pragma once

#include <cstdint>

// Follows a path from an object, or from a handle's address. What the last step found: the value of a
// primitive, the address of an object (untested); or 0. The path isn't changed.
uint64_t ParseObjectMap(const char *path, uint64_t object);

// One step of it, without a condition.
uint64_t ParseObject(const char *step, uint64_t object);

// The value of a String key in a java.util.Hashtable, 0 for none (logged). A key of another class ends the
// search.
uint64_t search_hash_table(uint64_t table, const char *key);
