// Where the fields of a JVM of 1.5 are: one row of numbers for each build that the direct road reads.
//
// Nothing above this unit holds a position of the JVM's own; it asks `offsets` by a member's name. What is
// fixed in all listed builds, such as the head of an object, has a constant here.
#pragma once

#include <cstdint>

enum : int32_t { OFFSET_COUNT = 200, FIRST_DIRECT_BUILD = 6, LAST_DIRECT_BUILD = 10 };

// Members of a row. Bytes, unless the name ends in _WORDS (units of 8 bytes) or _ENTRY (place in a virtual
// table, units of 8 bytes). Without a name are values that nobody reads: 13 and 59 are a klass's tests for
// instances and object arrays, which builds 7 and 8 have one entry lower than their rows say.
enum VmOffset : int32_t {
    // JavaThread
    THREAD_OSTHREAD = 2,
    THREAD_OBJECT = 4, // the java.lang.Thread
    THREAD_LAST_SP = 5,
    THREAD_LAST_FP = 6,
    THREAD_NEXT = 8,
    THREAD_STATE = 12, // the VM's own, a QorVmState
    THREAD_LAST_PC = 23,
    THREAD_SAFEPOINT = 28,
    THREAD_ENV_WORDS = 74, // from the JavaThread to its JNIEnv
    // OSThread
    OSTHREAD_CONTEXT = 3, // saved signal context
    OSTHREAD_ID = 11,     // kernel id, 32 bits
    // Java call wrapper: the anchor it saved
    WRAPPER_SP = 7,
    WRAPPER_FP = 22,
    // Method and constMethod
    METHOD_FLAGS = 14,
    CONST_METHOD_NAME = 17, // index of the name, 16 bits; the signature's follows
    CONST_METHOD_CODE_SIZE = 24,
    CONST_METHOD_CODE = 25,
    // Klass part, which begins KLASS_PART after the klass
    KLASS_FIELDS = 9,
    KLASS_POOL = 10,
    KLASS_NAME = 18,
    KLASS_SOURCE = 31,
    KLASS_FIELD_STEP = 21,    // 16-bit values of one entry of the fields array
    KLASS_OOP_MAP_CACHE = 58, // 16 past the klass
    KLASS_LAYOUT_HELPER_WORDS = 75,
    KLASS_OOP_SIZE_ENTRY = 76,
    KLASS_ARRAY_HEADER_WORDS = 77,
    // Code heap and code blobs
    CODE_HEAP_MAP = 15,
    CODE_HEAP_SEGMENT_LOG2 = 19,
    BLOB_VIRTUAL_TABLE = 16,
    BLOB_PC_DESC_CACHE = 26,
    BLOB_SCOPES = 27,
    BLOB_LINK = 33,
    BLOB_OOP_MAPS = 57,
    BLOB_IS_NMETHOD = 35, // bytes in the virtual table, as the next three
    BLOB_IS_I2C_ADAPTER = 36,
    BLOB_IS_C2I_ADAPTER = 37,
    BLOB_IS_RUNTIME_STUB = 38,
    CODE_COPY_SIZE = 29, // the copy of compiled code that a thread runs at a safepoint
    CODE_COPY_ORIGIN = 30,
    // Below the frame pointer of an interpreted frame
    FRAME_LOCALS = 20,
    FRAME_MONITORS_TOP = 32,
    FRAME_BYTECODE = 34,
    // Heap
    SPACE_BOTTOM = 44,
    SPACE_END = 45,
    SPACE_TOP = 46,
    HEAP_YOUNG_GEN = 47,
    HEAP_OLD_GEN = 48,
    HEAP_PERM_GEN = 49,
    PERM_GEN = 50, // from what the heap holds to the generation itself
    YOUNG_EDEN = 51,
    YOUNG_FROM = 52,
    YOUNG_TO = 53,
    PERM_SPACE = 54,
    OLD_SPACE = 55,
    GENERATION_STATISTICS = 56, // invocation count, then accumulated time
    // Heap of the concurrent collector
    HEAP_CMS_GEN = 122,
    CMS_SPACE = 124,
    CMS_DICTIONARY = 125,
    CMS_DICTIONARY_SIZE = 126,
    CMS_LINEAR_SIZE = 127,
    // Heap of the parallel collector
    PS_YOUNG_EDEN = 182,
    PS_YOUNG_FROM = 183,
    PS_OLD_SPACE = 185,
    PS_PERM_SPACE = 186,
    PS_SPACE_BOTTOM = 187,
    PS_SPACE_END = 188,
    PS_SPACE_TOP = 189,
    // Type tests: places in a klass's virtual table
    IS_SYMBOL_ENTRY = 67,
    IS_KLASS_ENTRY = 68,
    IS_METHOD_ENTRY = 69,
    IS_POOL_ENTRY = 70,
    IS_POOL_CACHE_ENTRY = 71,
    IS_COMPILED_IC_HOLDER_ENTRY = 73,
    IS_CONST_METHOD_ENTRY = 171,
    IS_TYPE_ARRAY_KLASS_ENTRY = 190,
    IS_ARRAY_KLASS_ENTRY = 191,
    IS_OBJ_ARRAY_KLASS_ENTRY = 192,
    IS_METHOD_DATA_ENTRY = 193,
    IS_INSTANCE_KLASS_ENTRY = 194,
    // Rows of members that hold oops: first and last, units of 8 bytes. Those of the VM's other structures,
    // 78 to 117 and 155 to 166, are named in vm_types.cpp.
    KLASS_OOPS_FIRST = 131,
    KLASS_OOPS_LAST = 137,
    INSTANCE_KLASS_OOPS_FIRST = 138,
    INSTANCE_KLASS_OOPS_LAST = 149,
    POOL_OOPS_FIRST = 152,
    POOL_OOPS_LAST = 154,
    INSTANCE_KLASS_MORE_OOPS_FIRST = 173,
    INSTANCE_KLASS_MORE_OOPS_LAST = 181,
};

