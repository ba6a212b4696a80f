#include "findsymLinSolHPIA64.h"

#include "elf_symbols.h"
#include "linux.h"
#include "memory_maps.h"
#include "own_memory.h"
#include "qorlog.h"
#include "qorsettings.h"
#include "symbol_lists.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

uint64_t nsymbols[SYMBOL_SLOTS];
int32_t jat_server_jvm;

namespace {

constexpr int FIRST_SLOT_BIT = 2; // bits below are free for the codes
constexpr int LIBRARY_SIZE = 64;
constexpr int CLASS_32 = 32, CLASS_64 = 64;
constexpr int CODE_NOT_FOUND = 3, CODE_NO_HEADER = 4;
constexpr size_t COMPARED_BYTES = 4096; // header, program headers and the build's own mark lie in them

// The list of a build, null when there is none. A library of the older compiler, with its own names for
// the same slots, isn't looked for: no JVM in reach of this agent was made by one.
const char *SelectList(int32_t build) {
    switch (build) {
    case BUILD_JVMTI_UNLISTED:
    case BUILD_JVMTI_DOV:
    case BUILD_JVMTI_DEFAULT:
        return dovsym;
    case BUILD_JVMTI_SYMBOLS:
        return jtisym;
    case BUILD_UNSUPPORTED:
        return nullptr;
    default:
        return sunsymGCC3;
    }
}

// A list taken apart: its entries by slot.
struct SymbolList {
    int32_t count;
    const char *entry[SYMBOL_SLOTS];
};

void ReadList(const char *list, SymbolList *out) {
    out->count = (list[0] - '0') * 10 + (list[1] - '0');
    const char *at = list + 2;
    for (int32_t i = 0; i < out->count; i++) {
        out->entry[i] = at;
        at += strlen(at) + 1;
    }
}

// The next name of a list with bars between, into LIBRARY_SIZE bytes. False at the end.
bool NextLibrary(const char **rest, char *name) {
    if (!**rest)
        return false;
    const size_t length = strcspn(*rest, "|");
    snprintf(name, LIBRARY_SIZE, "%.*s", static_cast<int>(length), *rest);
    *rest += length + ((*rest)[length] == '|' ? 1 : 0);
    return true;
}

struct MappingSearch {
    const char *library;
    int32_t bits; // class of the mapping found; 0 for none yet, -1 for one that is neither
    uint64_t start;
    char path[sizeof(QorMapping::name)];
};

// Looks whether a mapping of the library begins as an ELF file. False when the search is over.
bool LookAtMapping(const QorMapping &mapping, void *data) {
    auto *search = static_cast<MappingSearch *>(data);
    if (!strstr(mapping.name, search->library))
        return true;
    QORLOG(LOG_DETAIL, "Found 0x%x", static_cast<uint32_t>(mapping.start));
    unsigned char bytes[EI_NIDENT];
    if (!mapping.readable || !QorReadOwnMemory(mapping.start, bytes, sizeof bytes))
        return true;
    if (memcmp(bytes, ELFMAG, SELFMAG) != 0) {
        QORLOG(LOG_DETAIL, "File not ELF");
        QORLOG(LOG_DETAIL, "QOR Agent: Internal Error 1004: 0x%x 0x%x 0x%x", bytes[1], bytes[2], bytes[3]);
        return true;
    }
    if (bytes[EI_CLASS] == ELFCLASS32)
        search->bits = CLASS_32;
    else if (bytes[EI_CLASS] == ELFCLASS64)
        search->bits = CLASS_64;
    else
        search->bits = -1;
    if (search->bits < 0)
        QORLOG(LOG_NOTE, "QOR Agent: Internal Error 1005");
    else
        QORLOG(LOG_DETAIL, " foundelf = %d, numbits = %d", 1, search->bits);
    search->start = mapping.start;
    const char *blank = strrchr(mapping.name, ' '); // a path that holds one is cut, and isn't found
    snprintf(search->path, sizeof search->path, "%s", blank ? blank + 1 : mapping.name);
    return false;
}

void NoteKindOfVm(const char *path) {
    if (strstr(path, "libjvm"))
        jat_server_jvm = strstr(path, "/server/libjvm") ? 1 : 0;
}

// True when the file begins as the memory at `base` does. Another file may be at the path since the JVM
// was started, or in a directory of the search path; its addresses would be wrong ones.
bool IsMappedFile(int32_t fd, uint64_t base) {
    static char bytes[COMPARED_BYTES], mapped[COMPARED_BYTES];
    const ssize_t got = pread(fd, bytes, sizeof bytes, 0);
    return got >= static_cast<ssize_t>(sizeof(Elf64_Ehdr)) &&
           QorReadOwnMemory(base, mapped, static_cast<size_t>(got)) &&
           memcmp(bytes, mapped, static_cast<size_t>(got)) == 0;
}

// What is wrong with the file.
void ReportElf(QorElfResult result, const char *noMemory) {
    if (result == ELF_SHORT_HEADER)
        fprintf(stderr, "Qor Agent Err %d: File Header read error\n", CODE_NO_HEADER);
    else if (result == ELF_MALFORMED)
        fprintf(stderr, "Qor Agent Error: File format error\n");
    else if (result == ELF_NO_MEMORY)
        QORLOG(LOG_NOTE, "%s", noMemory);
}

// Fills open slots from one symbol table. One symbol can fill several, and the empty name at index 0 fills
// the slots that have it.
int32_t FillSlots(const QorElfSymbols &table, const SymbolList &list, int32_t open, uint64_t base,
                  uint64_t *slots) {
    int32_t filled = 0;
    for (uint64_t i = 0; i < table.count && filled < open; i++) {
        const char *name = QorElfSymbolName(&table, i);
        if (!name || (name[0] && table.symbols[i].st_shndx == SHN_UNDEF))
            continue; // one that the library only asks for has no address in it
        for (int32_t slot = 1; slot < list.count; slot++) {
            if (slots[slot] || list.entry[slot][0] != name[0] || strcmp(list.entry[slot], name) != 0)
                continue;
            slots[slot] = base + static_cast<uint32_t>(table.symbols[i].st_value);
            filled++;
        }
    }
    return filled;
}

struct TableKind {
    uint32_t type;
    const char *noSymbols, *noNames; // lines for memory that isn't to be had
};
// In this order: names that aren't exported are in the second table alone, which a stripped library lacks.
constexpr TableKind TABLES[] = {
    {SHT_DYNSYM, "QOR Agent : malloc failed 7502", "QOR Agent : malloc failed 7503"},
    {SHT_SYMTAB, "QOR Agent : malloc failed 7505", "QOR Agent : malloc failed 7506"},
};

// The library's file: the one the map names, else one of the search path. -1 when neither is what is mapped.
int32_t OpenLibrary(const char *library, uint64_t base, int32_t mapped) {
    int32_t file = mapped;
    for (int attempt = 0; attempt < 2; attempt++) {
        if (file >= 0 && IsMappedFile(file, base))
            return file;
        qor_close_handle(&file);
        if (attempt == 0)
            file = findlib(library);
    }
    return -1;
}

// Looks for the open slots in one library.
int32_t SearchLibrary(int32_t pid, const char *library, const char *list, uint64_t *slots) {
    uint64_t base = 0;
    int32_t file = QorOpenMappedLibrary(pid, library, &base);
    if (file < 0)
        return 0;
    const int32_t filled = QorResolveSymbols(file, list, base, slots);
    qor_close_handle(&file);
    return filled;
}

} // namespace

