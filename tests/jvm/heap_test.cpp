// Heap, collectors, histogram and dumps, against what the JVM itself says of the same heap.
#include "AgentNatives.h"
#include "Descriptors.h"
#include "DumpFolder.h"
#include "DumpReaders.h"
#include "LogCapture.h"
#include "RequestHandler/RequestHandler.h"
#include "RequestHandler/memory_views.h"
#include "jvmti/heap/ClassHistogram.h"
#include "jvmti/heap/DumpState.h"
#include "jvmti/heap/GCSystem.h"
#include "jvmti/heap/HeapDump.h"
#include "jvmti/heap/HeapSummary.h"
#include "jvmti/heap/LibraryDump.h"
#include "jvmti/heap/MemorySystem.h"
#include "platforms/dump_file.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char SHOP[] = "qoragent/testing/HeapShop";
constexpr char NODE[] = "qoragent/testing/HeapShop$Node", LEAF[] = "qoragent/testing/HeapShop$Leaf";
constexpr int64_t NODES = 1234, LEAVES = 77, ELEMENTS = 27, LONG_INTS = 12345, LONG_BYTES = 54321;

std::string Signature(const char *klass) {
    return std::string("L") + klass + ";";
}

std::string FileText(const std::string &name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

// The filled shop in an open session.
struct Heap : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        QorSetManagementGCCountCapability(1);
        CallVoid(SHOP, "fill", "()V");
        CallVoid(SHOP, "gc", "()V");
    }
    void TearDown() override {
        gbiDumpBufferSize = DUMP_BUFFER_SIZE;
        CallVoid(SHOP, "empty", "()V");
        SessionTest::TearDown();
    }

    TextDump Dump() {
        EXPECT_EQ(QorHeapDump(in("dump").c_str()), 0);
        TextDump dump = TextDump::Read(in("dump"));
        EXPECT_EQ(dump.error, "");
        EXPECT_TRUE(std::regex_match(dump.trailer, std::regex(" Finished [0-9]+ secs"))) << dump.trailer;
        return dump;
    }

    HprofDump Hprof() {
        qor_vm = jr_jvm;
        EXPECT_EQ(QorHprofHeapDump(in("dump.hprof").c_str(), 1), 0);
        EXPECT_EQ(gbLibraryDumpWritten, 1);
        HprofDump dump = HprofDump::Read(in("dump.hprof"));
        EXPECT_EQ(dump.error, "");
        return dump;
    }

    DumpFolder in;
};

using Section = std::vector<std::vector<std::string>>; // records of fields

// Sections of a reply by title; a record ends with 30, a section with 31.
std::map<std::string, Section> Sections(const std::string &reply) {
    std::map<std::string, Section> sections;
    std::istringstream all(reply);
    for (std::string section; std::getline(all, section, '\x1f');) {
        std::istringstream records(section);
        std::string title, record;
        std::getline(records, title, '\x1e');
        Section &rows = sections[title];
        while (std::getline(records, record, '\x1e')) {
            rows.emplace_back();
            for (size_t at = 0, next; at <= record.size(); at = next + 1) {
                next = std::min(record.find('\x1d', at), record.size());
                rows.back().push_back(record.substr(at, next - at));
            }
        }
    }
    return sections;
}

std::string ShowMemory(const char *path) {
    static std::vector<char> page(PAGEBUF_SIZE);
    page[0] = 0;
    QorHandleShowMemRequest(page.data(), 8, path, 0);
    return page.data();
}

