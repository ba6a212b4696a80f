// The text dump without a JVM: its file, its numbers, its tags, its date; and what the histogram sorts by.
#include "Descriptors.h"
#include "Folder.h"
#include "jvmti/heap/ClassHistogram.h"
#include "jvmti/heap/DumpHeader.h"
#include "jvmti/heap/ObjectTags.h"
#include "platforms/dump_file.h"
#include "platforms/memory_headroom.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct DumpFiles : testing::Test, Folder {
    int32_t Open(const std::string &name, int32_t size = 64) {
        return QorDumpOpen(&file, In(name).c_str(), size);
    }
    QorDumpFile file;
};

TEST_F(DumpFiles, OnlyAPlainFileOfOnesOwnIsTaken) {
    Fill("target", "keep");
    std::filesystem::create_symlink(In("target"), In("link"));
    std::filesystem::create_hard_link(In("target"), In("other-name"));
    std::filesystem::create_directory(In("folder"));
    ASSERT_EQ(mkfifo(In("pipe").c_str(), 0600), 0);
    std::vector<std::string> refused = {"link", "target", "folder", "pipe", "absent/file"};
    if (geteuid() == 0 && chown(Fill("foreign", "keep").c_str(), 12345, 12345) == 0)
        refused.push_back("foreign");
    const int before = OpenDescriptors();
    for (const std::string &name : refused)
        EXPECT_EQ(Open(name), -1) << name;
    // A pipe that somebody reads opens without waiting, and still isn't a file.
    const int reader = open(In("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(Open("pipe"), -1);
    close(reader);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Content("target"), "keep");
}

TEST_F(DumpFiles, IsEmptiedAndItsOwnersAlone) {
    std::filesystem::permissions(Fill("old", std::string(1000, 'x')), std::filesystem::perms::all);
    for (const char *name : {"old", "new"}) {
        ASSERT_EQ(Open(name), 0);
        EXPECT_GT(file.fd, 2);
        EXPECT_TRUE(IsCloseOnExec(file.fd));
        QorDumpText(&file, "abc", 3);
        ASSERT_EQ(QorDumpClose(&file), 0);
        struct stat facts;
        ASSERT_EQ(stat(In(name).c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 07777, 0600u) << name;
        EXPECT_EQ(Content(name), "abc");
    }
}

TEST(DumpNumbers, AreWrittenAsPrintfWritesThem) {
    std::vector<int64_t> values = {0, INT64_MIN, INT64_MAX};
    for (int64_t base : {10, 16})
        for (int64_t v = 1; v < INT64_MAX / 16; v *= base)
            values.insert(values.end(), {v - 1, v, -v});
    for (int64_t v : values) {
        char text[32], expected[32];
        *QorPutSigned(text, v) = 0;
        EXPECT_EQ(text, std::to_string(v));
        *QorPutHex(text, static_cast<uint64_t>(v)) = 0;
        snprintf(expected, sizeof expected, "%lx", v);
        EXPECT_STREQ(text, expected);
    }
}

TEST(ObjectTags, KeepNumberAndSizeInEitherRun) {
    for (int32_t run : {0, 1})
        for (int64_t size : {1L, 112L, 0x7fffffffL, 0x80000000L, 0x200000000L})
            for (int64_t number : {1L, 100000L, static_cast<int64_t>(LARGEST_NUMBER)}) {
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

TEST(MemoryHeadroom, IsTheLeastOfTheGroupsAround) {
    const Folder folder;
    const auto left = [&](const char *membership, QorCgroupResource of = CGROUP_MEMORY) {
        return QorCgroupHeadroom(of, folder.Fill("membership", membership).c_str(),
                                 folder.In("cgroup").c_str());
    };
    EXPECT_EQ(left("0::/a/b\n"), UINT64_MAX); // no files: no limit known
    folder.Fill("cgroup/a/b/memory.max", "max\n");
    folder.Fill("cgroup/a/b/memory.current", "700\n");
    EXPECT_EQ(left("0::/a/b\n"), UINT64_MAX);
    folder.Fill("cgroup/a/memory.max", "1000\n");
    folder.Fill("cgroup/a/memory.current", "900\n");
    folder.Fill("cgroup/a/memory.stat", "anon 600\ninactive_file 250\nactive_file 50\n");
    EXPECT_EQ(left("0::/a/b\n"), 350u);
    folder.Fill("cgroup/memory.max", "950\n"); // a container that sees its own group as the root
    folder.Fill("cgroup/memory.current", "940\n");
    EXPECT_EQ(left("0::/a/b\n"), 10u);
    folder.Fill("cgroup/memory/memory.limit_in_bytes", "5000\n");
    folder.Fill("cgroup/memory/memory.usage_in_bytes", "4000\n");
    folder.Fill("cgroup/memory/memory.stat", "inactive_file 1\ntotal_inactive_file 500\n");
    EXPECT_EQ(left("12:cpu,cpuacct:/x\n4:memory:/docker/1\n1:name=systemd:/x\n"), 1500u);
    for (const char *pids : {"cgroup/a/pids", "cgroup/pids/a/pids"}) {
        folder.Fill(std::string(pids) + ".max", "100\n");
        folder.Fill(std::string(pids) + ".current", "99\n");
    }
    EXPECT_EQ(left("0::/a/b\n", CGROUP_TASKS), 1u);
    EXPECT_EQ(left("3:pids:/a/b\n", CGROUP_TASKS), 1u);
}

TEST(ClassSizeSort, EndsAndStaysInRangeForAllSizes) {
    std::vector<int64_t> equal(20000, 16), organPipe, huge;
    for (int64_t i = 0; i < 20000; i++) {
        organPipe.push_back(std::min(i, 20000 - i));
        huge.push_back((20000 - i) << 30);
    }
    for (std::vector<int64_t> sizes : {{}, equal, organPipe, huge}) {
        std::vector<QorClassCountEntry> entries = {{-77, INT64_MAX, "low"}}; // a canary on either side
        for (int64_t size : sizes)
            entries.push_back({size ^ 5, size, "x"});
        entries.push_back({-77, INT64_MIN, "high"});
        QorClassSizeSort(entries.data(), 1, static_cast<int64_t>(sizes.size()));
        EXPECT_EQ(entries.front().count + entries.back().count, 2 * -77);
        std::sort(sizes.begin(), sizes.end());
        for (size_t i = 0; i < sizes.size(); i++) {
            ASSERT_EQ(entries[i + 1].size, sizes[i]);
            ASSERT_EQ(entries[i + 1].count, sizes[i] ^ 5) << "count and size went apart";
        }
    }
}

} // namespace
