// Heap, collectors and histogram: replies built by hand, and how they are shown.
#include "commands/copy.h"
#include "show/render_memory.h"
#include "wire.h"
#include "wire/memory.h"
#include "wire/records.h"

using namespace qorctl;

namespace {

TEST(DecodeMemoryViews, HeapAndCollectors) {
    HeapView heap =
        DecodeHeap(OpenReply(Wire("JVM Heap Usage;Old~2097152~524288~25~1572864;!JVM Garbage Collections;"
                                  "Major GC Count~3;Minor GC Count~4294967295;!" +
                                  TIMING)));
    std::vector<CollectorBean> beans =
        DecodeCollectors(Wire("JVM Garbage Collectors;G1 Young Generation~1884~98765;Epsilon~-1~-1;!"));
    EXPECT_EQ(CollectorTable(heap.collectors, beans, Style()),
              "COLLECTOR            COLLECTIONS  MILLISECONDS\n"
              "Major                          3\n"
              "Minor                          -\n"
              "G1 Young Generation        1,884        98,765\n"
              "Epsilon                        -             -\n");
    const std::vector<Collector> before = {{"Major", 3}, {"Minor", {}}}, now = {{"Major", 5}, {"Minor", 7}};
    EXPECT_EQ(CollectorLine(now, before).substr(8), "          5         +2          7           \n");
}

TEST(DecodeMemoryViews, SpacesOfAJvmReadByAddress) {
    const std::string reply = "JVM Memory Usage;Eden~24576~12~1~24564;Perm~65536~60~1~65476;!"
                              "JVM Garbage Collections;Minor~7;Major~2!"; // its last record has no end
    MemoryView memory = DecodeMemory(OpenReply(Wire(reply + TIMING)));
    EXPECT_TRUE(memory.used_kib == 72 && memory.max_kib == 90112 && memory.collectors.at(1).count == 2);
    EXPECT_THROW(
        OpenReply(Wire(reply + "Unable to start Heap Dump: no further process is allowed.!" + TIMING)),
        Failure);
}

TEST(DecodeMemoryViews, KindsOfASpace) {
    const std::string sizes = "JVM Heap Memory Usage;Eden~1~2~3~4~5~6~7~30~99;!",
                      counts = "JVM Heap Number of Objects;Eden~1~0~3~0~0~0~0~0~9;!";
    const auto spaces = DecodeKinds(OpenReply(Wire(sizes + counts + TIMING)));
    ExpectParts(KindsText(spaces, Style()),
                {"Eden   instances        3   3 K\n", "Eden   other            5     -\n",
                 "Eden   all              9  30 K\n"});
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
    text = Wire("JVM Class Details;[B~1~2~;!JVM Class Details Age;42~!" + TIMING);
    ExpectParts(HistogramText(DecodeHistogram(OpenReply(text)), 2, Style()), {"the heap of 42 s ago"});
}

TEST(DecodeMemoryViews, NamesAndSizes) {
    EXPECT_EQ(JavaName("[Ljava/util/Map$Entry;") + JavaName("L;") + JavaName("["),
              "java.util.Map$Entry[]L;[");
    for (auto [bytes, text] : {std::pair(0, "0 K"), {1023, "1023 B"}, {512000, "500 K"}, {1048576, "1.0 M"}})
        EXPECT_EQ(SizeText(bytes), text);
    EXPECT_EQ(CountText(-123456), "-123,456");
}

} // namespace
