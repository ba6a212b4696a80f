// The lookup of symbols in a library that is mapped as the JVM's is, beside what the loader says of it.
#include "Descriptors.h"
#include "Folder.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/symbol_lists.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

struct Library : testing::Test, Folder {
    ~Library() override {
        dlclose(loaded);
        unsetenv("LD_LIBRARY_PATH");
    }
    // A copy of the library's file.
    std::string Copy(const std::string &name) const {
        std::filesystem::create_directories((path / name).parent_path());
        std::filesystem::copy_file(QOR_LIBRARY, path / name);
        return In(name);
    }
    // Whether both symbols are found where they are; without the full table the exported one alone.
    bool IsFound(bool isStripped = false) {
        std::fill(words, words + SYMBOL_WORDS, 0u);
        findsymbols(getpid(), SYMBOLS_JVM, words);
        const auto where = reinterpret_cast<char *(*)()>(dlsym(loaded, "WhereAlwaysIs"));
        void *const heap = dlsym(loaded, "_ZN8Universe14_collectedHeapE"), *none = nullptr;
        return nsymbols[JTI_COLLECTED_HEAP] == reinterpret_cast<uint64_t>(heap) &&
               nsymbols[JTI_ALWAYS_CAPABILITIES] == reinterpret_cast<uint64_t>(isStripped ? none : where());
    }

    void *loaded = nullptr;
    uint32_t words[SYMBOL_WORDS];
};

} // namespace

// A name that is missing has its bit, and no descriptor stays open. A file that was deleted or replaced since
// it was mapped is looked for in LD_LIBRARY_PATH. Another library must not pass for it: its addresses would
// be wrong ones.
TEST_F(Library, SymbolsAreThoseOfTheMappedFile) {
    const int descriptors = OpenDescriptors();
    loaded = dlopen(Copy("server/libjvm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(loaded) << dlerror();
    EXPECT_TRUE(IsFound());
    EXPECT_EQ(words[0], 1u << 5);
    ASSERT_EQ(system(("strip " + Copy("other/libjvm.so")).c_str()), 0);
    std::filesystem::remove(In("server/libjvm.so"));
    Copy("libjvm.so");
    setenv("LD_LIBRARY_PATH", In("other").c_str(), 1);
    EXPECT_FALSE(IsFound());
    setenv("LD_LIBRARY_PATH", (In("none") + ":" + path.string() + ";/x").c_str(), 1);
    EXPECT_TRUE(IsFound());
    dlclose(loaded);
    loaded = dlopen(In("other/libjvm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    EXPECT_TRUE(IsFound(true));
    EXPECT_EQ(words[0], 1u << 5 | 1u << 4);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}
