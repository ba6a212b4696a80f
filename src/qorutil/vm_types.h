// The JVM's own structures as data: what a walk from its roots to every object goes along.
//
// A structure is a chain of records, an array, or a chain of chunks; its members hold objects or lead to
// other structures. One walker serves them all. The tables are constant; where a member lies is resolved with
// the row of offsets and the symbols in force.
#pragma once

#include <array>
#include <cstdint>

// Type ids: those of VmType (vm_klass.h) are objects, these are structures.
enum VmStructure : int32_t {
    ANY_OBJECT = -1,
    TYPE_JAVATHREAD = 18,
    TYPE_VMTHREAD = 19,
    TYPE_JNIHANDLEBLOCK = 20,
    TYPE_JNIHANDLE_ARRAY = 21,
    TYPE_HANDLEAREA = 22,
    TYPE_HANDLEAREA_CHUNK = 23,
    TYPE_VMQUEUE = 24,
    TYPE_VMOPERATION_ARRAY = 25,
    TYPE_VMOPERATION = 26,
    TYPE_PRIVILEGEDELEMENT = 27,
    TYPE_MONITORCHUNK = 28,
    TYPE_BASICOBJECTLOCK_ARRAY = 29,
    TYPE_THREADPROFILER = 31,
    TYPE_PROFILERNODE_ARRAY = 32,
    TYPE_PROFILERNODE = 33,
    TYPE_OBJECTSYNC_BLOCK = 34,
    TYPE_OBJECTMONITOR_ARRAY = 35,
    TYPE_OBJECTMONITOR = 36,
    TYPE_VMSYMBOL_ARRAY = 37,
    TYPE_SYMBOLTABLEBUCKET_ARRAY = 38,
    TYPE_SYMBOLTABLEBUCKET = 39,
    TYPE_STRINGTABLEBUCKET_ARRAY = 40,
    TYPE_STRINGTABLEBUCKET = 41,
    TYPE_STRINGTABLEENTRY = 42,
    TYPE_UNIVERSE = 43,
    TYPE_SYSTEMDICTIONARY = 44,
    TYPE_SYSTEMDICTIONARY_KLASSES = 45,
    TYPE_SYSTEMDICTIONARY_MIRRORS = 46,
    TYPE_DICTIONARY = 47,
    TYPE_PLACEHOLDERTABLE = 48,
    TYPE_LOADERCONSTRAINTTABLE = 49,
    TYPE_DICTIONARYENTRY = 50,
    TYPE_PLACEHOLDERENTRY = 51,
    TYPE_LOADERCONSTRAINTENTRY = 52,
    TYPE_LOADERCONSTRAINTENTRY_LOADERS = 53,
    TYPE_PROTECTIONDOMAINENTRY = 56,
    TYPE_THREADGROUP = 58, // has no row: an object
    VM_TYPE_COUNT = 59,
};

enum VmTypeKind : int32_t {
    KIND_CHAIN = 0,         // member 0 leads to the next record, the others are walked
    KIND_ARRAY = 1,         // the count is the caller's
    KIND_COUNTED_ARRAY = 2, // the count is 32 bits at `aux1` of the member that leads here
    KIND_CHUNKS = 3, // member 0: next chunk, 1: its length; the last one ends at the leading member's aux
};

// Where something lies.
enum VmPlaceKind : int32_t {
    PLACE_NONE,
    PLACE_BYTES,  // `value` bytes into the structure
    PLACE_MEMBER, // offsets[value] units of 8 bytes into the structure
    PLACE_SYMBOL, // at symbol `value`, a DirectSlot
    PLACE_TABLE,  // the buckets of the table that symbol `value` points to
};
struct VmPlace {
    VmPlaceKind kind;
    int32_t value;
};

// A name's first character is a mark: "*" a pointer to the thing (arrays: elements are pointers), "#" an
// absolute place, "+" a link that closes a ring, "_" alone a member 0 without a link.
struct TypeMember {
    int32_t type; // VmType, VmStructure or ANY_OBJECT
    const char *name;
    VmPlace place = {};
    VmPlace aux1 = {}, aux2 = {}; // of kinds 2 and 3; where a member leads to kind 1, `value` elements
};

struct TypeInfo {
    const char *name; // null in an empty row, which is never walked
    VmTypeKind kind;
    const TypeMember *members;
    int32_t memberCount;
    int32_t stride; // bytes from element to element, of arrays
};

// By type id. The JVM's objects have no rows, nor has a thread group, which is an object too.
extern const std::array<TypeInfo, VM_TYPE_COUNT> typeInfoArray;

// The letter of a type in a dump's records.
extern const char type_char[VM_TYPE_COUNT + 1];

// The roots.
struct StartSymbol {
    int32_t slot; // DirectSlot; "*" before the name: the symbol holds a pointer to the thing
    int32_t type;
    const char *name;
    int32_t count; // elements of an array
};
enum : int32_t { START_SYMBOL_COUNT = 8 };
extern const StartSymbol startSymbols[START_SYMBOL_COUNT];

// Whether a member of this type holds an object, which is reported; else its row is walked.
bool QorIsObjectType(int32_t type);

// The address of a place in the structure at `object`. False when it has none: PLACE_NONE, a symbol that
// isn't there, a pointer that is 0 or can't be read. Worker, or a copy of the process.
bool QorResolvePlace(const VmPlace &place, uint64_t object, uint64_t *address);
