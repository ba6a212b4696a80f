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

TEST(DumpFiles, AreOnesOwnAloneAndEmptied) {
    const Folder folder;
    std::filesystem::create_hard_link(folder.Fill("target", "keep"), folder.In("other-name"));
    std::filesystem::create_symlink(folder.Fill("own", "keep"), folder.In("link"));
    ASSERT_EQ(mkfifo(folder.In("pipe").c_str(), 0600), 0);
    std::vector<const char *> refused = {"target", "other-name", "link", "pipe"};
    if (chown(folder.Fill("foreign", "keep").c_str(), 12345, 12345) == 0) // root can
        refused.push_back("foreign");
    QorDumpFile file;
    for (const char *name : refused)
        EXPECT_EQ(QorDumpOpen(&file, folder.In(name).c_str(), 64), -1) << name;
    for (const char *name : {"target", "own", "foreign"})
        EXPECT_EQ(folder.Content(name), "keep");
    std::filesystem::permissions(folder.Fill("old", "xxxx"), std::filesystem::perms::all);
    ASSERT_EQ(QorDumpOpen(&file, folder.In("old").c_str(), 64), 0);
    EXPECT_TRUE(file.fd > 2 && IsCloseOnExec(file.fd));
    ASSERT_EQ(QorDumpClose(&file), 0);
    EXPECT_EQ(std::filesystem::status(folder.In("old")).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(folder.Content("old"), "");
}

TEST(ObjectTags, KeepNumberAndSizeInEitherRun) {
    for (int32_t run : {0, 1})
        for (int64_t size : {112L, 0x80000000L, 0x200000000L}) {
            const int64_t tag = QorMakeTag(LARGEST_NUMBER, size, run);
            int64_t readNumber = 0;
            int32_t readSize = 0;
            QorGetJObjectProp(tag, &readNumber, &readSize);
            EXPECT_EQ(readNumber, LARGEST_NUMBER);
            EXPECT_EQ(readSize, std::min<int64_t>(size, INT32_MAX));
            EXPECT_TRUE(!QorTagIsStale(tag, run) &&
                        QorTagIsStale(tag, !run)); // a great size must not turn the sign over
        }
}

TEST(MemoryHeadroom, IsTheLeastOfTheGroupsAround) {
    const Folder folder;
    const auto left = [&](const char *membership, QorCgroupResource of = CGROUP_MEMORY) {
        return QorCgroupHeadroom(of, folder.Fill("membership", membership).c_str(),
                                 folder.In("cgroup").c_str());
    };
    const auto limit = [&](const std::string &group, const char *most, const char *used) {
        folder.Fill("cgroup/" + group + "memory.max", most);
        folder.Fill("cgroup/" + group + "memory.current", used);
    };
    EXPECT_EQ(left("0::/a/b\n"), UINT64_MAX); // no files: no limit known
    limit("a/b/", "max\n", "700\n");
    EXPECT_EQ(left("0::/a/b\n"), UINT64_MAX);
    limit("a/", "1000\n", "900\n");
    folder.Fill("cgroup/a/memory.stat", "anon 600\ninactive_file 250\nactive_file 50\n");
    EXPECT_EQ(left("0::/a/b\n"), 350u);
    limit("", "950\n", "940\n"); // a container that sees its own group as the root
    EXPECT_EQ(left("0::/a/b\n"), 10u);
    folder.Fill("cgroup/memory/memory.limit_in_bytes", "5000\n");
    folder.Fill("cgroup/memory/memory.usage_in_bytes", "4000\n");
    folder.Fill("cgroup/memory/memory.stat", "inactive_file 1\ntotal_inactive_file 500\n");
    EXPECT_EQ(left("12:cpu,cpuacct:/x\n4:memory:/docker/1\n1:name=systemd:/x\n"), 1500u);
    folder.Fill("cgroup/a/pids.max", "100\n");
    folder.Fill("cgroup/a/pids.current", "99\n");
    EXPECT_EQ(left("0::/a/b\n", CGROUP_TASKS), 1u);
}

TEST(ClassSizeSort, EndsForAllSizes) {
    for (const auto size : {+[](int64_t) { return 16L; }, +[](int64_t i) { return std::min(i, 20000 - i); },
                            +[](int64_t i) { return (20000 - i) << 30; }}) {
        std::vector<QorClassCountEntry> entries;
        for (int64_t i = 0; i < 20000; i++)
            entries.push_back({size(i) ^ 5, size(i), "x"});
        QorClassSizeSort(entries.data(), 0, 19999);
        for (size_t i = 0; i < entries.size(); i++)
            ASSERT_TRUE(entries[i].count == (entries[i].size ^ 5) &&
                        (i == 0 || entries[i - 1].size <= entries[i].size));
    }
}

} // namespace
