#include "fields.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t FLAG_STATIC = 0x8;
constexpr uint64_t SUPER = 13 * VM_WORD_SIZE; // from the Klass part
constexpr int32_t MAX_FIELDS = 65535;         // of one class, by the class file's format

// The values of an entry that are read, from its first on; its step may be longer.
enum EntryValue { ENTRY_FLAGS, ENTRY_NAME, ENTRY_SIGNATURE, ENTRY_INITIAL, ENTRY_OFFSET, ENTRY_VALUES };

// A class's field table, and the pool that its names are in.
struct FieldTable {
    uint64_t entries, pool;
    int32_t values, step; // 16-bit values in all, and of one entry
    int32_t poolLength;
};

bool HasInstances(uint64_t klass) {
    const VmType type = valid_klass(klass) ? QorTypeOfTable(QorWordAt(klass + KLASS_PART)) : TYPE_NONE;
    return type == TYPE_INSTANCE || type == TYPE_INSTANCE_REF;
}

bool OpenTable(uint64_t klass, FieldTable *table) {
    if (!HasInstances(klass))
        return false;
    const uint64_t fields = QorWordAt(klass + KLASS_PART + offsets[KLASS_FIELDS]);
    table->pool = QorWordAt(klass + KLASS_PART + offsets[KLASS_POOL]);
    if (!QorIsOfType(fields, TYPE_TYPE_ARRAY) || !QorIsOfType(table->pool, TYPE_POOL))
        return false;
    table->step = static_cast<int32_t>(offsets[KLASS_FIELD_STEP]);
    table->entries = fields + ARRAY_ELEMENTS;
    table->values = std::min(QorInt32At(fields + ARRAY_LENGTH), MAX_FIELDS * table->step);
    table->poolLength = QorInt32At(table->pool + POOL_LENGTH);
    return table->step >= ENTRY_VALUES;
}

uint64_t PoolEntry(const FieldTable &table, uint16_t index) {
    return index < table.poolLength ? QorWordAt(table.pool + POOL_ENTRIES + index * VM_WORD_SIZE) : 0;
}

// What a search by name goes on.
struct Wanted {
    const char *name, *signature;
    QorVmField found;
    bool isFound;
};

bool IsWanted(const QorVmField &field, void *context) {
    auto *wanted = static_cast<Wanted *>(context);
    wanted->isFound =
        QorSymbolIs(field.name, wanted->name) && QorSymbolIs(field.signature, wanted->signature);
    if (wanted->isFound)
        wanted->found = field;
    return !wanted->isFound;
}

uint64_t ClassNameSymbol(uint64_t klass) {
    return QorWordAt(klass + KLASS_PART + offsets[KLASS_NAME]);
}

template <typename T>
bool ReadAs(uint64_t address, int64_t *value) {
    T narrow;
    if (!QorPeekValue(address, &narrow))
        return false;
    *value = static_cast<int64_t>(narrow);
    return true;
}

} // namespace

bool QorVisitFields(uint64_t klass, bool (*visit)(const QorVmField &field, void *context), void *context) {
    FieldTable table;
    if (!OpenTable(klass, &table))
        return false;
    for (int32_t i = 0; i + table.step <= table.values; i += table.step) {
        uint16_t entry[ENTRY_VALUES];
        if (!QorPeek(table.entries + static_cast<uint64_t>(i) * sizeof entry[0], entry, sizeof entry))
            return false;
        const QorVmField field = {klass, PoolEntry(table, entry[ENTRY_NAME]),
                                  PoolEntry(table, entry[ENTRY_SIGNATURE]), entry[ENTRY_OFFSET],
                                  (entry[ENTRY_FLAGS] & FLAG_STATIC) != 0};
        if (!visit(field, context))
            return true;
    }
    return true;
}

uint64_t QorSuperKlass(uint64_t klass) {
    const uint64_t super = QorWordAt(klass + KLASS_PART + SUPER);
    return valid_klass(super) ? super : 0;
}

uint64_t find_object_field_and_location(uint64_t object, uint64_t klass, const char *name,
                                        const char *signature, QorFieldPlace *location) {
    if (!valid_oop(object))
        return 0;
    const uint64_t first = klass ? klass : QorWordAt(object + OBJECT_KLASS);
    Wanted wanted = {name, signature, {}, false};
    int32_t supers = 0;
    for (uint64_t at = first; at && supers < MAX_SUPER_KLASSES; at = QorSuperKlass(at), supers++) {
        QorVisitFields(at, IsWanted, &wanted);
        if (!wanted.isFound)
            continue;
        const QorVmField &field = wanted.found;
        *location = {field.isStatic ? field.klass : first, field.offset, field.isStatic};
        return (field.isStatic ? field.klass : object) + static_cast<uint64_t>(field.offset);
    }
    return 0;
}

uint64_t find_object_field(uint64_t object, uint64_t klass, const char *name, const char *signature) {
    QorFieldPlace place;
    return find_object_field_and_location(object, klass, name, signature, &place);
}

uint64_t get_object_field(uint64_t object, const char *name, const char *signature, QorFieldCell *cell) {
    const uint64_t klass = QorKlassOf(object);
    if (klass == 0)
        return 0;
    const uint64_t className = ClassNameSymbol(klass);
    if (cell->klass == klass && cell->className == className)
        return object + static_cast<uint64_t>(cell->offset);
    QorFieldPlace place;
    const uint64_t address = find_object_field_and_location(object, klass, name, signature, &place);
    if (address && !place.isStatic)
        *cell = {klass, className, place.offset};
    return address;
}

int32_t QorWidthOf(char signature) {
    constexpr char BY_WIDTH[] = "ZBCSIFJD"; // 1, 1, 2, 2 and so on
    const char *const found = signature ? strchr(BY_WIDTH, signature) : nullptr;
    return found ? 1 << (found - BY_WIDTH) / 2 : 0;
}

bool QorReadField(uint64_t address, char signature, int64_t *value) {
    switch (signature) {
    case 'Z':
        return ReadAs<uint8_t>(address, value);
    case 'B': {
        uint8_t byte = 0;
        if (!QorPeekValue(address, &byte))
            return false;
        *value = byte < 0x80 ? byte : byte - 0x100;
        return true;
    }
    case 'C':
        return ReadAs<uint16_t>(address, value);
    case 'S':
        return ReadAs<int16_t>(address, value);
    case 'I':
    case 'F':
        return ReadAs<int32_t>(address, value);
    default:
        return ReadAs<int64_t>(address, value);
    }
}

uint64_t QorFieldOf(uint64_t object, const char *name, const char *signature) {
    const uint64_t address = find_object_field(object, 0, name, signature);
    int64_t value = 0;
    return address && QorReadField(address, signature[0], &value) ? static_cast<uint64_t>(value) : 0;
}

uint64_t QorKlassOf(uint64_t object) {
    return valid_oop(object) ? QorWordAt(object + OBJECT_KLASS) : 0;
}

bool QorIsInstanceOf(uint64_t object, const char *className) {
    const uint64_t klass = QorKlassOf(object);
    return klass && QorSymbolIs(ClassNameSymbol(klass), className);
}
