// Symbols of the JVM library, found in its file and placed by its mapping.
//
// The JVM's library exports few of the addresses that the agent wants, so they are taken from the symbol
// tables of the file that the process has mapped. The tables lie in no loaded segment, which is why it is the
// file that is read. The lookup reads the process's own mappings, not through a child process: a host may
// forbid those, and waits for its own.
//
// All of it runs once in a start, on the initialisation thread. The results are read-only afterwards. A
// library that isn't there or isn't sound is told of on stderr, whatever the log level; its symbols count as
// missing.
#pragma once

#include "release.h"

#include <cstdint>

enum : int32_t { SYMBOL_SLOTS = 73 };

// Slots of the list of the JVMTI road, jtisym.
enum JtiSlot : int32_t { JTI_COLLECTED_HEAP = 1, JTI_ALWAYS_CAPABILITIES = 2, JTI_OLD_ACTIONS = 3 };

// Addresses by slot of the build's list, 0 for one that wasn't found. Slot 0 stands for the library and is
// always 0.
extern uint64_t nsymbols[SYMBOL_SLOTS];

// 1 for a server VM, 0 for a client VM or an unknown one.
extern int32_t jat_server_jvm;

// Selects the build for `key` into `offsetind`, fills `nsymbols`, and tells in `words` (zeroed by the caller)
// which symbols were not found: the bit of slot plus 2 for each, counted over the words, or SYMBOLS_NO_LIST
// in word 0. `pid` is this process's.
void findsymbols(int32_t pid, const char *key, uint32_t words[SYMBOL_WORDS]);

// Finds the first mapping of `library` that begins as an ELF file: its class, 32 or 64, and its address in
// *base. With the file's full path in the map, *file is a descriptor to read it, which the caller closes;
// else -1. The result is -1 when there is no such mapping.
int32_t findelfhdr(int32_t pid, uint64_t *base, const char *library, int32_t *file);

// Opens `library` in the first directory of LD_LIBRARY_PATH that has it: a descriptor, or -1.
int32_t findlib(const char *library);

// Fills the open slots of a symbol list from an ELF file. Returns how many it filled; what is wrong with the
// file is told on stderr. `slots` has SYMBOL_SLOTS entries, and the file is the one mapped at `base`.
int32_t QorResolveSymbols(int32_t fd, const char *list, uint64_t base, uint64_t *slots);
