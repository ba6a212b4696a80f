// The lookup of the JVM library's symbols: where the library is, and what its file says, be it what it may.
#include "Descriptors.h"
#include "ElfImage.h"
#include "LogCapture.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/symbol_lists.h"
#include "qorsettings.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr char HEAP[] = "_ZN8Universe14_collectedHeapE";
constexpr char ALWAYS[] = "_ZN23JvmtiManageCapabilities19always_capabilitiesE";

const ElfImage::Symbols EXPORTED = {{"JVM_Sleep", 0x1000}, {HEAP, 0x7712345678}};
const ElfImage::Symbols ALL = {{"local", 0x10}, {ALWAYS, 0x2000}, {HEAP, 0x3000}, {ALWAYS, 0x4000}};

int FileOf(const std::string &bytes) {
    const int fd = memfd_create("image", MFD_CLOEXEC);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return fd;
}

struct Outcome {
    int32_t filled;
    uint64_t slots[SYMBOL_SLOTS];
    std::string told;
};

Outcome Resolve(const std::string &bytes, const char *list = jtisym) {
    Outcome out = {};
    const int fd = FileOf(bytes);
    testing::internal::CaptureStderr();
    out.filled = QorResolveSymbols(fd, list, 0x100000000, out.slots);
    out.told = testing::internal::GetCapturedStderr();
    close(fd);
    return out;
}

// A folder of its own with libraries, one of which is mapped where the JVM would have it.
struct Library : testing::Test {
    Library() {
        char name[] = "/tmp/qor-elf-XXXXXX";
        folder = mkdtemp(name);
        fs::create_directories(folder / "server");
        fs::create_directories(folder / "other");
    }
    ~Library() override {
        for (const auto &mapping : mappings)
            munmap(mapping.first, mapping.second);
        fs::remove_all(folder);
        unsetenv("LD_LIBRARY_PATH");
    }

    fs::path Put(const fs::path &name, const std::string &bytes) {
        FILE *file = fopen((folder / name).c_str(), "wb");
        fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
        return folder / name;
    }

    // Maps a file, at `where` when that isn't null.
    uint64_t Map(const fs::path &path, void *where = nullptr, int rights = PROT_READ) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const size_t size = fs::file_size(path);
        void *at = mmap(where, size, rights, MAP_PRIVATE | (where ? MAP_FIXED : 0), fd, 0);
        close(fd);
        mappings.emplace_back(at, size);
        return reinterpret_cast<uint64_t>(at);
    }

    // findsymbols for `key`: what it says on stderr; the words are in `words`.
    std::string Find(const char *key) {
        for (uint32_t &word : words)
            word = 0;
        testing::internal::CaptureStderr();
        findsymbols(getpid(), key, words);
        return testing::internal::GetCapturedStderr();
    }

    fs::path folder;
    uint32_t words[SYMBOL_WORDS];
    std::vector<std::pair<void *, size_t>> mappings;
};

} // namespace

// Exported names come from the first table and win; the others from the second. Values are cut to 32 bits, a
// name that is missing has its bit, and no descriptor stays open.
TEST_F(Library, SymbolsAreFoundWhereTheLibraryIsMapped) {
    const int descriptors = OpenDescriptors();
    const uint64_t base = Map(Put("server/libjvm.so", ElfImage(EXPORTED, ALL).bytes));
    EXPECT_EQ(Find(SYMBOLS_JVM), "");
    EXPECT_EQ(nsymbols[JTI_COLLECTED_HEAP], base + 0x12345678);
    EXPECT_EQ(nsymbols[JTI_ALWAYS_CAPABILITIES], base + 0x2000);
    EXPECT_EQ(nsymbols[JTI_OLD_ACTIONS], 0u);
    EXPECT_EQ(words[0], 1u << 5);
    EXPECT_EQ(jat_server_jvm, 1);
    EXPECT_EQ(OpenDescriptors(), descriptors);

    // The next start forgets it all.
    EXPECT_EQ(Find(DEFAULT_JVM), "");
    EXPECT_EQ(nsymbols[JTI_COLLECTED_HEAP] + words[0], 0u);
    EXPECT_EQ(jat_server_jvm, 0);
}

// The direct road's list: the empty name resolves to the base itself, in both of its slots; a client VM's
// library shows in its path.
TEST_F(Library, TheDirectListKnowsTheEmptyNameAndTheKindOfVm) {
    const ElfImage::Symbols some = {{"gBlockList", 0x40}, {"MaxNewSize", 0x50}};
    const uint64_t base = Map(Put("libjvm.so", ElfImage({}, some).bytes));
    EXPECT_EQ(Find("Sun Microsystems Inc.1.5.0_07"), "");
    EXPECT_EQ(nsymbols[19], base);
    EXPECT_EQ(nsymbols[21], base);
    EXPECT_EQ(nsymbols[24], base + 0x40);
    EXPECT_EQ(nsymbols[69], base + 0x50);
    EXPECT_EQ(jat_server_jvm, 0);
    const auto missing = [this](int slot) { return words[(slot + 2) / 32] >> (slot + 2) % 32 & 1; };
    for (int slot = 1; slot < SYMBOL_SLOTS; slot++)
        EXPECT_EQ(missing(slot), nsymbols[slot] == 0) << slot;
    EXPECT_EQ(words[0] & 7, 0u);
}

