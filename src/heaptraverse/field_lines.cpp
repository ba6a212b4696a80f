#include "field_lines.h"

#include "heap_scan.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "sunprint/fields.h"
#include "sunprint/root_lines.h"

namespace {

constexpr int32_t KNOWN_CLASSES = 1024, KNOWN_FIELDS = 64;
constexpr int32_t MAX_POOL_ENTRIES = 65535;
constexpr char OF_INSTANCE = 'I', OF_CLASS = 'L';

// Where the reference fields of a class's instances are, super classes' included. Direct mapped.
struct KnownClass {
    uint64_t klass; // 0: empty
    int32_t count;  // more than KNOWN_FIELDS: the table is read again for each instance
    uint16_t offset[KNOWN_FIELDS];
};
KnownClass known[KNOWN_CLASSES];

void WriteLine(QorDumpFile *dump, char letter, uint64_t place) {
    const uint64_t value = QorWordAt(place);
    if (!valid_oop(value))
        return;
    char *p = QorPutChar(QorDumpReserve(dump, DUMP_LEAST_BUFFER), letter);
    p = QorPutChar(QorPutHex(p, place - QorRecordBase()), '|');
    QorDumpCommit(dump, QorPutChar(QorPutHex(p, value - QorRecordBase()), '\n'));
}

bool IsReference(const QorVmField &field) {
    uint8_t letter = 0;
    return QorPeekValue(field.signature + SYMBOL_BYTES, &letter) && (letter == 'L' || letter == '[');
}

bool NoteField(const QorVmField &field, void *context) {
    auto *of = static_cast<KnownClass *>(context);
    if (field.isStatic || !IsReference(field))
        return true;
    if (of->count < KNOWN_FIELDS)
        of->offset[of->count] = static_cast<uint16_t>(field.offset);
    of->count++;
    return true;
}

struct Target {
    QorDumpFile *dump;
    uint64_t object;
};

bool WriteField(const QorVmField &field, void *context) {
    const auto *to = static_cast<const Target *>(context);
    if (!field.isStatic && IsReference(field))
        WriteLine(to->dump, OF_INSTANCE, to->object + static_cast<uint64_t>(field.offset));
    return true;
}

bool WriteStatic(const QorVmField &field, void *context) {
    const auto *to = static_cast<const Target *>(context);
    if (field.isStatic && IsReference(field))
        WriteLine(to->dump, OF_CLASS, field.klass + static_cast<uint64_t>(field.offset));
    return true;
}

// The fields of a class and of those above it.
void VisitAll(uint64_t klass, bool (*visit)(const QorVmField &field, void *context), void *context) {
    for (int32_t i = 0; klass && i < MAX_SUPER_KLASSES; i++, klass = QorSuperKlass(klass))
        QorVisitFields(klass, visit, context);
}

const KnownClass &KnownOf(uint64_t klass) {
    KnownClass &place = known[klass / VM_WORD_SIZE % KNOWN_CLASSES];
    if (place.klass != klass) {
        place.klass = klass;
        place.count = 0;
        VisitAll(klass, NoteField, &place);
    }
    return place;
}

// The members of a row of offsets, which are in words from `base`; 0 is none.
void WriteMembers(QorDumpFile *dump, uint64_t base, VmOffset first, VmOffset last) {
    for (int32_t i = first; i <= last; i++)
        if (offsets[i] != 0)
            WriteLine(dump, OF_CLASS, base + offsets[i] * VM_WORD_SIZE);
}

} // namespace

void printInstance(uint64_t object, QorDumpFile *dump) {
    const uint64_t klass = QorWordAt(object + OBJECT_KLASS);
    const KnownClass &fields = KnownOf(klass);
    if (fields.count > KNOWN_FIELDS) {
        Target to = {dump, object};
        VisitAll(klass, WriteField, &to);
        return;
    }
    for (int32_t i = 0; i < fields.count; i++)
        WriteLine(dump, OF_INSTANCE, object + fields.offset[i]);
}

void printKlassKlass(uint64_t klass, QorDumpFile *dump) {
    WriteMembers(dump, klass + KLASS_PART, KLASS_OOPS_FIRST, KLASS_OOPS_LAST);
}

void printInstanceKlassKlass(uint64_t klass, QorDumpFile *dump) {
    WriteMembers(dump, klass + KLASS_PART, INSTANCE_KLASS_OOPS_FIRST, INSTANCE_KLASS_OOPS_LAST);
    WriteMembers(dump, klass + KLASS_PART, INSTANCE_KLASS_MORE_OOPS_FIRST, INSTANCE_KLASS_MORE_OOPS_LAST);
    Target to = {dump, klass};
    QorVisitFields(klass, WriteStatic, &to);
}

void printConstantPoolKlass(uint64_t pool, QorDumpFile *dump) {
    WriteMembers(dump, pool, POOL_OOPS_FIRST, POOL_OOPS_LAST);
    const int32_t length = QorInt32At(pool + POOL_LENGTH);
    for (int32_t i = 0; i < length && i < MAX_POOL_ENTRIES; i++)
        WriteLine(dump, OF_CLASS, pool + POOL_ENTRIES + static_cast<uint64_t>(i) * VM_WORD_SIZE);
}