TEST_F(Heap, TextDumpHoldsWhatHprofHolds) {
    const TextDump text = Dump();
    const HprofDump hprof = Hprof();
    EXPECT_EQ(text.InstancesOf(Signature(NODE)), NODES);
    EXPECT_EQ(text.InstancesOf(Signature(LEAF)), LEAVES);
    for (const char *klass : {NODE, LEAF, "qoragent/testing/HeapShop$Unused"}) {
        const auto found = hprof.instances.find(klass);
        EXPECT_EQ(text.InstancesOf(Signature(klass)), found == hprof.instances.end() ? 0 : found->second)
            << klass;
    }
    const int64_t nodeArray = text.ClassNumber("[" + Signature(NODE));
    int64_t counted = 0, ints = 0, bytes = 0;
    for (const TextDump::Array &a : text.arrays) {
        ASSERT_TRUE(a.elements < 0 || a.elements == a.count) << "array " << a.number;
        counted += a.klass == nodeArray ? a.count : 0;
        ints += a.count == LONG_INTS && text.classNames.at(a.klass) == "[I";
        bytes += a.count == LONG_BYTES && text.classNames.at(a.klass) == "[B";
    }
    EXPECT_EQ(counted, ELEMENTS);
    EXPECT_EQ(counted, hprof.elements.at("[" + Signature(NODE)));
    EXPECT_EQ(ints, (hprof.primitiveArrays.at({10, LONG_INTS})));
    EXPECT_EQ(ints, 2);
    EXPECT_EQ(bytes, (hprof.primitiveArrays.at({8, LONG_BYTES})));
    EXPECT_EQ(text.ClassNumber("[I") < 100, true);
    EXPECT_GT(text.objects, NODES);
    EXPECT_GT(text.locals, 0);
}

// The JVM's walk doesn't report the own fields of Class instances.
TEST_F(Heap, TextDumpHoldsWhatOnlyClassInstancesHold) {
    CallVoid(SHOP, "holdByClass", "(I)V", 500);
    const char *byClass = "qoragent/testing/HeapShop$ByClass";
    EXPECT_EQ(Dump().InstancesOf(Signature(byClass)), 500);
    EXPECT_EQ(Hprof().instances.at(byClass), 500);
}

TEST_F(Heap, LocalsOfVirtualThreadsAreNoObjectsOfTheClass) {
    const int64_t threads = CallLong(SHOP, "parkVirtual", "(I)J", 100);
    if (!threads)
        GTEST_SKIP() << "this JVM has no virtual threads";
    const TextDump text = Dump();
    const std::string unheld = Signature("qoragent/testing/HeapShop$Unheld");
    EXPECT_EQ(text.InstancesOf(unheld), 0);
    int64_t locals = 0;
    const std::string line = "\nSa" + std::to_string(text.ClassNumber(unheld)) + "|Thread-";
    for (size_t at = 0; (at = text.body.find(line, at)) != std::string::npos; at++)
        locals++;
    EXPECT_EQ(locals, threads);
    CallVoid(SHOP, "unpark", "()V");
}

TEST_F(Heap, ReferencesOfTheTextDumpAreTheFieldsOfTheObjects) {
    const TextDump text = Dump();
    const int64_t node = text.ClassNumber(Signature(NODE)), leaf = text.ClassNumber(Signature(LEAF));
    EXPECT_EQ(text.fields.at(Signature(NODE)), (std::vector<std::string>{"0 next", "1 self", "2 number"}));
    EXPECT_EQ(text.fields.at(Signature(LEAF)), (std::vector<std::string>{"3 name"}));
    // Each node refers to the one before and to itself; the first one has no one before it.
    int64_t chained = 0, leaves = 0;
    for (const auto &row : text.references) {
        const auto klass = text.classOf.at(row.first);
        if (klass == node) {
            EXPECT_NE(std::find(row.second.begin(), row.second.end(), row.first), row.second.end());
            for (int64_t other : row.second)
                chained += other != row.first && text.classOf.at(other) == node;
        }
        leaves += klass == leaf;
    }
    EXPECT_EQ(chained, NODES - 1);
    EXPECT_EQ(leaves, LEAVES);
}

TEST_F(Heap, TwoDumpsDifferInHeaderAndTrailerAlone) {
    heap_id = 4711;
    strcpy(vend, "Ve|dor\nInc.");
    Dump(); // where the JVM keeps this thread's references is settled by the first
    const TextDump first = Dump();
    const int32_t run = igbCurrentRun;
    EXPECT_TRUE(std::regex_match(first.header,
                                 std::regex("heap_id=4711\\|T[0-9]+\\|[^|]*\\|[^|]*\\|Ve dor Inc\\.\\|[^|]*"
                                            "\\|1\\|System\\|[0-9]+\\|[0-9]+")))
        << first.header;
    gbiDumpBufferSize = 64;
    const TextDump second = Dump();
    EXPECT_NE(igbCurrentRun, run);
    ASSERT_EQ(first.body.size(), second.body.size());
    EXPECT_TRUE(first.body == second.body);
    vend[0] = 0;
    heap_id = 0;
}

