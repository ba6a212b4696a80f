#include "elf_symbols.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The largest tables of a JVM library, one with all checks built in, are some 20 MB. A file made to claim
// more must not cost the host its memory.
constexpr uint64_t SECTION_LIMIT = 256 * 1024 * 1024;

bool Lies(const QorElfFile *elf, uint64_t offset, uint64_t size) {
    return offset <= elf->size && size <= elf->size - offset;
}

bool ReadAt(int32_t fd, uint64_t offset, void *out, uint64_t size) {
    auto *to = static_cast<char *>(out);
    while (size > 0) {
        const ssize_t got = pread(fd, to, size, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false; // an error, or a file that has become shorter
        to += got;
        offset += static_cast<uint64_t>(got);
        size -= static_cast<uint64_t>(got);
    }
    return true;
}

// A piece of the file in separate memory, to be freed.
QorElfResult ReadPiece(const QorElfFile *elf, uint64_t offset, uint64_t size, void **out) {
    if (size == 0 || size > SECTION_LIMIT || !Lies(elf, offset, size))
        return ELF_MALFORMED;
    *out = malloc(size);
    if (!*out)
        return ELF_NO_MEMORY;
    if (ReadAt(elf->fd, offset, *out, size))
        return ELF_READ;
    free(*out);
    *out = nullptr;
    return ELF_MALFORMED;
}

const Elf64_Shdr *FindSection(const QorElfFile *elf, uint32_t type) {
    for (uint32_t i = 1; i < elf->sectionCount; i++)
        if (elf->sections[i].sh_type == type)
            return &elf->sections[i];
    return nullptr;
}

QorElfResult ReadNames(const QorElfFile *elf, const Elf64_Shdr &section, QorElfSymbols *out) {
    void *names = nullptr;
    if (section.sh_type != SHT_STRTAB)
        return ELF_MALFORMED;
    const QorElfResult result = ReadPiece(elf, section.sh_offset, section.sh_size, &names);
    if (result != ELF_READ)
        return result;
    out->names = static_cast<char *>(names);
    out->namesSize = section.sh_size;
    return out->names[out->namesSize - 1] == 0 ? ELF_READ : ELF_MALFORMED;
}

} // namespace

QorElfResult QorOpenElf(int32_t fd, QorElfFile *elf) {
    *elf = {fd, 0, nullptr, 0};
    struct stat facts;
    Elf64_Ehdr header;
    if (fstat(fd, &facts) != 0 || !S_ISREG(facts.st_mode))
        return ELF_SHORT_HEADER;
    elf->size = static_cast<uint64_t>(facts.st_size);
    if (!Lies(elf, 0, sizeof header) || !ReadAt(fd, 0, &header, sizeof header))
        return ELF_SHORT_HEADER;
    if (memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
        header.e_shentsize != sizeof(Elf64_Shdr) || header.e_shnum == 0 ||
        header.e_shstrndx >= header.e_shnum)
        return ELF_MALFORMED;
    void *sections = nullptr;
    const QorElfResult result =
        ReadPiece(elf, header.e_shoff, uint64_t{header.e_shnum} * sizeof(Elf64_Shdr), &sections);
    elf->sections = static_cast<Elf64_Shdr *>(sections);
    elf->sectionCount = header.e_shnum;
    return result;
}

void QorCloseElf(QorElfFile *elf) {
    free(elf->sections);
    *elf = {-1, 0, nullptr, 0};
}

QorElfResult QorReadElfSymbols(const QorElfFile *elf, uint32_t type, QorElfSymbols *out) {
    *out = {};
    const Elf64_Shdr *table = FindSection(elf, type);
    if (!table)
        return ELF_ABSENT;
    if (table->sh_entsize != sizeof(Elf64_Sym) || table->sh_link >= elf->sectionCount)
        return ELF_MALFORMED;
    void *symbols = nullptr;
    QorElfResult result = ReadPiece(elf, table->sh_offset, table->sh_size, &symbols);
    if (result != ELF_READ)
        return result;
    out->symbols = static_cast<Elf64_Sym *>(symbols);
    out->count = table->sh_size / sizeof(Elf64_Sym);
    result = ReadNames(elf, elf->sections[table->sh_link], out);
    if (result != ELF_READ)
        QorFreeElfSymbols(out);
    out->namesFailed = result == ELF_NO_MEMORY;
    return result;
}

void QorFreeElfSymbols(QorElfSymbols *symbols) {
    free(symbols->symbols);
    free(symbols->names);
    *symbols = {};
}

const char *QorElfSymbolName(const QorElfSymbols *symbols, uint64_t index) {
    const uint32_t at = symbols->symbols[index].st_name;
    return at < symbols->namesSize ? symbols->names + at : nullptr;
}
