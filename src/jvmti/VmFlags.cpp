#include "VmFlags.h"

#include "QorOS.h"
#include "Session.h"

#include <cstdint>
#include <cstring>

namespace {

// The exported tables end with an entry without a name; how far apart entries and their members are, is
// exported as well.
struct Table {
    const char *entries;
    uint64_t stride;
};

template <typename Value>
bool Read(void *library, const char *symbol, Value *out) {
    const void *const at = QorFindSymbol(library, symbol);
    if (at)
        memcpy(out, at, sizeof *out);
    return at;
}

template <typename Value>
Value Member(const char *at, uint64_t offset) {
    Value value;
    memcpy(&value, at + offset, sizeof value);
    return value;
}

bool OpenTable(void *library, const char *entries, const char *stride, Table *table) {
    return Read(library, entries, &table->entries) && Read(library, stride, &table->stride) &&
           table->entries && table->stride;
}

// Where the description has JVMFlag and its fields.
struct FlagLayout {
    const char *flags; // the first one
    uint64_t count, size, name, value;
    int32_t found;
};

void TakeField(const char *entry, uint64_t fieldAt, uint64_t offsetAt, uint64_t addressAt,
               FlagLayout *layout) {
    const char *const field = Member<const char *>(entry, fieldAt);
    layout->found++;
    if (strcmp(field, "flags") == 0)
        layout->flags = Member<const char *>(Member<const char *>(entry, addressAt), 0);
    else if (strcmp(field, "numFlags") == 0)
        layout->count = Member<uint64_t>(Member<const char *>(entry, addressAt), 0);
    else if (strcmp(field, "_name") == 0)
        layout->name = Member<uint64_t>(entry, offsetAt);
    else if (strcmp(field, "_addr") == 0)
        layout->value = Member<uint64_t>(entry, offsetAt);
    else
        layout->found--;
}

bool IsOfFlags(const char *type) {
    return type && strcmp(type, "JVMFlag") == 0;
}

bool ReadFields(void *library, FlagLayout *layout) {
    Table table;
    uint64_t typeAt, fieldAt, offsetAt, addressAt;
    if (!OpenTable(library, "gHotSpotVMStructs", "gHotSpotVMStructEntryArrayStride", &table) ||
        !Read(library, "gHotSpotVMStructEntryTypeNameOffset", &typeAt) ||
        !Read(library, "gHotSpotVMStructEntryFieldNameOffset", &fieldAt) ||
        !Read(library, "gHotSpotVMStructEntryOffsetOffset", &offsetAt) ||
        !Read(library, "gHotSpotVMStructEntryAddressOffset", &addressAt))
        return false;
    for (const char *entry = table.entries; Member<const char *>(entry, typeAt); entry += table.stride)
        if (IsOfFlags(Member<const char *>(entry, typeAt)))
            TakeField(entry, fieldAt, offsetAt, addressAt, layout);
    constexpr int32_t NEEDED = 4;
    return layout->found == NEEDED && layout->flags;
}

bool ReadSize(void *library, FlagLayout *layout) {
    Table table;
    uint64_t typeAt, sizeAt;
    if (!OpenTable(library, "gHotSpotVMTypes", "gHotSpotVMTypeEntryArrayStride", &table) ||
        !Read(library, "gHotSpotVMTypeEntryTypeNameOffset", &typeAt) ||
        !Read(library, "gHotSpotVMTypeEntrySizeOffset", &sizeAt))
        return false;
    for (const char *entry = table.entries; Member<const char *>(entry, typeAt); entry += table.stride)
        if (IsOfFlags(Member<const char *>(entry, typeAt)))
            layout->size = Member<uint64_t>(entry, sizeAt);
    return layout->size != 0;
}

bool FindOff(void *library, const char *name) {
    FlagLayout layout = {};
    if (!ReadFields(library, &layout) || !ReadSize(library, &layout))
        return false;
    for (uint64_t i = 0; i < layout.count; i++) {
        const char *const flag = layout.flags + i * layout.size;
        const char *const flagName = Member<const char *>(flag, layout.name);
        if (flagName && strcmp(flagName, name) == 0)
            return Member<char>(Member<const char *>(flag, layout.value), 0) == 0;
    }
    return false;
}

} // namespace

bool QorVmFlagIsOff(const char *name) {
    void *library = nullptr;
    if (QorLoadLibrary(&library, gbQorJVMLibName) != 0)
        return false;
    const bool isOff = FindOff(library, name);
    QorCloseLibrary(library);
    return isOff;
}
