// Symbols of the JVM library, found in its file and placed by its mapping.
//
// The JVM's library exports few of the addresses that the agent wants, so they are taken from the symbol
// tables of the file that the process has mapped. The tables lie in no loaded segment, which is why it is the
// file that is read. The lookup reads the process's own mappings, not through a child process: a host may
// forbid those, and waits for its own.
//
// All of it runs once in a start, on the initialisation thread. The results are read-only afterwards. A
// library that isn't there or isn't sound is reported on stderr, whatever the log level; its symbols count as
// missing.
#pragma once

#include "release.h"

#include <cstdint>

enum : int32_t { SYMBOL_SLOTS = 73 };

// Slots of the list of the JVMTI road, jtisym.
enum JtiSlot : int32_t { JTI_COLLECTED_HEAP = 1, JTI_ALWAYS_CAPABILITIES = 2, JTI_OLD_ACTIONS = 3 };

// Slots of the list of the direct road, sunsymGCC3: those that its readers use.
enum DirectSlot : int32_t {
    SYM_THREAD_LIST = 1,      // Threads::_thread_list
    SYM_CALL_STUB_RETURN = 2, // StubRoutines::_call_stub_return_address
    SYM_INTERPRETER_CODE = 5, // AbstractInterpreter::_code
    SYM_CODE_HEAP = 6,        // CodeCache::_heap
    SYM_GC_LOCK_COUNT = 12,   // GC_locker::_lock_count
    SYM_RUNTIME1_BLOBS = 16,  // Runtime1::_blobs; client VM
    SYM_STACK0 = 18,          // SharedInfo::stack0; server VM
    SYM_COLLECTED_HEAP = 20,  // Universe::_collectedHeap
    SYM_VM_THREAD = 22,
    SYM_VM_QUEUE = 23,
    SYM_MONITOR_BLOCKS = 25,   // ObjectSynchronizer::gBlockList
    SYM_UNIVERSE_KLASSES = 26, // Universe::_boolArrayKlassObj, the first of a row of oops
    SYM_SYSTEM_KLASSES = 27,   // SystemDictionary::_object_klass, likewise
    SYM_MIRRORS = 28,          // SystemDictionary::_int_mirror, likewise
    SYM_SYSTEM_LOADER = 29,
    SYM_THREAD_PROFILER = 32,
    SYM_VM_SYMBOLS = 33,
    SYM_GLOBAL_HANDLES = 34,
    SYM_INDEXED_FREE_SIZE = 40, // CompactibleFreeListSpace::totalSizeInIndexedFreeLists
    // Virtual tables: the symbol is the table's head, objects hold the address 16 bytes on.
    SYM_VT_KLASS = 41,
    SYM_VT_ARRAY_KLASS = 42,
    SYM_VT_COMPILED_IC_HOLDER_KLASS = 43,
    SYM_VT_KLASS_KLASS = 44,
    SYM_VT_ARRAY_KLASS_KLASS = 45,
    SYM_VT_OBJ_ARRAY_KLASS_KLASS = 46,
    SYM_VT_TYPE_ARRAY_KLASS_KLASS = 47,
    SYM_VT_INSTANCE_KLASS_KLASS = 48,
    SYM_VT_METHOD_DATA_KLASS = 49,
    SYM_VT_POOL_CACHE_KLASS = 50,
    SYM_DICTIONARY = 51,
    SYM_PLACEHOLDERS = 52,
    SYM_LOADER_CONSTRAINTS = 53,
    SYM_MAX_PERM_SIZE = 55,
    SYM_MAX_HEAP_SIZE = 56,
    SYM_CLASS_LOAD_TIME = 57, // performance counters, as pointers
    SYM_COMPILE_TIME = 58,
    SYM_USE_PARALLEL_GC = 59, // flags, one byte each
    SYM_USE_CMS = 60,
    SYM_PS_YOUNG_GEN = 61, // ParallelScavengeHeap
    SYM_PS_OLD_GEN = 62,
    SYM_PS_PERM_GEN = 63,
    SYM_PS_OLD_COUNT = 64,
    SYM_PS_OLD_TIME = 65,
    SYM_PS_YOUNG_TIME = 66,
    SYM_NEW_RATIO = 67,
    SYM_SURVIVOR_RATIO = 68,
    SYM_MAX_NEW_SIZE = 69,
};

// Addresses by slot of the build's list, 0 for one that wasn't found. Slot 0 stands for the library and is
// always 0.
extern uint64_t nsymbols[SYMBOL_SLOTS];

// 1 for a server VM, 0 for a client VM or an unknown one.
extern int32_t jat_server_jvm;

// Selects the build for `key` into `offsetind`, fills `nsymbols`, and reports in `words` (zeroed by the
// caller) which symbols were not found: the bit of slot plus 2 for each, counted over the words, or
// SYMBOLS_NO_LIST in word 0. `pid` is this process's.
void findsymbols(int32_t pid, const char *key, uint32_t words[SYMBOL_WORDS]);

// Finds the first mapping of `library` that begins as an ELF file: its class, 32 or 64, and its address in
// *base. With the file's full path in the map, *file is a descriptor to read it, which the caller closes;
// else -1. The result is -1 when there is no such mapping.
int32_t findelfhdr(int32_t pid, uint64_t *base, const char *library, int32_t *file);

// The file of a library that is mapped: a descriptor to read it and the mapping's address in *base. -1 when
// there is none, which is reported.
int32_t QorOpenMappedLibrary(int32_t pid, const char *library, uint64_t *base);

// Opens `library` in the first directory of LD_LIBRARY_PATH that has it: a descriptor, or -1.
int32_t findlib(const char *library);

// Fills the open slots of a symbol list from an ELF file. Returns how many it filled; what is wrong with the
// file is reported on stderr. `slots` has SYMBOL_SLOTS entries, and the file is the one mapped at `base`.
int32_t QorResolveSymbols(int32_t fd, const char *list, uint64_t base, uint64_t *slots);
