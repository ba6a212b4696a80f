// Fields of Java objects, found by name in the field tables of their classes.
//
// Objects and classes move, and what is read may be half of something else: a class or a field counts only if
// what it leads to is of the kind it has to be, and each loop has a bound. A field's place is that of one
// instant; take the collection count before, and compare it after the value has been read.
//
// Worker. Nothing here allocates.
#pragma once

#include <cstddef>
#include <cstdint>

// Where a field is, for objects of one class. Statics have a klass of their own: the one that declares them.
struct QorFieldPlace {
    uint64_t klass;
    int32_t offset, isStatic; // offset -1: empty
};

// One entry of a class's field table. The symbols are untested.
struct QorVmField {
    uint64_t klass; // that declares it
    uint64_t name, signature;
    int32_t offset; // from the object, of a static from the klass
    int32_t isStatic;
};

// Calls `visit` for each field that the klass itself declares, in the table's order, until it returns false.
// False when the klass isn't one of instances or its table can't be read.
bool QorVisitFields(uint64_t klass, bool (*visit)(const QorVmField &field, void *context), void *context);

// The klass above, 0 for none.
uint64_t QorSuperKlass(uint64_t klass);

enum : int32_t { MAX_SUPER_KLASSES = 64 }; // a longer chain is a torn one

// The address of a field by name and signature, 0 for none; `klass` 0 takes the object's own. Super classes
// are searched too. To search a klass's statics without an object, `object` is the klass itself.
uint64_t find_object_field(uint64_t object, uint64_t klass, const char *name, const char *signature);

// The same; a field that is found is noted in *location, which stays as it is when there is none.
uint64_t find_object_field_and_location(uint64_t object, uint64_t klass, const char *name,
                                        const char *signature, QorFieldPlace *location);

// A place that is kept from one object to the next of its class. Another class may be at a klass's address
// later: the symbol of its name is compared, and whoever keeps cells empties them ({}) when
// QorCollectionCount has changed. `klass` 0: empty.
struct QorFieldCell {
    uint64_t klass, className;
    int32_t offset;
};

// As find_object_field, by way of the cell where that is the object's class's. Statics aren't kept.
uint64_t get_object_field(uint64_t object, const char *name, const char *signature, QorFieldCell *cell);

// Bytes of a value by the first letter of its type's signature, 0 for a reference and for what isn't a type.
int32_t QorWidthOf(char signature);

// The value at a field's address, as wide as the signature's first letter says and widened with its sign; C
// and Z without. False when it can't be read.
bool QorReadField(uint64_t address, char signature, int64_t *value);

// Value of a field by name, 0 for one that isn't there or can't be read. Of an object reference it is the
// object's address, untested.
uint64_t QorFieldOf(uint64_t object, const char *name, const char *signature);

// The klass of an object that passes valid_oop, 0 for any other address.
uint64_t QorKlassOf(uint64_t object);

// Whether the object's class has this name, with slashes.
bool QorIsInstanceOf(uint64_t object, const char *className);
