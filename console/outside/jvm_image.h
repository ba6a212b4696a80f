// The file that a process's libjvm.so was mapped from, and its symbols.
//
// The file is the target's, who may have put anything in its place: it is opened only when it is a regular
// file and the one that is mapped, by device and inode or by build-id.
#pragma once

#include "process_memory.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qorctl::outside {

// Symbols of a libjvm.so, as addresses in the process.
struct VmSymbols {
    std::unordered_map<std::string, Address> objects; // variables: those that are asked for, no others
    std::map<Address, std::string> vtables;           // what an object of the class begins with, to the class
    bool has_symtab = false; // without it there are only exported ones, and no vtables

    Address Find(const std::string &name) const; // 0 when it isn't there
    // The class of an object with this first word, "VM_GC_Operation"; empty when it isn't known.
    std::string ClassAt(Address vtable) const;
};

struct MappedFile {
    Address first = 0, last = 0; // of the first mapping
    unsigned major = 0, minor = 0;
    uint64_t inode = 0;
    std::string path; // as the process has it, without " (deleted)"
};

// The first mapping of libjvm.so in the text of /proc/PID/maps. Exposed for tests.
std::optional<MappedFile> FindLibjvm(std::string_view maps);

// The symbols of the process's libjvm.so, or nothing and `*problem`.
std::optional<VmSymbols> ReadVmSymbols(pid_t pid, Memory &memory, std::string *problem);

// Reads the symbols of an open ELF file whose first byte is mapped at `base`. False when it has none.
bool ReadSymbols(int fd, Address base, VmSymbols *symbols);

// The build-id of an open ELF file; empty when it has none. Exposed for tests.
std::string BuildIdOfFile(int fd);

} // namespace qorctl::outside
