#include "jvm_image.h"

#include "base/process.h"
#include "base/starts_with.h"
#include "platforms/elf_symbols.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace qorctl::outside {

namespace {

constexpr size_t MOST_MAPS = 32 << 20, MOST_STATUS = 65536;
constexpr uint64_t MOST_TABLES = 64 << 20; // bytes of symbols and their names
constexpr size_t MOST_NOTES = 4096;
constexpr std::string_view LIBJVM = "/libjvm.so", DELETED = " (deleted)";
constexpr std::string_view VTABLE = "_ZTV";
constexpr Address VTABLE_HEAD = 16; // an object points past the offset and the type information

// Symbols that are kept begin with one of these.
constexpr std::string_view KEPT[] = {
    "gHotSpotVM",
    "_ZN20SafepointSynchronize",
    "_ZN16SafepointTracing",
    "_ZN8VMThread",
    "_ZN14RuntimeService",
    "_ZL18initial_time_count",
    "_ZN16java_lang_Thread",
    "_ZN16java_lang_String",
    "_ZN17ContinuationEntry",
    "_ZN12StubRoutines19_cont_returnBarrierE",
    "_ZN26jdk_internal_vm_StackChunk",
    "_ZN28jdk_internal_vm_Continuation",
    "_ZN23InstanceStackChunkKlass",
};

bool Keeps(std::string_view name) {
    return std::any_of(std::begin(KEPT), std::end(KEPT),
                       [&](std::string_view start) { return StartsWith(name, start); });
}

void AddSymbols(const QorElfSymbols &table, Address bias, VmSymbols *symbols) {
    for (uint64_t i = 0; i < table.count; ++i) {
        const Elf64_Sym &symbol = table.symbols[i];
        if (symbol.st_shndx == SHN_UNDEF || ELF64_ST_TYPE(symbol.st_info) != STT_OBJECT)
            continue;
        const char *name = QorElfSymbolName(&table, i);
        if (!name)
            continue;
        if (StartsWith(name, VTABLE))
            symbols->vtables.emplace(bias + symbol.st_value + VTABLE_HEAD, name + VTABLE.size());
        else if (Keeps(name))
            symbols->objects.emplace(name, bias + symbol.st_value);
    }
}

// The lowest address that the file asks to be loaded at.
Address LowestAddress(int fd) {
    Elf64_Ehdr header;
    Address lowest = ~Address(0);
    if (pread(fd, &header, sizeof header, 0) != sizeof header)
        return 0;
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment;
        const off_t at = static_cast<off_t>(header.e_phoff + i * sizeof segment);
        if (pread(fd, &segment, sizeof segment, at) == sizeof segment && segment.p_type == PT_LOAD)
            lowest = std::min<Address>(lowest, segment.p_vaddr);
    }
    return lowest == ~Address(0) ? 0 : lowest;
}

uint64_t TableBytes(const QorElfFile &elf, uint32_t type) {
    for (uint32_t i = 1; i < elf.sectionCount; ++i)
        if (elf.sections[i].sh_type == type && elf.sections[i].sh_link < elf.sectionCount)
            return std::min(elf.sections[i].sh_size, MOST_TABLES + 1) +
                   std::min(elf.sections[elf.sections[i].sh_link].sh_size, MOST_TABLES + 1);
    return 0;
}

// The build-id in the notes of an ELF image; `read` copies from an offset of it. Empty when there is none.
template <class Read>
std::string BuildId(Read read) {
    Elf64_Ehdr header;
    if (!read(0, &header, sizeof header) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return "";
    for (unsigned i = 0; i < std::min<unsigned>(header.e_phnum, 64); ++i) {
        Elf64_Phdr segment;
        if (!read(header.e_phoff + i * sizeof segment, &segment, sizeof segment))
            return "";
        if (segment.p_type != PT_NOTE || segment.p_filesz > MOST_NOTES)
            continue;
        std::string notes(segment.p_filesz, 0);
        if (!read(segment.p_offset, notes.data(), notes.size()))
            continue;
        for (size_t at = 0; at + sizeof(Elf64_Nhdr) <= notes.size();) {
            Elf64_Nhdr note;
            memcpy(&note, notes.data() + at, sizeof note);
            const uint64_t name = at + sizeof note, text = name + ((uint64_t(note.n_namesz) + 3) & ~3ull);
            const uint64_t end = text + ((uint64_t(note.n_descsz) + 3) & ~3ull);
            if (end > notes.size())
                break;
            if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && !memcmp(&notes[name], "GNU", 4))
                return notes.substr(text, note.n_descsz);
            at = end;
        }
    }
    return "";
}