TEST_F(Heap, LocalsOfAStandingThreadHaveItsMethodsName) {
    ZooVisit zoo("sleep");
    jstring held = Text("a reference of this thread, which has no Java frame");
    QorHeapDump(in("dump").c_str());
    const std::string dump = FileText(in("dump"));
    EXPECT_TRUE(std::regex_search(
        dump, std::regex("\nSa[0-9]+\\|Thread-[0-9]+_Lqoragent\\.testing\\.Zoo[^|\n]*::[^|\n]+\\|\n")));
    EXPECT_TRUE(std::regex_search(dump, std::regex("\nSc[0-9]+\\|Thread-[0-9]+_\\|\n")));
    Env()->DeleteLocalRef(held);
}

TEST_F(Heap, SummaryAddsUpWhatTheTextDumpShows) {
    QorHeapSummary summary;
    ASSERT_EQ(QorShowHeap(&summary), 0);
    const TextDump text = Dump();
    int64_t primitive = 0, ofObjects = 0;
    for (const TextDump::Array &a : text.arrays)
        ++(a.elements < 0 ? primitive : ofObjects);
    EXPECT_STREQ(summary.name, "System");
    // The JVM itself makes and drops a few objects between the two.
    EXPECT_NEAR(static_cast<double>(summary.primitiveArrays), static_cast<double>(primitive), 50);
    EXPECT_NEAR(static_cast<double>(summary.objectArrays), static_cast<double>(ofObjects), 50);
    EXPECT_NEAR(static_cast<double>(summary.instances), static_cast<double>(text.references.size()), 50);
    EXPECT_EQ(summary.classes, static_cast<int64_t>(text.classNames.size()));
    EXPECT_GE(summary.primitiveArrayKb, (2 * 4 * LONG_INTS + LONG_BYTES) / 1024);
    EXPECT_GE(summary.instanceKb, 4 * NODES / 1024); // each has an int field
    EXPECT_GT(summary.classKb, 0);
}

TEST_F(Heap, DumpIsRefusedWithoutHarm) {
    const int before = OpenDescriptors();
    const int32_t run = igbCurrentRun;
    std::ofstream(in("target")) << "keep";
    fs::create_symlink(in("target"), in("link"));
    ASSERT_EQ(mkfifo(in("pipe").c_str(), 0600), 0);
    for (const char *name : {"link", "pipe", ".", "absent/dump"}) {
        LogCapture log(1);
        EXPECT_EQ(QorHeapDump(in(name).c_str()), -1);
        EXPECT_EQ(log.count("Not able to open the file for writing " + in(name)), 1) << name;
    }
    EXPECT_EQ(FileText(in("target")), "keep");
    EXPECT_EQ(igbCurrentRun, run) << "a dump that never began has a parity";
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(ShowMemory(in("link").c_str()), "");
    Dump();
}

TEST_F(Heap, FullDiskEmptiesTheFileAndTheNextDumpWorks) {
    rlimit earlier;
    getrlimit(RLIMIT_FSIZE, &earlier);
    rlimit small = earlier;
    small.rlim_cur = 300000;
    setrlimit(RLIMIT_FSIZE, &small);
    int result = 0, logged = 0;
    {
        gbiDumpBufferSize = 4096;
        LogCapture log(1);
        result = QorHeapDump(in("dump").c_str());
        logged = log.count("could not be written and is left empty: File too large");
    }
    setrlimit(RLIMIT_FSIZE, &earlier);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(logged, 1);
    EXPECT_EQ(FileText(in("dump")), "");
    EXPECT_EQ(objTagClass, nullptr);
    EXPECT_EQ(Dump().InstancesOf(Signature(NODE)), NODES);
}

