// What kind of thing an object of the JVM is, and whether the row of offsets fits the JVM at all.
//
// Each klass has a native virtual table, and the table's address is what tells kinds apart. Some tables have
// symbols; the others are taken at start from objects that Java hands over, and from a method that runs.
// Everything here is filled by the initialisation thread and read-only afterwards.
#pragma once

#include <cstdint>

// Kinds of VM objects: what an object of that kind has as its klass.
enum VmType : int32_t {
    TYPE_NONE = -1,
    TYPE_KLASS = 0,
    TYPE_SYMBOL = 1,
    TYPE_METHOD = 2,
    TYPE_CONST_METHOD = 3,
    TYPE_ARRAY = 4,
    TYPE_POOL = 5,
    TYPE_POOL_CACHE = 6,
    TYPE_TYPE_ARRAY = 7,
    TYPE_OBJ_ARRAY = 8,
    TYPE_INSTANCE = 9,
    TYPE_INSTANCE_REF = 10,
    TYPE_COMPILED_IC_HOLDER = 11,
    TYPE_KLASS_KLASS = 12, // a klass of the kinds above 11 describes klasses
    TYPE_INSTANCE_KLASS_KLASS = 13,
    TYPE_ARRAY_KLASS_KLASS = 14,
    TYPE_OBJ_ARRAY_KLASS_KLASS = 15,
    TYPE_TYPE_ARRAY_KLASS_KLASS = 16,
    TYPE_METHOD_DATA = 17,
};

enum : int32_t { OOP_TABLES = 20, CHECK_TYPES = 13 };

// The virtual table of a kind's klass, by VmType; 0 for none. Entry 0 is the bare symbol of Klass, which no
// object holds.
extern uint64_t oop_vtable[OOP_TABLES];

// A virtual function that identifies a kind: the entry at `slot` bytes in a klass's table is `expected`.
struct VfuncCheck {
    int32_t type;
    uint64_t table, expected;
    uint32_t slot;
};
extern VfuncCheck trueVfuncArray[CHECK_TYPES];

extern int32_t NUM_CHECK_TYPES; // rows of trueVfuncArray in use
extern int32_t NUM_BASIC_TYPES; // type ids below it are oops, in vm_types.h

extern uint64_t method;             // what obtain_method found last
extern uint64_t gbCallerJavaThread; // the JavaThread that called initvar, as a number: it may have ended
extern int32_t gbCallerKernelId;    // and its kernel id, as another's JavaThread may have taken its place

// Whether the row in force fits: the JavaThread that `env` lies in is in the JVM's list, and its kernel id is
// the caller's. 0, or -1 with the reason logged. Sets the two above.
int32_t QorCheckRow(uint64_t env, int32_t callerId);

// Fills the tables above from four handles, as addresses: an ordinary object, a reference object, an array of
// objects and one of ints. The spaces are laid out. 0, or 1 with the reason logged: then no table may be
// used.
int32_t heap_initialize(uint64_t instance, uint64_t instanceRef, uint64_t objectArray, uint64_t intArray);

// The method of the thread's last Java frame if that is an interpreted one, else 0 or any word. Reads the
// last fp and the word that an interpreted frame has its method in; also kept in `method`.
uint64_t obtain_method(uint64_t thread);

// The kind whose klasses have this virtual table, TYPE_NONE for no such kind.
VmType QorTypeOfTable(uint64_t table);

// The kind of an object that valid_oop has accepted, TYPE_NONE for one that changed since.
VmType QorTypeOf(uint64_t object);

// 1 when `object` can be an object of this kind: valid_oop, and its kind. Else 0.
int32_t QorIsOfType(uint64_t object, VmType type);