void findsymbols(int32_t pid, const char *key, uint32_t words[SYMBOL_WORDS]) {
    offsetind = QorFindRelease(key);
    jat_server_jvm = 0;
    memset(nsymbols, 0, sizeof nsymbols);
    const char *text = SelectList(offsetind);
    if (!text) {
        words[0] = SYMBOLS_NO_LIST;
        return;
    }
    if (text == dovsym)
        return; // nothing of it is wanted
    SymbolList list = {};
    ReadList(text, &list);
    char library[LIBRARY_SIZE];
    int32_t found = 1; // the library's entry
    for (const char *rest = list.entry[0]; found < list.count && NextLibrary(&rest, library);)
        found += SearchLibrary(pid, library, text, nsymbols);
    for (int slot = 1; slot < list.count; slot++) {
        const int bit = slot + FIRST_SLOT_BIT;
        if (!nsymbols[slot])
            words[bit / 32] |= 1u << (bit % 32);
    }
}

int32_t findelfhdr(int32_t pid, uint64_t *base, const char *library, int32_t *file) {
    static MappingSearch search; // as large as a path; one thread looks
    search = {library, 0, 0, ""};
    *file = -1;
    if (!QorVisitMappings(LookAtMapping, &search)) {
        QORLOG(LOG_NOTE, "QOR Agent: Internal Error 1001 %d %s", pid, library);
        return -1;
    }
    if (search.bits <= 0) {
        if (search.bits == 0)
            QORLOG(LOG_NOTE, "QOR Agent: WARNING: LIbrary Not Found");
        return -1;
    }
    *base = search.start;
    if (strcmp(search.path, library) != 0) {
        *file = qor_open_read(search.path);
        if (*file >= 0)
            QORLOG(LOG_DETAIL, "findelfhdr: Opened file %s", search.path);
        NoteKindOfVm(search.path);
    }
    return search.bits;
}

