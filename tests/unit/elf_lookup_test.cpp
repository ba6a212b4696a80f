// The lookup of the JVM library's symbols: where the library is, and what its file says, be it what it may.
#include "Descriptors.h"
#include "ElfImage.h"
#include "Folder.h"
#include "LogCapture.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/symbol_lists.h"
#include "qorsettings.h"

#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr char HEAP[] = "_ZN8Universe14_collectedHeapE";
constexpr char ALWAYS[] = "_ZN23JvmtiManageCapabilities19always_capabilitiesE";
constexpr char NOT_FOUND[] = "Qor Agent Error 3: Could not find libjvm.so\n";

const ElfImage::Symbols EXPORTED = {{"JVM_Sleep", 0x1000}, {HEAP, 0x7712345678}};
const ElfImage::Symbols ALL = {{"local", 0x10}, {ALWAYS, 0x2000}, {HEAP, 0x3000}, {ALWAYS, 0x4000}};

// What a call prints on stderr.
std::string Said(const std::function<void()> &call) {
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

// How many slots the reading of this file fills; what it fills are addresses in it.
int32_t Resolve(const std::string &bytes, const char *list = jtisym) {
    const int fd = memfd_create("image", MFD_CLOEXEC);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    uint64_t slots[SYMBOL_SLOTS] = {};
    int32_t filled = 0, seen = 0;
    Said([&] { filled = QorResolveSymbols(fd, list, 0x100000000, slots); });
    for (uint64_t slot : slots) {
        EXPECT_TRUE(slot == 0 || slot >> 32 == 1);
        seen += slot != 0;
    }
    EXPECT_EQ(seen, filled);
    close(fd);
    return filled;
}

// Libraries, one of which is mapped where the JVM would have it.
struct Library : testing::Test, Folder {
    ~Library() override {
        for (const auto &mapping : mappings)
            munmap(mapping.first, mapping.second);
        unsetenv("LD_LIBRARY_PATH");
    }

    // Maps a file, at `where` when that isn't null.
    uint64_t Map(const std::string &path, void *where = nullptr, int rights = PROT_READ) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const size_t size = std::filesystem::file_size(path);
        void *at = mmap(where, size, rights, MAP_PRIVATE | (where ? MAP_FIXED : 0), fd, 0);
        close(fd);
        mappings.emplace_back(at, size);
        return reinterpret_cast<uint64_t>(at);
    }
    // findsymbols for `key`: what it says; the bits of missing symbols are in `words`.
    std::string Find(const char *key) {
        std::fill(words, words + SYMBOL_WORDS, 0u);
        return Said([&] { findsymbols(getpid(), key, words); });
    }

    const std::string image = ElfImage(EXPORTED, ALL).bytes;
    uint32_t words[SYMBOL_WORDS];
    std::vector<std::pair<void *, size_t>> mappings;
};

} // namespace

// Exported names come from the first table and win; the others come from the second, where a strip leaves it.
// Values are cut to 32 bits, a name that is missing has its bit, and no descriptor stays open.
TEST_F(Library, SymbolsAreFoundWhereTheLibraryIsMapped) {
    for (bool stripped : {false, true}) {
        const int descriptors = OpenDescriptors();
        const uint64_t base = Map(Fill("server/libjvm.so", ElfImage(EXPORTED, ALL, stripped).bytes));
        EXPECT_EQ(Find(SYMBOLS_JVM), "");
        EXPECT_EQ(nsymbols[JTI_COLLECTED_HEAP], base + 0x12345678);
        EXPECT_EQ(nsymbols[JTI_ALWAYS_CAPABILITIES], stripped ? 0 : base + 0x2000);
        EXPECT_EQ(nsymbols[JTI_OLD_ACTIONS], 0u);
        EXPECT_EQ(words[0], stripped ? 1u << 5 | 1u << 4 : 1u << 5);
        EXPECT_EQ(OpenDescriptors(), descriptors);
        munmap(mappings.back().first, mappings.back().second);
        mappings.clear();
    }
}

