// A small ELF library in memory, sound until a test changes a byte of it: two symbol tables, the second of
// which a test may leave out as stripping does.
#pragma once

#include <cstring>
#include <elf.h>
#include <string>
#include <utility>
#include <vector>

struct ElfImage {
    using Symbols = std::vector<std::pair<std::string, uint64_t>>;
    enum Section { NONE, DYNSYM, DYNSTR, SYMTAB, STRTAB, SHSTRTAB, SECTIONS };

    std::string bytes;

    // The index 0 of each table is made here: the empty name.
    ElfImage(const Symbols &dynamic, const Symbols &all, bool stripped = false) {
        bytes.assign(sizeof(Elf64_Ehdr), 0);
        memcpy(bytes.data(), ELFMAG, SELFMAG);
        bytes[EI_CLASS] = ELFCLASS64;
        std::vector<Elf64_Shdr> rows(SECTIONS);
        addTable(rows.data() + DYNSYM, SHT_DYNSYM, dynamic);
        addTable(rows.data() + SYMTAB, stripped ? SHT_PROGBITS : SHT_SYMTAB, all);
        rows[DYNSYM].sh_link = DYNSTR;
        rows[SYMTAB].sh_link = STRTAB;
        add(&rows[SHSTRTAB], SHT_STRTAB, std::string(1, 0));
        align();
        header()->e_shoff = bytes.size();
        header()->e_shnum = SECTIONS;
        header()->e_shentsize = sizeof(Elf64_Shdr);
        header()->e_shstrndx = SHSTRTAB;
        bytes.append(reinterpret_cast<const char *>(rows.data()), rows.size() * sizeof rows[0]);
    }

    Elf64_Ehdr *header() { return reinterpret_cast<Elf64_Ehdr *>(bytes.data()); }
    Elf64_Shdr *section(int which) {
        return reinterpret_cast<Elf64_Shdr *>(bytes.data() + header()->e_shoff) + which;
    }
    Elf64_Sym *symbol(int table, int index) {
        return reinterpret_cast<Elf64_Sym *>(bytes.data() + section(table)->sh_offset) + index;
    }

private:
    void align() { bytes.resize((bytes.size() + 7) / 8 * 8); }

    void add(Elf64_Shdr *row, uint32_t type, const std::string &content) {
        align();
        *row = {};
        row->sh_type = type;
        row->sh_offset = bytes.size();
        row->sh_size = content.size();
        bytes += content;
    }

    void addTable(Elf64_Shdr *row, uint32_t type, const Symbols &symbols) {
        std::string table(sizeof(Elf64_Sym), 0), names(1, 0);
        for (const auto &symbol : symbols) {
            Elf64_Sym entry = {};
            entry.st_name = static_cast<uint32_t>(names.size());
            entry.st_value = symbol.second;
            entry.st_shndx = 1;
            names += symbol.first;
            names += '\0';
            table.append(reinterpret_cast<const char *>(&entry), sizeof entry);
        }
        add(row, type, table);
        row->sh_entsize = sizeof(Elf64_Sym);
        add(row + 1, SHT_STRTAB, names);
    }
};
