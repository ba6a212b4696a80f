// Heap, collectors and histogram: replies built by hand, and how they are shown.
#include "base/failure.h"
#include "commands/copy.h"
#include "show/render_memory.h"
#include "wire.h"
#include "wire/memory.h"
#include "wire/protocol.h"
#include "wire/records.h"
#include "wire/request.h"

#include <gtest/gtest.h>

using namespace qorctl;

namespace {

const std::string GC = "JVM Garbage Collections;Major GC Count~3;Minor GC Count~4294967295;!";
const std::string HEAP = "JVM Heap Usage;Old~2097152~524288~25~1572864;Nursery~1024~1024~100~0;!";
const std::string MEMORY = "JVM Heap Memory Usage;Heap~0~0~0~0~0~0~0~11721~6172672~!"
                           "JVM Heap Number of Objects;Heap~0~0~0~0~0~0~0~11721~6172672~!";
const std::string SPACES = "JVM Memory Usage;Eden~24576~12~1~24564;Perm~65536~60~1~65476;!";
const std::string COLLECTIONS = "JVM Garbage Collections;Minor~7;Major~2!"; // its last record has no end

TEST(DecodeMemoryViews, HeapAndCollectors) {
    HeapView heap = DecodeHeap(OpenReply(Wire(HEAP + GC + TIMING)));
    MemoryView memory = DecodeMemory(OpenReply(Wire(MEMORY + GC + TIMING)));
    EXPECT_EQ(HeapText(heap, memory, Style()),
              "POOL        USED    MAX   FREE  USED%\n"
              "Old      512.0 M  2.0 G  1.5 G     25\n"
              "Nursery    1.0 M  1.0 M    0 K    100\n"
              "11.4 M used of 5.9 G, 3 Major collections, - Minor collections\n");
    EXPECT_EQ(HeapJson(heap, memory)["pools"][1]["name"], "Nursery");
    std::vector<CollectorBean> beans =
        DecodeCollectors(Wire("JVM Garbage Collectors;G1 Young Generation~1884~98765;Epsilon~-1~-1;!"));
    EXPECT_EQ(CollectorTable(heap.collectors, beans, Style()),
              "COLLECTOR            COLLECTIONS  MILLISECONDS\n"
              "Major                          3\n"
              "Minor                          -\n"
              "G1 Young Generation        1,884        98,765\n"
              "Epsilon                        -             -\n");
    Json json = CollectorsJson(memory, beans);
    EXPECT_TRUE(json["collectors"][1]["count"].is_null());
    EXPECT_EQ(json["jvm_collectors"][0]["milliseconds"], 98765);
    EXPECT_TRUE(DecodeCollectors("NoProcessing: Unkownn argument").empty()) << "an older agent";
}

TEST(DecodeMemoryViews, SpacesOfAJvmReadByAddress) {
    MemoryView memory = DecodeMemory(OpenReply(Wire(SPACES + COLLECTIONS + TIMING)));
    EXPECT_EQ(memory.used_kib, 72);
    EXPECT_EQ(memory.max_kib, 90112);
    EXPECT_EQ(memory.collectors.at(1).count, 2);
    Json json =
        KindsJson(DecodeKinds(OpenReply(Wire("JVM Heap Memory Usage;Perm~1~2~3~4~5~6~7~60~65536;!"
                                             "JVM Heap Number of Objects;Perm~10~20~30~40~50~60~70~0~300;!" +
                                             COLLECTIONS + TIMING))));
    EXPECT_EQ(json["spaces"][0]["kinds"]["symbols"]["kib"], 6);
    const std::string refusal = "Unable to start Heap Dump: no further process is allowed.!";
    EXPECT_THROW(OpenReply(Wire(SPACES + COLLECTIONS + refusal + TIMING)), Failure);
}

TEST(DecodeMemoryViews, WrongRepliesAreRefused) {
    for (const std::string &wrong : {MEMORY + TIMING, SPACES + TIMING})
        EXPECT_THROW(DecodeKinds(OpenReply(Wire(wrong))), Failure) << wrong;
    for (const std::string &wrong : {TIMING, "JVM Heap Usage;Old~1~2~x~4;!" + TIMING, MEMORY + TIMING})
        EXPECT_THROW(DecodeHeap(OpenReply(Wire(wrong))), Failure) << wrong;
    for (const std::string &wrong : {HEAP + TIMING, "JVM Heap Memory Usage;Heap~0~0~0~0~0~0~0~1~!" + TIMING})
        EXPECT_THROW(DecodeMemory(OpenReply(Wire(wrong))), Failure) << wrong;
    for (const std::string &wrong : {"JVM Class Details;!" + TIMING, "JVM Class Details;[I~1~2;!" + TIMING})
        EXPECT_THROW(DecodeHistogram(OpenReply(Wire(wrong))), Failure) << wrong;
}

TEST(DecodeMemoryViews, Histogram) {
    // The signature of a class ends in the very sign that is a record's end here.
    std::string text =
        Wire("JVM Class Details;[[B~1234567~4194304~;") + "La/B;" + Wire("~2~0~;NULL~1~0~;!" + TIMING);
    Histogram histogram = DecodeHistogram(OpenReply(text));
    ASSERT_EQ(histogram.classes.size(), 3u);
    EXPECT_EQ(HistogramText(histogram, 2, Style()),
              "INSTANCES   SIZE  CLASS\n"
              "1,234,567  4.0 G  byte[][]\n"
              "        2    0 K  a.B\n"
              "the largest 2 of 3 classes reported by the agent; --top shows more\n"
              "321 us in the JVM\n");
    EXPECT_EQ(HistogramJson(histogram, 1)["classes"].size(), 1u);
    EXPECT_EQ(HistogramJson(histogram, 9)["classes"][1]["class"], "a.B");
    histogram =
        DecodeHistogram(OpenReply(Wire("JVM Class Details;[B~1~2~;!JVM Class Details Age;42~!" + TIMING)));
    EXPECT_EQ(histogram.age_seconds, 42);
    EXPECT_NE(HistogramText(histogram, 2, Style()).find("the heap of 42 s ago"), std::string::npos);
    EXPECT_TRUE(DecodeHistogram(OpenReply(Wire("JVM Class Details;[B~1~2~;[I~3"))).cut);
}

TEST(DecodeMemoryViews, NamesSizesAndRequests) {
    const std::pair<const char *, const char *> names[] = {{"Ljava/util/Map$Entry;", "java.util.Map$Entry"},
                                                           {"[Ljava/lang/String;", "java.lang.String[]"},
                                                           {"[[J", "long[][]"},
                                                           {"L;", "L;"},
                                                           {"[", "["},
                                                           {"", ""}};
    for (auto [signature, name] : names)
        EXPECT_EQ(JavaName(signature), name);
    const std::pair<int64_t, const char *> sizes[] = {{0, "0 K"},         {1023, "1023 B"},
                                                      {1024, "1 K"},      {512000, "500 K"},
                                                      {1048576, "1.0 M"}, {1610612736, "1.5 G"}};
    for (auto [bytes, text] : sizes)
        EXPECT_EQ(SizeText(bytes), text);
    const std::pair<int64_t, const char *> counts[] = {{999, "999"}, {1000, "1,000"}, {-123456, "-123,456"}};
    for (auto [count, text] : counts)
        EXPECT_EQ(CountText(count), text);
    std::vector<Collector> before = {{"Major", 3}, {"Minor", {}}}, now = {{"Major", 5}, {"Minor", 7}};
    EXPECT_EQ(CollectorLine(now, before).substr(8), "          5         +2          7           \n");
    EXPECT_EQ(HeapRequest(false), "521|showstack|128");
    EXPECT_EQ(MemoryRequest(true), "9|showmem|128");
    EXPECT_EQ(HistogramRequest(FLAG_COPY), "2569|showmem|512|ClassHistogramOnly");
}

TEST(CopyChoice, FollowsTheAgentsAnswer) {
    const std::string copied = "by a copy of the JVM, which was paused for the copying alone\n";
    const struct {
        const char *reply;
        uint32_t flags;
        std::string note;
    } rows[] = {
        {"forkstate=1 forkdump=0 ", FLAG_COPY, copied},
        {"forkstate=0 forkdump=0 too small", 0, "the JVM was paused for it: too small\n"},
        {"forkstate=0 forkdump=1 too small", 0, copied},
        {"NoProcessing: Unkownn argument", 0,
         "the JVM was paused for it: the agent is of a version without copies\n"},
    };
    for (const auto &row : rows) {
        CopyChoice choice = ChooseCopy(row.reply);
        EXPECT_EQ(choice.flags, row.flags) << row.reply;
        EXPECT_EQ(choice.Note(), row.note) << row.reply;
        EXPECT_EQ(choice.copied, row.note == copied) << row.reply;
    }
}

} // namespace