TEST_F(Heap, WalksLeaveNoTagAndKeepNoClass) {
    jclass shop = Env()->FindClass(SHOP);
    const jfieldID first = Env()->GetStaticFieldID(shop, "first", "Lqoragent/testing/HeapShop$Node;");
    jobject node = Env()->GetStaticObjectField(shop, first);
    ASSERT_EQ(jvmti->SetTag(node, 5001), JVMTI_ERROR_NONE); // as the locals view tags what it shows
    CallVoid(SHOP, "loadOwn", "()V");
    Dump();
    ShowMemory("ClassHistogramOnly");
    const jlong wanted = 5001;
    jint count = 0;
    jobject *objects = nullptr;
    ASSERT_EQ(jvmti->GetObjectsWithTags(1, &wanted, &count, &objects, nullptr), JVMTI_ERROR_NONE);
    ASSERT_EQ(count, 1);
    EXPECT_TRUE(Env()->IsSameObject(objects[0], node));
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(objects));
    jlong tag = -1;
    EXPECT_EQ(jvmti->GetTag(shop, &tag), JVMTI_ERROR_NONE);
    EXPECT_EQ(tag, 0);
    EXPECT_EQ(CallLong(SHOP, "dropOwn", "()J"), 1) << "a class loader is still held";
}

int64_t ResidentMegabytes() {
    int64_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * getpagesize() >> 20;
}

