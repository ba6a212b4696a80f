// The symbol tables of an ELF file, read section by section.
//
// The file may be anything: every offset, size, count and index is held against the file's size before it is
// used, and what doesn't fit ends the reading. Any thread; the file is read at offsets, its position stays.
#pragma once

#include <cstdint>
#include <elf.h>

enum QorElfResult {
    ELF_READ,
    ELF_ABSENT,       // no section of the type asked for
    ELF_SHORT_HEADER, // the file doesn't hold a header, or isn't a regular one
    ELF_MALFORMED,
    ELF_NO_MEMORY,
};

struct QorElfFile {
    int32_t fd;
    uint64_t size;
    Elf64_Shdr *sections;
    uint32_t sectionCount;
};

struct QorElfSymbols {
    Elf64_Sym *symbols;
    uint64_t count;
    char *names; // its last byte is 0
    uint64_t namesSize;
    bool namesFailed; // with ELF_NO_MEMORY: it was the names that found no room
};

// Reads header and section headers. The descriptor stays the caller's. To be closed after ELF_READ.
QorElfResult QorOpenElf(int32_t fd, QorElfFile *elf);
void QorCloseElf(QorElfFile *elf);

// Reads the first symbol table of the type (SHT_DYNSYM, SHT_SYMTAB) and its names. To be freed after
// ELF_READ.
QorElfResult QorReadElfSymbols(const QorElfFile *elf, uint32_t type, QorElfSymbols *out);
void QorFreeElfSymbols(QorElfSymbols *symbols);

// A symbol's name, null when it lies outside the names.
const char *QorElfSymbolName(const QorElfSymbols *symbols, uint64_t index);