int32_t QorOpenMappedLibrary(int32_t pid, const char *library, uint64_t *base) {
    int32_t file = -1;
    if (findelfhdr(pid, base, library, &file) < 0) {
        fprintf(stderr, "Qor Agent WARNING: Library Not Found\n");
        return -1;
    }
    file = OpenLibrary(library, *base, file);
    if (file < 0)
        fprintf(stderr, "Qor Agent Error %d: Could not find %s\n", CODE_NOT_FOUND, library);
    return file;
}

int32_t findlib(const char *library) {
    char path[FILE_NAME_SIZE];
    const char *rest = getenv("LD_LIBRARY_PATH");
    while (rest && *rest && *rest != '\n') {
        const size_t length = strcspn(rest, ":;\n");
        snprintf(path, sizeof path, "%.*s/%s", static_cast<int>(length), rest, library);
        QORLOG(LOG_DETAIL, " Cand file %s", path);
        const int32_t file = qor_open_read(path);
        if (file >= 0)
            return file;
        rest += length + (rest[length] == ':' || rest[length] == ';' ? 1 : 0);
    }
    return -1;
}

int32_t QorResolveSymbols(int32_t fd, const char *text, uint64_t base, uint64_t *slots) {
    SymbolList list = {};
    ReadList(text, &list);
    int32_t open = 0;
    for (int32_t slot = 1; slot < list.count; slot++)
        open += slots[slot] == 0;
    QorElfFile elf;
    QorElfResult result = QorOpenElf(fd, &elf);
    ReportElf(result, "QOR Agent : malloc failed 7500");
    if (result != ELF_READ)
        return 0;
    int32_t filled = 0;
    for (const TableKind &kind : TABLES) {
        QorElfSymbols table;
        if (filled >= open)
            break;
        result = QorReadElfSymbols(&elf, kind.type, &table);
        ReportElf(result, table.namesFailed ? kind.noNames : kind.noSymbols);
        if (result == ELF_ABSENT)
            continue;
        if (result != ELF_READ)
            break;
        filled += FillSlots(table, list, open - filled, base, slots);
        QorFreeElfSymbols(&table);
    }
    QorCloseElf(&elf);
    return filled;
}