TEST_F(Heap, DumpsInARowKeepNoMemory) {
    const int descriptors = OpenDescriptors();
    const auto dumpOften = [this](int times) {
        for (int i = 0; i < times; i++) {
            EXPECT_EQ(QorHeapDump(in("dump").c_str()), 0);
            CallVoid(SHOP, "gc", "()V"); // newer JVMs give a part of the tags back at a collection only
        }
    };
    dumpOften(5); // until the allocator has what it needs
    const int64_t before = ResidentMegabytes();
    dumpOften(40); // the tags of a dump take some 2 MB here
    EXPECT_LT(ResidentMegabytes(), before + 20);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(Heap, HistogramCountsWhatTheJvmCounts) {
    int64_t count = 0;
    QorClassCountEntry *entries = nullptr;
    ASSERT_EQ(QorClassInstanceCounts(&count, &entries), 0);
    std::map<std::string, QorClassCountEntry> rows;
    for (int64_t i = 0; i < count; i++) {
        rows[entries[i].name] = entries[i];
        EXPECT_LE(entries[i ? i - 1 : 0].size, entries[i].size);
    }
    for (const char *klass : {NODE, LEAF}) {
        std::string name = klass;
        std::replace(name.begin(), name.end(), '/', '.');
        const QorClassCountEntry &row = rows[Signature(klass)];
        const std::string truth =
            CallText(SHOP, "histogramRow", "(Ljava/lang/String;)Ljava/lang/String;", Text(name));
        EXPECT_EQ(std::to_string(row.count) + " " + std::to_string(row.size), truth);
    }
    EXPECT_EQ(rows[Signature(NODE)].count, NODES);
    EXPECT_GE(rows["[I"].size, 2 * 4 * LONG_INTS);
    QorFreeClassCounts(entries, count);
}

TEST_F(Heap, HistogramReplyShowsTheLargestFirst) {
    const auto sections = Sections(ShowMemory("ClassHistogramOnly"));
    ASSERT_EQ(sections.size(), 1u);
    const Section &rows = sections.at("JVM Class Details");
    ASSERT_EQ(rows.size(), 302u); // any JVM has more classes
    int64_t before = INT64_MAX;
    for (const auto &row : rows) {
        ASSERT_EQ(row.size(), 4u) << row[0];
        EXPECT_EQ(row[3], "");
        EXPECT_LE(std::stoll(row[2]), before);
        before = std::stoll(row[2]);
    }
}

TEST_F(Heap, HeapRowsAgreeWithRuntime) {
    char *args[CONSOLE_ARG_COUNT] = {};
    static std::vector<char> page(PAGEBUF_SIZE);
    page[0] = 0;
    QorHandleShowJVMRequest(QORREQ_MEMORY_ACTIVITY, page.data(), PAGEBUF_SIZE, args);
    const auto sections = Sections(page.data());
    const Section &pools = sections.at("JVM Heap Usage");
    ASSERT_EQ(pools.size(), 1u);
    ASSERT_EQ(pools[0].size(), 5u);
    const int64_t maxKb = CallLong(SHOP, "maxMemory", "()J") >> 10;
    const int64_t used = std::stoll(pools[0][2]), percent = std::stoll(pools[0][3]);
    EXPECT_EQ(pools[0][0], "Old");
    EXPECT_EQ(pools[0][1], std::to_string(maxKb));
    EXPECT_NEAR(static_cast<double>(used), static_cast<double>(CallLong(SHOP, "usedMemory", "()J") >> 10),
                4096);
    EXPECT_EQ(percent, used * 100 / maxKb);
    EXPECT_EQ(pools[0][4], std::to_string(maxKb - used));
    EXPECT_EQ(QorGetMemory("totalMemory"), CallLong(SHOP, "totalMemory", "()J"));
    EXPECT_EQ(static_cast<int64_t>(QorGetTotalMemory()), QorGetMemory("totalMemory"));

    const std::string details = ShowMemory("");
    const std::string heap = std::regex_replace(details, std::regex("[0-9]{3,}"), "N");
    const std::string figures = "\x1eHeap\x1d"
                                "0\x1d"
                                "0\x1d"
                                "0\x1d"
                                "0\x1d"
                                "0\x1d"
                                "0\x1d"
                                "0\x1dN\x1dN\x1d\x1f";
    EXPECT_EQ(heap.find("JVM Heap Memory Usage" + figures + "JVM Heap Number of Objects" + figures +
                        "JVM Garbage Collections\x1e"),
              0u)
        << details;
    int64_t objects = 0;
    EXPECT_EQ(QorGetHeapObjectCount(&objects), 0);
    EXPECT_GT(objects, NODES);
}

TEST_F(Heap, WithoutCollectorBeansTheRowsAreEmpty) {
    QorGCSummaryEntry *rows = nullptr;
    jclass kept = gbjcManagementClass;
    gbjcManagementClass = nullptr; // an image without the management module
    ASSERT_EQ(QorGetGCSummary(&rows), 2);
    EXPECT_EQ(rows[0].count, 0u);
    EXPECT_STREQ(rows[1].name, "Minor GC Count");
    LogCapture log(1);
    gbjcManagementClass = Env()->FindClass("java/lang/String"); // a class without the method
    ASSERT_EQ(QorGetGCSummary(&rows), 2);
    EXPECT_EQ(log.count("GetStaticMethodID failed for stGCBeans"), 1);
    gbjcManagementClass = kept;

    QorSetManagementGCCountCapability(0);
    ASSERT_EQ(QorGetGCSummary(&rows), 1);
    EXPECT_STREQ(rows[0].name, "Total GC Count");
    EXPECT_EQ(rows[0].count, 0u); // the JVM has no total: it answers -1
}

TEST_F(Heap, SystemDataIsOneLine) {
    static std::vector<char> page(PAGEBUF_SIZE);
    QorText reply;
    QorTextStart(&reply, page.data(), PAGEBUF_SIZE);
    QorShowSystemData(0, &reply, nullptr);
    const auto sections = Sections(reply.text);
    ASSERT_EQ(sections.at("System Data").size(), 1u);
    const auto &fields = sections.at("System Data")[0];
    ASSERT_EQ(fields.size(), 8u);
    QorGCSummaryEntry *rows = nullptr;
    QorGetGCSummary(&rows);
    EXPECT_EQ(fields[2], std::to_string(rows[1].count));
    EXPECT_EQ(fields[3], std::to_string(rows[0].count));
    EXPECT_LE(std::stoll(fields[4]), 100);
    EXPECT_EQ(fields[6], std::to_string(rows[0].time));
}

// Each collector in a JVM of its own; one that this JVM hasn't got leaves it with its default.
template <class Collector>
struct Collections : AgentTest {
    static void SetUpTestSuite() {
        StartJvm({"-Xmx64m", "-XX:+IgnoreUnrecognizedVMOptions", "-XX:+UnlockExperimentalVMOptions",
                  Collector::OPTION, "-XX:+ZGenerational"});
    }
};
#define COLLECTOR(NAME)                                                                                      \
    struct NAME {                                                                                            \
        static constexpr char OPTION[] = "-XX:+Use" #NAME "GC";                                              \
    }
COLLECTOR(Serial);
COLLECTOR(Parallel);
COLLECTOR(G1);
COLLECTOR(Shenandoah);
COLLECTOR(Z);
COLLECTOR(ConcMarkSweep);
using AllCollectors = testing::Types<Serial, Parallel, G1, Shenandoah, Z, ConcMarkSweep>;
TYPED_TEST_SUITE(Collections, AllCollectors, );

TYPED_TEST(Collections, AreAddedUpByKindAndToldOneByOne) {
    enum Kind { MAJOR, MINOR, NEITHER };
    const std::map<std::string, Kind> kinds = {
        {"Copy", MINOR},
        {"MarkSweepCompact", MAJOR},
        {"PS Scavenge", MINOR},
        {"PS MarkSweep", MAJOR},
        {"G1 Young Generation", MINOR},
        {"G1 Old Generation", MAJOR},
        {"G1 Concurrent GC", NEITHER},
        {"Shenandoah Pauses", MINOR},
        {"Shenandoah Cycles", NEITHER},
        {"ZGC", MINOR},
        {"ZGC Pauses", MINOR},
        {"ZGC Cycles", NEITHER},
        {"ZGC Minor Pauses", MINOR},
        {"ZGC Minor Cycles", NEITHER},
        {"ZGC Major Pauses", MAJOR},
        {"ZGC Major Cycles", NEITHER},
        {"ParNew", MINOR},
        {"ConcurrentMarkSweep", MAJOR},
    };
    ASSERT_EQ(StartAgent({}), 0);
    CallVoid(SHOP, "litter", "()V");
    CallVoid(SHOP, "gc", "()V");
    const auto truth = [] { return CallText(SHOP, "collectors", "()Ljava/lang/String;"); };
    std::string before, rows, each;
    do { // until no collection came between
        before = truth();
        rows = Ask("516|showstack|128");
        each = Ask("516|NoProcessing|collectors");
    } while (truth() != before);
    int64_t sums[] = {0, 0, 0}, count = 0, time = 0;
    std::string shown = "JVM Garbage Collectors\x1e";
    std::istringstream beans(before);
    for (std::string name; beans >> count >> time && std::getline(beans >> std::ws, name);) {
        ASSERT_EQ(kinds.count(name), 1u) << name;
        sums[kinds.at(name)] += count;
        shown += name + "\x1d" + std::to_string(count) + "\x1d" + std::to_string(time) + "\x1e";
    }
    EXPECT_GT(sums[MAJOR] + sums[MINOR], 0);
    EXPECT_EQ(Sections(rows).at("JVM Garbage Collections"),
              (Section{{"Major GC Count", std::to_string(sums[MAJOR])},
                       {"Minor GC Count", std::to_string(sums[MINOR])}}));
    EXPECT_EQ(each, shown + "\x1f");
}

struct DumpRequest : AgentTest {
    DumpFolder in;
};

TEST_F(DumpRequest, AReplyClaimsOnlyAFileThatWasWritten) {
    ASSERT_EQ(StartAgent({}), 0);
    ASSERT_EQ(Ask("516|NoProcessing|qorheapdir|" + in.path.string()), "Changed qorheapdir to " + in(""));
    const std::string hprof = Ask("516|showmem|256|one.hprof|1");
    EXPECT_EQ(hprof, std::string("JVM Hprof Heap:") + vend + "|" + vers + "|" + ext_jvm_id_str + "|" +
                         os_name + "|Heap details dumped to " + in("one.hprof"));
    const HprofDump read = HprofDump::Read(in("one.hprof"));
    EXPECT_EQ(read.error, "");
    EXPECT_GT(read.instances.count("java/lang/String"), 0u);
    const std::string content = FileText(in("one.hprof"));
    EXPECT_EQ(Ask("516|showmem|256|one.hprof|1"), "") << "the JVM never replaces a file";
    EXPECT_TRUE(content == FileText(in("one.hprof")));
    EXPECT_EQ(Ask("516|showmem|256|absent/two.hprof|1"), "");

    const std::regex timing("Time spent in JVM for processing request\x1e[0-9]+ usec\x1f");
    EXPECT_TRUE(std::regex_match(Ask("516|showmem|256|text|99"), timing));
    const TextDump text = TextDump::Read(in("text"));
    EXPECT_EQ(text.error, "");
    EXPECT_EQ(text.header.rfind("heap_id=99|", 0), 0u) << text.header;
    EXPECT_TRUE(std::regex_match(Ask("516|showmem|256|absent/text|99"), timing));
    EXPECT_NE(Ask("516|showmem|512|ClassHistogramOnly").find("JVM Class Details\x1e"), std::string::npos);
}

} // namespace
