// Lines of a dump that say what holds an object: `S`, a letter, the object's address, and the way to it.
//
//     Sa1f40|worker-3|shop.Basket->add|thread_local|-2
//
// In the copy of the process that writes the dump; nothing here allocates, logs or takes a lock.
#pragma once

#include "platforms/dump_file.h"

#include <cstdint>

extern QorDumpFile logfile; // the dump that is being written; the worker opens it, the copy writes it

enum : int32_t { ROOT_OF_FRAME = -2 }; // a root's type where the stack says nothing of it
enum : char { FRAME_LETTER = 'a' };    // the letter of a thread's roots

// What is before a root's name, "" or text that ends in a bar. Written by the walk of the threads.
enum : int32_t { PREPEND_SIZE = 8192 };
extern char prepend_str[PREPEND_SIZE];

// Writes a root's line, unless `dump` is null or `oop` can't be an object's address. `type`: the number of
// the kind that the root's place is declared to hold.
void INLINE_DUMP_OOP_DETAILS(QorDumpFile *dump, uint64_t oop, int32_t type, char letter, const char *name);

// An object's address as lines of a dump have it, into at least 16 bytes: relative to the heap, in
// hexadecimal; "0" for what can't be one. Returns the end.
char *QorPutDumpAddress(char *p, uint64_t oop);

// The address that a dump's addresses are relative to: 8 below the lowest space. Set before the copy is made.
void QorSetRecordBase(uint64_t base);
uint64_t QorRecordBase();