// Of several mappings the first readable one that begins as an ELF file counts.
TEST_F(Library, MappingsThatAreNoLibraryArePassedOver) {
    const size_t page = static_cast<size_t>(getpagesize());
    auto *room = static_cast<char *>(mmap(nullptr, 6 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mappings.emplace_back(room, 6 * page);
    Map(Fill("other/libjvm.so", image), room, PROT_NONE);
    Map(Fill("libjvm.so.txt", "no library"), room + page);
    Map(Fill("other/libjvm.so.cut", image), room + 2 * page);
    std::filesystem::resize_file(In("other/libjvm.so.cut"), 0); // reading what is mapped of it would fault
    Map(Fill("server/libjvm.so", image), room + 4 * page);
    Map(Fill("libjvm.so", image), room + 5 * page);
    EXPECT_EQ(Find(SYMBOLS_JVM), "");
    EXPECT_EQ(nsymbols[JTI_ALWAYS_CAPABILITIES], reinterpret_cast<uint64_t>(room + 4 * page) + 0x2000);
}

// A file that was deleted or replaced since it was mapped is looked for in LD_LIBRARY_PATH. Another library
// must not pass for it: its addresses would be wrong ones.
TEST_F(Library, OnlyTheMappedFileIsRead) {
    const uint64_t base = Map(Fill("server/libjvm.so", image));
    std::filesystem::remove(In("server/libjvm.so"));
    EXPECT_EQ(Find(SYMBOLS_JVM), NOT_FOUND);
    Fill("other/libjvm.so", ElfImage(ALL, EXPORTED).bytes);
    setenv("LD_LIBRARY_PATH", In("other").c_str(), 1);
    EXPECT_EQ(Find(SYMBOLS_JVM), NOT_FOUND);
    Fill("libjvm.so", image);
    setenv("LD_LIBRARY_PATH", (In("none") + ":" + path.string() + ";/x").c_str(), 1);
    EXPECT_EQ(Find(SYMBOLS_JVM), "");
    EXPECT_EQ(nsymbols[JTI_ALWAYS_CAPABILITIES], base + 0x2000);
}

// Nothing is taken from a table that something is wrong with.
TEST(ElfFile, UnsoundFilesEndTheReading) {
    struct {
        const char *what;
        std::function<void(ElfImage &)> spoil;
        int32_t filled; // from the tables before the spoilt one
    } rows[] = {
        {"32 bits", [](ElfImage &e) { e.bytes[EI_CLASS] = ELFCLASS32; }, 0},
        {"entries of no size", [](ElfImage &e) { e.section(e.DYNSYM)->sh_entsize = 0; }, 0},
        {"a size that wraps", [](ElfImage &e) { e.section(e.SYMTAB)->sh_size = ~uint64_t{0}; }, 1},
        {"names that are no names", [](ElfImage &e) { e.section(e.SYMTAB)->sh_link = e.DYNSYM; }, 1},
        {"names without an end", [](ElfImage &e) { e.section(e.STRTAB)->sh_size--; }, 1},
        {"a name that is only asked for",
         [](ElfImage &e) { e.symbol(e.SYMTAB, 2)->st_shndx = e.symbol(e.SYMTAB, 4)->st_shndx = SHN_UNDEF; },
         1},
    };
    for (const auto &row : rows) {
        ElfImage spoilt(EXPORTED, ALL);
        row.spoil(spoilt);
        EXPECT_EQ(Resolve(spoilt.bytes), row.filled) << row.what;
    }
}

// Cut anywhere and changed anywhere, a file is read without a stray access (the sanitizers watch).
TEST(ElfFile, NoByteOfItIsTrusted) {
    const std::string sound = ElfImage(EXPORTED, ALL).bytes;
    for (size_t length = 0; length < sound.size(); length++)
        EXPECT_EQ(Resolve(sound.substr(0, length)), 0) << length;
    for (size_t at = 0; at < sound.size(); at++)
        for (int value : {0x00, 0x01, 0x7f, 0xff}) {
            std::string spoilt = sound;
            spoilt[at] = static_cast<char>(value);
            Resolve(spoilt, sunsymGCC3);
        }
}