TEST_F(Library, AStrippedLibraryLeavesLocalNamesMissing) {
    const uint64_t base = Map(Put("server/libjvm.so", ElfImage(EXPORTED, ALL, true).bytes));
    EXPECT_EQ(Find(SYMBOLS_JVM), "");
    EXPECT_EQ(nsymbols[JTI_COLLECTED_HEAP], base + 0x12345678);
    EXPECT_EQ(nsymbols[JTI_ALWAYS_CAPABILITIES], 0u);
    EXPECT_EQ(words[0], 1u << 5 | 1u << 4);
}

// Of several mappings the first readable one that begins as an ELF file counts.
TEST_F(Library, MappingsThatAreNoLibraryArePassedOver) {
    const size_t page = static_cast<size_t>(getpagesize());
    auto *room = static_cast<char *>(mmap(nullptr, 6 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mappings.emplace_back(room, 6 * page);
    const std::string image = ElfImage(EXPORTED, ALL).bytes;
    Map(Put("other/libjvm.so", image), room, PROT_NONE);
    Map(Put("libjvm.so.txt", "no library"), room + page);
    const fs::path cut = Put("other/libjvm.so.cut", image);
    Map(cut, room + 2 * page);
    fs::resize_file(cut, 0); // reading what is mapped of it would fault
    Map(Put("server/libjvm.so", image), room + 4 * page);
    Map(Put("libjvm.so", image), room + 5 * page);
    LogCapture log(LOG_DETAIL + 1);
    EXPECT_EQ(Find(SYMBOLS_JVM), "");
    EXPECT_EQ(nsymbols[JTI_ALWAYS_CAPABILITIES], reinterpret_cast<uint64_t>(room + 4 * page) + 0x2000);
    EXPECT_EQ(log.count("File not ELF"), 1);
    EXPECT_EQ(log.count("findelfhdr: Opened file " + (folder / "server/libjvm.so").string()), 1);
}

// A file that was deleted or replaced since it was mapped is looked for in LD_LIBRARY_PATH. Another library
// must not pass for it: its addresses would be wrong ones.
TEST_F(Library, OnlyTheMappedFileIsRead) {
    const std::string image = ElfImage(EXPORTED, ALL).bytes;
    const ElfImage another(ALL, EXPORTED);
    const uint64_t base = Map(Put("server/libjvm.so", image));
    fs::remove(folder / "server/libjvm.so");
    const std::string notFound = "Qor Agent Error 3: Could not find libjvm.so\n";
    EXPECT_EQ(Find(SYMBOLS_JVM), notFound);
    EXPECT_EQ(words[0], 0x38u);

    setenv("LD_LIBRARY_PATH", (folder / "none").c_str(), 1);
    EXPECT_EQ(Find(SYMBOLS_JVM), notFound);
    Put("other/libjvm.so", another.bytes);
    setenv("LD_LIBRARY_PATH", (folder / "other").c_str(), 1);
    EXPECT_EQ(Find(SYMBOLS_JVM), notFound);
    EXPECT_EQ(words[0], 0x38u);

    Put("libjvm.so", image);
    setenv("LD_LIBRARY_PATH", (folder / "none").string().append(":").append(folder).append(";/x").c_str(), 1);
    EXPECT_EQ(Find(SYMBOLS_JVM), "");
    EXPECT_EQ(nsymbols[JTI_ALWAYS_CAPABILITIES], base + 0x2000);
}

TEST_F(Library, AMissingLibraryIsToldOf) {
    LogCapture log(LOG_NOTE + 1);
    EXPECT_EQ(Find(SYMBOLS_JVM), "Qor Agent WARNING: Library Not Found\n");
    EXPECT_EQ(log.count("QOR Agent: WARNING: LIbrary Not Found"), 1);
    EXPECT_EQ(words[0], 0x38u);
}

// What is wrong with a file is told, and nothing is taken from the table that it is wrong with.
TEST(ElfFile, UnsoundFilesEndTheReading) {
    const char *const noFormat = "Qor Agent Error: File format error\n";
    const char *const noHeader = "Qor Agent Err 4: File Header read error\n";
    struct {
        const char *what;
        std::function<void(ElfImage &)> spoil;
        int32_t filled; // what the tables before the spoilt one give
        const char *told;
    } rows[] = {
        {"sound", [](ElfImage &) {}, 2, ""},
        {"empty", [](ElfImage &e) { e.bytes.clear(); }, 0, noHeader},
        {"a byte short of a header", [](ElfImage &e) { e.bytes.resize(sizeof(Elf64_Ehdr) - 1); }, 0,
         noHeader},
        {"magic", [](ElfImage &e) { e.bytes[3] = 'G'; }, 0, noFormat},
        {"32 bits", [](ElfImage &e) { e.bytes[EI_CLASS] = ELFCLASS32; }, 0, noFormat},
        {"no sections", [](ElfImage &e) { e.header()->e_shnum = 0; }, 0, noFormat},
        {"section headers of another size", [](ElfImage &e) { e.header()->e_shentsize = 40; }, 0, noFormat},
        {"names at the escape value", [](ElfImage &e) { e.header()->e_shstrndx = SHN_XINDEX; }, 0, noFormat},
        {"more sections than the file", [](ElfImage &e) { e.header()->e_shnum = 0xfeff; }, 0, noFormat},
        {"section headers behind the end", [](ElfImage &e) { e.header()->e_shoff = e.bytes.size(); }, 0,
         noFormat},
        {"an offset that wraps", [](ElfImage &e) { e.header()->e_shoff = ~uint64_t{0} - 8; }, 0, noFormat},
        {"entries of no size", [](ElfImage &e) { e.section(e.DYNSYM)->sh_entsize = 0; }, 0, noFormat},
        {"a table past the end", [](ElfImage &e) { e.section(e.SYMTAB)->sh_size = 1 << 20; }, 1, noFormat},
        {"a size that wraps", [](ElfImage &e) { e.section(e.SYMTAB)->sh_size = ~uint64_t{0}; }, 1, noFormat},
        {"an empty table", [](ElfImage &e) { e.section(e.DYNSYM)->sh_size = 0; }, 0, noFormat},
        {"less than an entry", [](ElfImage &e) { e.section(e.SYMTAB)->sh_size = 23; }, 1, ""},
        {"names in no section", [](ElfImage &e) { e.section(e.SYMTAB)->sh_link = e.SECTIONS; }, 1, noFormat},
        {"names that are no names", [](ElfImage &e) { e.section(e.SYMTAB)->sh_link = e.DYNSYM; }, 1,
         noFormat},
        {"names without an end", [](ElfImage &e) { e.section(e.STRTAB)->sh_size--; }, 1, noFormat},
        {"no names at all", [](ElfImage &e) { e.section(e.DYNSTR)->sh_size = 0; }, 0, noFormat},
        {"a name behind the names",
         [](ElfImage &e) {
             for (int i = 1; i <= 4; i++)
                 e.symbol(e.SYMTAB, i)->st_name = static_cast<uint32_t>(e.section(e.STRTAB)->sh_size);
         },
         1, ""},
        {"a name far away", [](ElfImage &e) { e.symbol(e.DYNSYM, 2)->st_name = ~0u; }, 2, ""},
        {"a name that is only asked for",
         [](ElfImage &e) { e.symbol(e.SYMTAB, 2)->st_shndx = e.symbol(e.SYMTAB, 4)->st_shndx = SHN_UNDEF; },
         1, ""},
    };
    for (const auto &row : rows) {
        ElfImage image(EXPORTED, ALL);
        row.spoil(image);
        const Outcome out = Resolve(image.bytes);
        EXPECT_EQ(out.filled, row.filled) << row.what;
        EXPECT_EQ(out.told, row.told) << row.what;
        EXPECT_EQ((out.slots[1] != 0) + (out.slots[2] != 0) + (out.slots[3] != 0), row.filled) << row.what;
    }
}

// Cut anywhere and changed anywhere, a file is read without a stray access (the sanitizers watch), and what
// it gives are addresses of itself.
TEST(ElfFile, NoByteOfItIsTrusted) {
    const std::string sound = ElfImage(EXPORTED, ALL).bytes;
    for (size_t length = 0; length < sound.size(); length++)
        EXPECT_EQ(Resolve(sound.substr(0, length)).filled, 0) << length;
    for (size_t at = 0; at < sound.size(); at++) {
        for (int value : {0x00, 0x01, 0x7f, 0xff}) {
            std::string spoilt = sound;
            spoilt[at] = static_cast<char>(value);
            const Outcome out = Resolve(spoilt, sunsymGCC3);
            for (uint64_t slot : out.slots)
                EXPECT_TRUE(slot == 0 || slot >> 32 == 1) << at;
        }
    }
}

TEST(ElfFile, OnlyRegularFilesAreRead) {
    uint64_t slots[SYMBOL_SLOTS] = {};
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(QorResolveSymbols(ends[0], jtisym, 0, slots), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Qor Agent Err 4: File Header read error\n");
    close(ends[0]);
    close(ends[1]);
}