// Opens what a descriptor without access stands for, if that is a regular file: opening a FIFO or a device
// may wait or act.
FileDescriptor OpenIfRegular(const FileDescriptor &found) {
    struct stat status;
    if (!found.ok() || fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return FileDescriptor();
    return FileDescriptor(open(fmt::format("/proc/self/fd/{}", found.get()).c_str(), O_RDONLY | O_CLOEXEC));
}

// The file that `path` names, if it is a regular one.
FileDescriptor OpenRegular(int dir, const std::string &path, bool below) {
    open_how how = {};
    how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = below ? RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS : 0;
    FileDescriptor found(static_cast<int>(syscall(SYS_openat2, dir, path.c_str(), &how, sizeof how)));
    if (!found.ok() && (errno == ENOSYS || errno == EPERM)) // a kernel before 5.6, a filter of system calls
        found = FileDescriptor(openat(dir, path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return OpenIfRegular(found);
}

// A mapping's own file, also when another one has its name by now. Only root may follow this link.
FileDescriptor OpenMapping(pid_t pid, const MappedFile &mapped) {
    const std::string path = fmt::format("/proc/{}/map_files/{:x}-{:x}", pid, mapped.first, mapped.last);
    return OpenIfRegular(FileDescriptor(open(path.c_str(), O_PATH | O_CLOEXEC)));
}

// Below the process's root directory, with its user's rights. They are its status's: /proc/PID belongs to
// root when the process doesn't let itself be dumped.
FileDescriptor OpenBelowRoot(pid_t pid, const std::string &path) {
    Process owner;
    const std::string proc = fmt::format("/proc/{}", pid);
    const FileDescriptor root(open((proc + "/root/").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root.ok() || !ParseStatus(ReadFile(proc + "/status", MOST_STATUS), &owner))
        return FileDescriptor();
    const auto group = static_cast<gid_t>(setfsgid(owner.egid));
    const auto user = static_cast<uid_t>(setfsuid(owner.euid));
    FileDescriptor file = OpenRegular(root.get(), path.substr(path.find_first_not_of('/')), true);
    setfsuid(user);
    setfsgid(group);
    return file;
}

bool SameFile(int fd, const MappedFile &mapped) {
    struct stat status;
    return fstat(fd, &status) == 0 && status.st_ino == mapped.inode && major(status.st_dev) == mapped.major &&
           minor(status.st_dev) == mapped.minor;
}

// Some file systems show other numbers in a mapping than in a file's status.
bool SameBuild(int fd, const std::string &build_id) {
    return !build_id.empty() && BuildIdOfFile(fd) == build_id;
}

} // namespace

Address VmSymbols::Find(const std::string &name) const {
    const auto found = objects.find(name);
    return found == objects.end() ? 0 : found->second;
}

std::string VmSymbols::ClassAt(Address vtable) const {
    const auto found = vtables.find(vtable);
    if (found == vtables.end())
        return "";
    // A plain name is its length and itself; anything else is shown as the linker has it.
    const std::string &mangled = found->second;
    const size_t digits = std::min(mangled.find_first_not_of("0123456789"), mangled.size());
    return mangled.substr(digits);
}

std::optional<MappedFile> FindLibjvm(std::string_view maps) {
    for (size_t at = 0; at < maps.size();) {
        const size_t end = std::min(maps.find('\n', at), maps.size());
        std::string line(maps.substr(at, end - at));
        at = end + 1;
        if (line.size() > DELETED.size() &&
            line.compare(line.size() - DELETED.size(), DELETED.npos, DELETED) == 0)
            line.resize(line.size() - DELETED.size());
        if (line.size() < LIBJVM.size() ||
            line.compare(line.size() - LIBJVM.size(), LIBJVM.npos, LIBJVM) != 0)
            continue;
        MappedFile mapped;
        unsigned long first = 0, last = 0, offset = 0, inode = 0;
        if (sscanf(line.c_str(), "%lx-%lx %*s %lx %x:%x %lu", &first, &last, &offset, &mapped.major,
                   &mapped.minor, &inode) != 6 ||
            offset != 0)
            continue;
        mapped.first = first;
        mapped.last = last;
        mapped.inode = inode;
        mapped.path = line.substr(line.find('/'));
        return mapped;
    }
    return std::nullopt;
}

bool ReadSymbols(int fd, Address base, VmSymbols *symbols) {
    QorElfFile elf;
    const bool opened = QorOpenElf(fd, &elf) == ELF_READ;
    const Address bias = base - LowestAddress(fd);
    for (const uint32_t type : {uint32_t(SHT_SYMTAB), uint32_t(SHT_DYNSYM)}) {
        QorElfSymbols table;
        if (!opened || TableBytes(elf, type) > MOST_TABLES ||
            QorReadElfSymbols(&elf, type, &table) != ELF_READ)
            continue;
        symbols->has_symtab |= type == SHT_SYMTAB;
        AddSymbols(table, bias, symbols);
        QorFreeElfSymbols(&table);
    }
    if (opened)
        QorCloseElf(&elf);
    return !symbols->objects.empty();
}

std::string BuildIdOfFile(int fd) {
    return BuildId([fd](uint64_t at, void *to, size_t size) {
        return pread(fd, to, size, static_cast<off_t>(at)) == static_cast<ssize_t>(size);
    });
}

std::optional<VmSymbols> ReadVmSymbols(pid_t pid, Memory &memory, std::string *problem) {
    const std::string path = fmt::format("/proc/{}/maps", pid);
    const std::optional<MappedFile> mapped = FindLibjvm(ReadFile(path, MOST_MAPS));
    if (!mapped) {
        const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        *problem = !file.ok() ? fmt::format("{}: {}", path, strerror(errno)) : "it maps no libjvm.so";
        return std::nullopt;
    }
    const std::string build_id = BuildId([&](uint64_t at, void *to, size_t size) {
        return at < mapped->last - mapped->first && memory.Read(mapped->first + at, to, size);
    });
    const auto is_mapped = [&](const FileDescriptor &one) {
        return one.ok() && (SameFile(one.get(), *mapped) || SameBuild(one.get(), build_id));
    };
    FileDescriptor file = OpenMapping(pid, *mapped);
    if (!is_mapped(file))
        file = OpenBelowRoot(pid, mapped->path);
    if (!is_mapped(file)) {
        file = OpenRegular(AT_FDCWD, mapped->path, false);
        if (file.ok() && !SameBuild(file.get(), build_id))
            file = FileDescriptor();
    }
    VmSymbols symbols;
    if (file.ok() && ReadSymbols(file.get(), mapped->first, &symbols))
        return symbols;
    *problem = file.ok() ? fmt::format("{} has no symbols that can be read", mapped->path)
                         : fmt::format("the mapped {} can't be opened", mapped->path);
    return std::nullopt;
}

} // namespace qorctl::outside
