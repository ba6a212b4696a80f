#include "scan_records.h"

#include "field_lines.h"
#include "sunprint/root_lines.h"

#include "platforms/forked_child.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_types.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace {

constexpr uint64_t NAME_PIECE = 256, ELEMENTS_PIECE = 512;
constexpr char FIRST_SHOWN = ' ', LAST_SHOWN = 126;

struct Writer {
    QorDumpFile *dump;
    int32_t flags;
    char letter;
    uint64_t limit; // of the space
};

uint64_t NameOf(uint64_t klass) {
    return QorWordAt(klass + KLASS_PART + offsets[KLASS_NAME]);
}

char *PutField(char *p, uint64_t value) {
    return QorPutHex(QorPutChar(p, '|'), value);
}

char *PutAddress(char *p, uint64_t oop) {
    return QorPutDumpAddress(QorPutChar(p, '|'), oop);
}

// Space, type, address and size.
char *PutHead(const Writer &writer, const QorHeapObject &object) {
    char *p = QorPutChar(QorDumpReserve(writer.dump, DUMP_LEAST_BUFFER), writer.letter);
    if (object.type == TYPE_ARRAY) {
        p = QorPutHex(QorPutChar(p, '['), static_cast<uint32_t>(object.length));
        p = PutField(p, object.address - QorRecordBase());
    } else {
        p = QorPutHex(QorPutChar(p, type_char[object.type]), object.address - QorRecordBase());
    }
    return PutField(p, object.size);
}

void EndLine(const Writer &writer, char *p) {
    QorDumpCommit(writer.dump, QorPutChar(p, '\n'));
}

// The text of a symbol up to a line end, only what can be shown.
void WriteText(const Writer &writer, uint64_t symbol) {
    char piece[NAME_PIECE];
    const uint64_t length = QorUint16At(symbol + SYMBOL_LENGTH);
    for (uint64_t done = 0; done < length;) {
        const uint64_t size = std::min<uint64_t>(sizeof piece, length - done);
        if (!QorPeek(symbol + SYMBOL_BYTES + done, piece, size))
            return;
        const char *end = std::find(piece, piece + size, '\n');
        char *shown = std::remove_if(piece, piece + (end - piece),
                                     [](char c) { return c < FIRST_SHOWN || c > LAST_SHOWN; });
        QorDumpText(writer.dump, piece, shown - piece);
        if (end != piece + size)
            return;
        done += size;
    }
}

void WriteSymbol(const Writer &writer, const QorHeapObject &object) {
    QorDumpCommit(writer.dump, QorPutChar(PutHead(writer, object), '|'));
    WriteText(writer, object.address);
    EndLine(writer, QorDumpReserve(writer.dump, DUMP_LEAST_BUFFER));
}

void WriteMethod(const Writer &writer, const QorHeapObject &object) {
    const uint64_t constMethod = QorWordAt(object.address + METHOD_CONST);
    const uint64_t pool = QorWordAt(object.address + METHOD_POOL);
    const uint64_t indexes = constMethod + offsets[CONST_METHOD_NAME];
    char *p = PutHead(writer, object);
    for (const uint64_t at : {indexes, indexes + sizeof(uint16_t)})
        p = PutAddress(p, QorWordAt(pool + POOL_ENTRIES + QorUint16At(at) * VM_WORD_SIZE));
    EndLine(writer, p);
}

bool HoldsReferences(uint64_t klass) {
    char name[2] = {};
    const uint64_t symbol = NameOf(klass);
    return valid_oop(symbol) && QorUint16At(symbol + SYMBOL_LENGTH) >= sizeof name &&
           QorPeek(symbol + SYMBOL_BYTES, name, sizeof name) && name[0] == '[' && strchr("L[(", name[1]);
}

// One line for each element, up to the first that can't be an object's address.
void WriteElements(const Writer &writer, const QorHeapObject &object) {
    uint64_t elements[ELEMENTS_PIECE];
    const auto length = static_cast<uint64_t>(object.length);
    if (length > (writer.limit - object.address) / VM_WORD_SIZE)
        return;
    for (uint64_t done = 0; done < length; done += ELEMENTS_PIECE) {
        const uint64_t count = std::min(ELEMENTS_PIECE, length - done);
        if (!QorPeek(object.address + ARRAY_ELEMENTS + done * VM_WORD_SIZE, elements, count * VM_WORD_SIZE))
            return;
        for (uint64_t i = 0; i < count; i++) {
            if (elements[i] != 0 && !valid_oop(elements[i]))
                return;
            if (elements[i] != 0)
                EndLine(writer, QorPutHex(QorPutChar(QorDumpReserve(writer.dump, DUMP_LEAST_BUFFER), 'R'),
                                          elements[i] - QorRecordBase()));
        }
    }
}

// The lines below an object's own.
void WriteReferences(const Writer &writer, const QorHeapObject &object) {
    switch (object.type) {
    case TYPE_INSTANCE:
        printInstance(object.address, writer.dump);
        break;
    case TYPE_ARRAY:
        if (HoldsReferences(object.klass))
            WriteElements(writer, object);
        break;
    case TYPE_POOL:
        printConstantPoolKlass(object.address, writer.dump);
        break;
    case TYPE_INSTANCE_KLASS_KLASS:
        printInstanceKlassKlass(object.address, writer.dump);
        printKlassKlass(object.address, writer.dump);
        break;
    case TYPE_KLASS_KLASS:
        printKlassKlass(object.address, writer.dump);
        break;
    default:
        break;
    }
}

void WriteRecord(const Writer &writer, const QorHeapObject &object) {
    switch (object.type) {
    case TYPE_SYMBOL:
        WriteSymbol(writer, object);
        return;
    case TYPE_METHOD:
        WriteMethod(writer, object);
        return;
    case TYPE_INSTANCE:
    case TYPE_ARRAY:
        EndLine(writer, PutAddress(PutHead(writer, object), NameOf(object.klass)));
        return;
    case TYPE_KLASS_KLASS:
    case TYPE_INSTANCE_KLASS_KLASS:
    case TYPE_ARRAY_KLASS_KLASS:
    case TYPE_OBJ_ARRAY_KLASS_KLASS:
    case TYPE_TYPE_ARRAY_KLASS_KLASS:
        EndLine(writer, PutAddress(PutHead(writer, object), NameOf(object.address)));
        return;
    default:
        EndLine(writer, PutHead(writer, object));
    }
}

bool Visit(const QorHeapObject &object, void *context) {
    const Writer &writer = *static_cast<const Writer *>(context);
    WriteRecord(writer, object);
    if (writer.flags & SCAN_REFERENCES)
        WriteReferences(writer, object);
    QorForkStep();
    return writer.dump->error == 0;
}

} // namespace

int64_t qormemdet(int32_t space, QorDumpFile *dump, int32_t flags, QorSpaceCensus *census) {
    const HeapSpace &walked = heapspace[space];
    Writer writer = {dump, flags, walked.letter, std::max(walked.top, walked.end)};
    const bool writes = dump && (flags & SCAN_RECORDS);
    return QorScanSpace(space, census, writes ? Visit : nullptr, &writer);
}
