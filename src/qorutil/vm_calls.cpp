#include "vm_calls.h"

#include "vm_offsets.h"
#include "vm_reader.h"

#include "platforms/elf_symbols.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/linux.h"
#include "platforms/memory_maps.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <unistd.h>

namespace {

constexpr int32_t MAX_TABLES = 64;
constexpr size_t COPIED_BYTES = 512;
constexpr char LIBRARY[] = "libjvm.so";
constexpr char TABLE_PREFIX[] = "_ZTV";
constexpr const char *TABLE_ENDINGS[] = {"nmethod", "Blob", "Adapter", "Stub", "Method"};
constexpr uint32_t OSR_ADAPTER_ENTRY = 40; // bytes in the virtual table, in all listed builds

struct BlobTable {
    uint64_t head, end; // the first entry, and after the last
    BlobAnswer answer;
    uint32_t traits;
};
BlobTable tables[MAX_TABLES]; // written at start; the answers by the worker
int32_t tableCount;

// The functions answer a byte; the rest of the register is whatever it was.
using Predicate = uint8_t (*)(const void *blob);

// Words, by the klass part and the object.
using SizeFunction = int32_t (*)(const void *klassPart, const void *object);
uint64_t sizeFunctions[OOP_TABLES]; // by VmType; written at start

struct Question {
    uint32_t entry;
    BlobTrait trait;
};

bool IsBlobTable(const char *name) {
    if (strncmp(name, TABLE_PREFIX, sizeof TABLE_PREFIX - 1) != 0)
        return false;
    const size_t length = strlen(name);
    for (const char *ending : TABLE_ENDINGS) {
        const size_t tail = strlen(ending);
        if (length > tail && strcmp(name + length - tail, ending) == 0)
            return true;
    }
    return false;
}

BlobTable *FindTable(uint64_t head) {
    for (int32_t i = 0; i < tableCount; i++)
        if (tables[i].head == head)
            return &tables[i];
    return nullptr;
}

void TakeTables(const QorElfSymbols &symbols, uint64_t base) {
    for (uint64_t i = 0; i < symbols.count && tableCount < MAX_TABLES; i++) {
        const Elf64_Sym &symbol = symbols.symbols[i];
        const char *name = QorElfSymbolName(&symbols, i);
        if (!name || symbol.st_shndx == SHN_UNDEF || !IsBlobTable(name))
            continue;
        const uint64_t start = base + static_cast<uint32_t>(symbol.st_value);
        if (!FindTable(start + VIRTUAL_TABLE_HEAD))
            tables[tableCount++] = {start + VIRTUAL_TABLE_HEAD, start + symbol.st_size, BLOB_NOT_ASKED, 0};
    }
}

bool IsCodeOfTheJvm(uint64_t address) {
    static QorMapping mapping; // as large as a path; the worker alone asks
    return QorFindMapping(address, &mapping) && mapping.executable && strstr(mapping.name, LIBRARY);
}

bool Ask(const BlobTable &table, uint32_t entry, const void *blob, bool *answer) {
    uint64_t function = 0;
    if (table.head + entry + VM_WORD_SIZE > table.end || !QorPeekValue(table.head + entry, &function) ||
        !IsCodeOfTheJvm(function))
        return false;
    *answer = reinterpret_cast<Predicate>(function)(blob) != 0;
    return true;
}

// The blob's first bytes, and 0 for those that aren't mapped: it may be the last one of the code cache.
bool CopyBlob(uint64_t blob, unsigned char (&copy)[COPIED_BYTES]) {
    const uint64_t onPage = std::min<uint64_t>(COPIED_BYTES, VM_PAGE_SIZE - blob % VM_PAGE_SIZE);
    memset(copy, 0, sizeof copy);
    if (!QorPeek(blob, copy, onPage))
        return false;
    if (onPage < COPIED_BYTES)
        QorPeek(blob + onPage, copy + onPage, COPIED_BYTES - onPage);
    return true;
}

uint64_t HeadOf(uint64_t blob) {
    return QorWordAt(blob + offsets[BLOB_VIRTUAL_TABLE]);
}

} // namespace

int32_t QorFindBlobTables() {
    tableCount = 0;
    uint64_t base = 0;
    int32_t file = QorOpenMappedLibrary(getpid(), LIBRARY, &base);
    QorElfFile elf;
    if (file >= 0 && QorOpenElf(file, &elf) == ELF_READ) {
        for (const uint32_t type : {SHT_DYNSYM, SHT_SYMTAB}) {
            QorElfSymbols symbols;
            if (QorReadElfSymbols(&elf, type, &symbols) != ELF_READ)
                continue;
            TakeTables(symbols, base);
            QorFreeElfSymbols(&symbols);
        }
        QorCloseElf(&elf);
    }
    qor_close_handle(&file);
    return tableCount;
}

BlobAnswer QorBlobTraits(uint64_t blob, uint32_t *traits) {
    const BlobTable *table = FindTable(HeadOf(blob));
    if (!table)
        return BLOB_STRANGE;
    *traits = table->traits;
    return table->answer;
}

void QorAskBlob(uint64_t blob) {
    const Question questions[] = {
        {offsets[BLOB_IS_NMETHOD], BLOB_NMETHOD},
        {offsets[BLOB_IS_RUNTIME_STUB], BLOB_RUNTIME_STUB},
        {offsets[BLOB_IS_I2C_ADAPTER], BLOB_I2C_ADAPTER},
        {offsets[BLOB_IS_C2I_ADAPTER], BLOB_C2I_ADAPTER},
        {OSR_ADAPTER_ENTRY, BLOB_OSR_ADAPTER},
    };
    alignas(16) unsigned char copy[COPIED_BYTES];
    uint64_t head = 0;
    if (!CopyBlob(blob, copy))
        return;
    memcpy(&head, copy + offsets[BLOB_VIRTUAL_TABLE], sizeof head);
    BlobTable *table = FindTable(head);
    if (!table || table->answer != BLOB_NOT_ASKED)
        return;
    table->answer = BLOB_ANSWERED;
    for (const Question &question : questions) {
        bool yes = false;
        if (!Ask(*table, question.entry, copy, &yes))
            table->answer = BLOB_STRANGE;
        if (yes)
            table->traits |= question.trait;
    }
}

void QorFindSizeFunctions() {
    for (int32_t type = 0; type < OOP_TABLES; type++) {
        const uint64_t entry = oop_vtable[type] + offsets[KLASS_OOP_SIZE_ENTRY] * VM_WORD_SIZE;
        const uint64_t function = oop_vtable[type] ? QorWordAt(entry) : 0;
        sizeFunctions[type] = function && IsCodeOfTheJvm(function) ? function : 0;
    }
}

int64_t QorAskObjectSize(VmType type, uint64_t klass, uint64_t object) {
    if (type == TYPE_NONE || !sizeFunctions[type])
        return 0;
    const auto function = reinterpret_cast<SizeFunction>(sizeFunctions[type]);
    const int64_t words =
        function(reinterpret_cast<const void *>(klass + KLASS_PART), reinterpret_cast<const void *>(object));
    return words * static_cast<int64_t>(VM_WORD_SIZE);
}
