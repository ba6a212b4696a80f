// Lines of a dump that say what an object refers to. They follow the object's own line:
//
//     I1f58|2b0     a field of an instance: where it is, and the object in it
//     L3a0|1f40     a word of a class or of a constant pool, statics of a class included
//
// Addresses are those of QorPutDumpAddress. What can't be an object has no line.
//
// In the copy of the process that writes the dump, where no class moves: what is known of a class's fields is
// kept. Nothing here allocates, logs or takes a lock.
#pragma once

#include "platforms/dump_file.h"

#include <cstdint>

// The reference fields of an instance.
void printInstance(uint64_t object, QorDumpFile *dump);

// The words that klasses of every kind have, those of instances' klasses alone with their statics, and the
// words and entries of a constant pool.
void printKlassKlass(uint64_t klass, QorDumpFile *dump);
void printInstanceKlassKlass(uint64_t klass, QorDumpFile *dump);
void printConstantPoolKlass(uint64_t pool, QorDumpFile *dump);
