// The text dump without a JVM: its file, its numbers, its tags, its date; and what the histogram sorts by.
#include "Descriptors.h"
#include "jvmti/heap/ClassHistogram.h"
#include "jvmti/heap/DumpHeader.h"
#include "jvmti/heap/ObjectTags.h"
#include "platforms/dump_file.h"
#include "platforms/memory_headroom.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Folder : testing::Test {
    Folder() {
        char name[] = "/tmp/heap_dump_partsXXXXXX";
        path = mkdtemp(name);
    }
    ~Folder() override { fs::remove_all(path); }

    std::string In(const std::string &name) const { return (path / name).string(); }

    static std::string Content(const std::string &name) {
        std::ifstream in(name);
        std::ostringstream all;
        all << in.rdbuf();
        return all.str();
    }

    static void Fill(const std::string &name, const std::string &text) {
        fs::create_directories(fs::path(name).parent_path());
        std::ofstream(name) << text;
    }

    fs::path path;
};

struct DumpFiles : Folder {
    QorDumpFile file;
};

struct MemoryHeadroom : Folder {};

TEST_F(DumpFiles, OnlyAPlainFileOfOnesOwnIsTaken) {
    Fill(In("target"), "keep");
    fs::create_symlink(In("target"), In("link"));
    fs::create_hard_link(In("target"), In("other-name"));
    fs::create_directory(In("folder"));
    ASSERT_EQ(mkfifo(In("pipe").c_str(), 0600), 0);
    std::vector<std::string> refused = {"link", "target", "folder", "pipe", "absent/file"};
    if (geteuid() == 0) { // only root can make somebody else's file
        Fill(In("foreign"), "keep");
        ASSERT_EQ(chown(In("foreign").c_str(), 12345, 12345), 0);
        refused.push_back("foreign");
    }
    const int before = OpenDescriptors();
    for (const std::string &name : refused)
        EXPECT_EQ(QorDumpOpen(&file, In(name).c_str(), 64), -1) << name;
    // A pipe that somebody reads opens without waiting, and is still no file.
    const int reader = open(In("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(QorDumpOpen(&file, In("pipe").c_str(), 64), -1);
    close(reader);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Content(In("target")), "keep");
    EXPECT_EQ(Content(In("foreign")), geteuid() == 0 ? "keep" : "");
}

TEST_F(DumpFiles, IsEmptiedAndItsOwnersAlone) {
    Fill(In("old"), std::string(1000, 'x'));
    fs::permissions(In("old"), fs::perms::all);
    for (const char *name : {"old", "new"}) {
        ASSERT_EQ(QorDumpOpen(&file, In(name).c_str(), 64), 0);
        EXPECT_GT(file.fd, 2);
        EXPECT_TRUE(IsCloseOnExec(file.fd));
        QorDumpText(&file, "abc", 3);
        ASSERT_EQ(QorDumpClose(&file), 0);
        struct stat facts;
        ASSERT_EQ(stat(In(name).c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 07777, 0600u) << name;
        EXPECT_EQ(Content(In(name)), "abc");
    }
}

TEST_F(DumpFiles, CountsAreFilledInWhetherTheyHaveLeftTheBufferOrNot) {
    struct Case {
        uint64_t count;
        const char *text;
    };
    const Case cases[] = {{27, "000000001b"},
                          {0, "0000000000"},
                          {0x7fffffff, "007fffffff"},
                          {0xffffffffff, "ffffffffff"},
                          {0x10000000000, "2147483600"}};
    for (int32_t size : {64, 4096}) {
        for (const Case &c : cases) {
            ASSERT_EQ(QorDumpOpen(&file, In("f").c_str(), size), 0);
            QorDumpText(&file, "head ", 5);
            char *p = QorDumpReserve(&file, DUMP_COUNT_WIDTH);
            const int64_t at = QorGetCurrentPos(&file);
            QorDumpCommit(&file, QorPutText(p, "0000000000"));
            const std::string rest(200, 'r');
            QorDumpText(&file, rest.c_str(), 200);
            QorDumpPatchCount(&file, at, c.count);
            QorDumpText(&file, "end", 3);
            ASSERT_EQ(QorDumpClose(&file), 0);
            EXPECT_EQ(Content(In("f")), std::string("head ") + c.text + rest + "end") << size;
        }
    }
}

TEST(DumpNumbers, AreWrittenAsPrintfWritesThem) {
    std::vector<int64_t> values = {0,    9,     10,    99,     100,       101,      999,
                                   1000, 65535, 99999, 100000, INT32_MAX, INT64_MAX};
    for (int64_t v = 1; v > 0 && v < INT64_MAX / 16; v *= 16)
        values.insert(values.end(), {v - 1, v, v + 1});
    for (int64_t v : values) {
        char text[32], expected[32];
        *QorPutSigned(text, v) = 0;
        snprintf(expected, sizeof expected, "%ld", v);
        EXPECT_STREQ(text, expected);
        *QorPutSigned(text, -v) = 0;
        snprintf(expected, sizeof expected, "%ld", -v);
        EXPECT_STREQ(text, expected);
        *QorPutHex(text, static_cast<uint64_t>(v)) = 0;
        snprintf(expected, sizeof expected, "%lx", v);
        EXPECT_STREQ(text, expected);
    }
    char text[32];
    *QorPutSigned(text, INT64_MIN) = 0;
    EXPECT_STREQ(text, "-9223372036854775808");
    *QorPutHex(text, UINT64_MAX) = 0;
    EXPECT_STREQ(text, "ffffffffffffffff");
}

TEST(ObjectTags, KeepNumberAndSizeInEitherRun) {
    for (int32_t run : {0, 1}) {
        for (int64_t size : {1LL, 16LL, 112LL, 0x7fffffffLL, 0x80000000LL, 0x200000000LL}) {
            for (int64_t number : {1L, 100L, 100000L, static_cast<int64_t>(LARGEST_NUMBER)}) {
                const int64_t tag = QorMakeTag(number, size, run);
                int64_t readNumber = 0;
                int32_t readSize = 0;
                QorGetJObjectProp(tag, &readNumber, &readSize);
                EXPECT_EQ(readNumber, number);
                EXPECT_EQ(readSize, std::min<int64_t>(size, INT32_MAX));
                EXPECT_FALSE(QorTagIsStale(tag, run));
                EXPECT_TRUE(QorTagIsStale(tag, !run)); // a size of 2 GiB must not turn the sign over
            }
        }
    }
}

TEST(HeaderDate, TakesTheWordsByTheirPlaces) {
    struct Case {
        const char *text, *date;
        int32_t result;
    };
    const Case cases[] = {
        {"Wed Jun 30 21:49:01 1993\n", "30-Jun-1993 21:49:01", 1},
        {"Wed Jun  1 21:49:01 1993\n", "-Jun-1993\n 1", 1},
        {"a b c d e f g\n", "01-Jan-2010 12:00:00", 0},
        {"a b c d e f g h\n", "01-Jan-2010 12:00:00", 0},
        {"a b c d 12345678901234567890", "c-b-1234 d", 1},
        {nullptr, "01-Jan-2010 12:00:00", 0},
    };
    for (const Case &c : cases) {
        char date[HEADER_DATE_SIZE] = "";
        EXPECT_EQ(QorFormatHeaderDate(c.text, date), c.result) << c.date;
        EXPECT_STREQ(date, c.date);
    }
}

TEST_F(MemoryHeadroom, IsTheLeastOfTheGroupsAround) {
    const std::string root = In("cgroup"), member = In("membership");
    Fill(member, "0::/a/b\n");
    EXPECT_EQ(QorCgroupHeadroom(CGROUP_MEMORY, member.c_str(), root.c_str()),
              UINT64_MAX); // no files: no limit known
    Fill(root + "/a/b/memory.max", "max\n");
    Fill(root + "/a/b/memory.current", "700\n");
    EXPECT_EQ(QorCgroupHeadroom(CGROUP_MEMORY, member.c_str(), root.c_str()), UINT64_MAX);
    Fill(root + "/a/memory.max", "1000\n");
    Fill(root + "/a/memory.current", "900\n");
    Fill(root + "/a/memory.stat", "anon 600\ninactive_file 250\nactive_file 50\n");
    EXPECT_EQ(QorCgroupHeadroom(CGROUP_MEMORY, member.c_str(), root.c_str()), 350u);
    Fill(root + "/memory.max", "950\n"); // a container that sees its own group as the root
    Fill(root + "/memory.current", "940\n");
    EXPECT_EQ(QorCgroupHeadroom(CGROUP_MEMORY, member.c_str(), root.c_str()), 10u);
    Fill(member, "12:cpu,cpuacct:/x\n4:memory:/docker/1\n1:name=systemd:/x\n");
    Fill(root + "/memory/memory.limit_in_bytes", "5000\n");
    Fill(root + "/memory/memory.usage_in_bytes", "4000\n");
    Fill(root + "/memory/memory.stat", "inactive_file 1\ntotal_inactive_file 500\n");
    EXPECT_EQ(QorCgroupHeadroom(CGROUP_MEMORY, member.c_str(), root.c_str()), 1500u);
    EXPECT_EQ(QorCgroupHeadroom(CGROUP_MEMORY, In("absent").c_str(), root.c_str()), UINT64_MAX);
    for (const char *groups : {"0::/a/b\n", "3:pids:/a/b\n"}) {
        const std::string folder = root + (groups[0] == '0' ? "/a" : "/pids/a");
        Fill(member, groups);
        Fill(folder + "/pids.max", "100\n");
        Fill(folder + "/pids.current", "99\n");
        EXPECT_EQ(QorCgroupHeadroom(CGROUP_TASKS, member.c_str(), root.c_str()), 1u) << groups;
    }
}

// A canary stands on either side of the range.
void ExpectSorted(std::vector<int64_t> sizes) {
    constexpr int64_t CANARY = -77;
    std::vector<QorClassCountEntry> entries = {{CANARY, INT64_MAX, "low"}};
    for (int64_t size : sizes)
        entries.push_back({size ^ 5, size, "x"});
    entries.push_back({CANARY, INT64_MIN, "high"});
    const int64_t last = static_cast<int64_t>(entries.size()) - 2;
    QorClassSizeSort(entries.data(), 1, last);
    EXPECT_EQ(entries.front().count, CANARY);
    EXPECT_EQ(entries.back().count, CANARY);
    std::sort(sizes.begin(), sizes.end());
    for (size_t i = 0; i < sizes.size(); i++) {
        ASSERT_EQ(entries[i + 1].size, sizes[i]);
        ASSERT_EQ(entries[i + 1].count, sizes[i] ^ 5) << "count and size went apart";
    }
}

TEST(ClassSizeSort, EndsAndStaysInRangeForAllSizes) {
    constexpr int64_t GIB = 1LL << 30;
    ExpectSorted({});
    ExpectSorted({7});
    ExpectSorted({3 * GIB, 0, 3 * GIB, 2 * GIB, 2 * GIB - 1, 0, 5, 40 * GIB});
    ExpectSorted(std::vector<int64_t>(20000, 16));
    std::vector<int64_t> organPipe, saw, huge;
    for (int64_t i = 0; i < 20000; i++) {
        organPipe.push_back(std::min(i, 20000 - i));
        saw.push_back(i % 7);
        huge.push_back((20000 - i) * GIB);
    }
    ExpectSorted(organPipe);
    ExpectSorted(saw);
    ExpectSorted(huge);
}

} // namespace