// The same in all listed builds, bytes.
enum : uint64_t {
    OBJECT_KLASS = 8,
    KLASS_PART = 16,    // also where a klass has its virtual table's address
    SYMBOL_LENGTH = 16, // 16 bits
    SYMBOL_BYTES = 18,
    METHOD_CONST = 16,
    METHOD_POOL = 24,
    POOL_HOLDER = 40,
    POOL_LENGTH = 48, // 32 bits
    POOL_ENTRIES = 56,
    ARRAY_LENGTH = 16, // 32 bits
    ARRAY_ELEMENTS = 24,
    STRING_VALUE = 16,
    STRING_OFFSET = 24,      // 32 bits
    STRING_COUNT = 28,       // 32 bits
    THREAD_NAME = 16,        // char[] of a java.lang.Thread
    OSTHREAD_STATE = 16,     // 32 bits, a row of the states in qorutil.h
    HEAP_COLLECTING = 32,    // 32 bits of the collected heap: not 0 while a collection runs
    HEAP_COLLECTIONS = 36,   // 32 bits: how many have begun
    VIRTUAL_TABLE_HEAD = 16, // from a table's symbol to what objects hold
};

// Values of THREAD_STATE that matter.
enum QorVmState : int32_t {
    VM_STATE_NATIVE = 4,
    VM_STATE_NATIVE_LEAVING = 5,
    VM_STATE_JAVA = 8,
    VM_STATE_BLOCKED = 10,
    VM_STATE_BLOCKED_LEAVING = 11,
};

// What a thread does, as the direct road says it: an index of `tempstates` (qorutil.h).
enum QorDirectState : int32_t {
    DIRECT_DB_WAIT,
    DIRECT_ALLOCATED,
    DIRECT_INITIALIZED,
    DIRECT_RUNNABLE,
    DIRECT_SUSPENDED,
    DIRECT_LOCK,
    DIRECT_CONDVAR_WAIT,
    DIRECT_OBJECT_WAIT,
    DIRECT_BREAKPOINT,
    DIRECT_SLEEPING,
    DIRECT_ZOMBIE,
    DIRECT_UNKNOWN,
    DIRECT_NETWORK_WAIT,
    DIRECT_IO_WAIT,
    DIRECT_RMI_WAIT,
};

enum : int32_t {
    OS_STATES = 9,     // the last state of an OSThread
    NO_OS_THREAD = 10, // in place of the state, for a thread without one
};

// The state of a thread by its OSThread's, which is taken as OS_STATES when it is above. Any thread.
QorDirectState QorStateOf(int32_t osState);

// The row in force, OFFSET_COUNT values; null before a start has selected one. Read-only. Written by the
// initialisation thread.
extern const uint32_t *offsets;

// Points `offsets` at the row of a build. False, with `offsets` null, for any other build.
bool QorSelectOffsets(int32_t build);
