#include "memory_views.h"

#include "jvmti/Session.h"
#include "jvmti/heap/ClassHistogram.h"
#include "jvmti/heap/GCSystem.h"
#include "jvmti/heap/MemorySystem.h"
#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "reply/qorformat.h"
#include "reply/records.h"

namespace {

constexpr int64_t HISTOGRAM_ROWS = 302;
constexpr int KIB_SHIFT = 10;
constexpr int64_t BYTES_PER_KIB = 1024;
constexpr int64_t LARGEST_SHOWN_COUNTER = 0x7fffffff;

// The share in percent, cut to a whole number, computed in single precision first.
uint32_t Percent(uint64_t part, uint64_t whole) {
    if (!whole)
        return 0;
    return static_cast<uint32_t>(static_cast<double>(static_cast<float>(part) / static_cast<float>(whole)) *
                                 100.0);
}

void AppendPool(QorText *section, const QorHeapSummaryEntry &pool) {
    // Sizes read one after the other need not fit together.
    const uint32_t used = pool.totalKb > pool.freeKb ? pool.totalKb - pool.freeKb : 0;
    const uint32_t available = pool.maxKb > used ? pool.maxKb - used : 0;
    QorAppendField(section, pool.name);
    QorAppendNumberField(section, pool.maxKb);
    QorAppendNumberField(section, used);
    QorAppendNumberField(section, Percent(used, pool.maxKb));
    QorTextAppendNumber(section, available);
    QorTextAppendChar(section, RECORD_END);
}

void AppendHeapDetails(QorText *reply, const char *title, int32_t usedKb, int32_t maxKb) {
    constexpr int UNUSED_FIELDS = 7;
    QorAppendTitle(reply, title);
    QorAppendField(reply, "Heap");
    for (int i = 0; i < UNUSED_FIELDS; i++)
        QorAppendField(reply, "0");
    QorAppendNumberField(reply, usedKb);
    QorAppendNumberField(reply, maxKb);
    QorTextAppendChar(reply, SECTION_END);
}

// Collections and milliseconds, minor and major.
struct CollectorFigures {
    uint32_t minorCount, majorCount;
    int64_t minorTime, majorTime;
};

CollectorFigures ReadCollectors() {
    CollectorFigures figures = {};
    if (!QorGetManagementGCCountCapability()) {
        int32_t count = 0, time = 0;
        QorGetTotalGCCount(&count);
        QorGetTotalGCTime(&time);
        figures = {static_cast<uint32_t>(count), static_cast<uint32_t>(count), time, time};
        return figures;
    }
    QorGCSummaryEntry *entries = nullptr;
    const int32_t rows = QorGetGCSummary(&entries);
    for (int32_t i = 0; i < rows; i++) {
        const bool major = strstr(entries[i].name, GC_MAJOR_WORD);
        (major ? figures.majorCount : figures.minorCount) = entries[i].count;
        (major ? figures.majorTime : figures.minorTime) = entries[i].time;
    }
    return figures;
}

} // namespace

void QorShowHeapSummary(uint32_t, QorText *reply, char **) {
    QorHeapSummaryEntry *pools = nullptr;
    QorInitHeapSummaryHandle();
    const int32_t count = QorGetMemorySummary(&pools);
    QorAppendTitle(reply, "JVM Heap Usage");
    for (int32_t i = 0; i < count; i++)
        AppendPool(reply, pools[i]);
    QorTextAppendChar(reply, SECTION_END);
    QorCloseHeapSummaryHandle();
}

void QorShowGCSummary(uint32_t, QorText *reply, char **) {
    QorGCSummaryEntry *entries = nullptr;
    QorInitGCSummaryHandle();
    const int32_t count = QorGetGCSummary(&entries);
    QorAppendTitle(reply, TITLE_COLLECTIONS);
    for (int32_t i = 0; i < count; i++) {
        QorAppendField(reply, entries[i].name);
        QorTextAppendNumber(reply, entries[i].count);
        QorTextAppendChar(reply, RECORD_END);
    }
    QorTextAppendChar(reply, SECTION_END);
    QorCloseGCSummaryHandle();
}

void QorShowCollectors(QorText *reply) {
    QorCollector collectors[MAX_COLLECTORS];
    const int32_t count = QorGetCollectors(collectors);
    QorAppendTitle(reply, "JVM Garbage Collectors");
    for (int32_t i = 0; i < count; i++) {
        QorAppendField(reply, collectors[i].name);
        QorAppendNumberField(reply, collectors[i].count);
        QorTextAppendNumber(reply, collectors[i].time);
        QorTextAppendChar(reply, RECORD_END);
    }
    QorTextAppendChar(reply, SECTION_END);
}

void QorShowMemoryActivity(uint32_t reqid, QorText *reply, char **args) {
    QorShowHeapSummary(reqid, reply, args);
    QorShowGCSummary(reqid, reply, args);
}

void QorShowSystemData(uint32_t, QorText *reply, char **) {
    const int64_t machine = QorGetCpuLoad(CPU_MACHINE_COUNTER);
    int64_t process = QorGetCpuLoad(CPU_PROCESS_COUNTER);
    if (process > LARGEST_SHOWN_COUNTER)
        process = machine;
    const uint32_t heap = Percent(QorGetUsedMemory(), QorGetMaxMemory());
    const CollectorFigures gc = ReadCollectors();
    QorAppendSystemData(reply, {machine, process, gc.minorCount, gc.majorCount, heap,
                                static_cast<uint64_t>(gc.minorTime), static_cast<uint64_t>(gc.majorTime)});
}

void QorShowMemoryDetails(QorText *reply) {
    QORLOG(LOG_DETAIL, "processing GC Summary Req\n");
    const int32_t maxKb = static_cast<int32_t>(QorGetMaxMemory() >> KIB_SHIFT);
    const int32_t usedKb = static_cast<int32_t>(QorGetUsedMemory() >> KIB_SHIFT);
    AppendHeapDetails(reply, TITLE_HEAP_MEMORY, usedKb, maxKb);
    AppendHeapDetails(reply, TITLE_HEAP_OBJECTS, usedKb, maxKb); // objects are not counted
    QorShowGCSummary(0, reply, nullptr);
}

void QorShowClassHistogram(QorText *reply) {
    QORLOG(LOG_DETAIL, "processing 'ClassHistogramOnly' Req\n");
    int64_t count = 0;
    QorClassCountEntry *entries = nullptr;
    QorClassInstanceCounts(&count, &entries);
    if (qorNoHistogram) {
        QorTextAppend(reply, qorNoHistogram);
        QorTextAppendChar(reply, SECTION_END);
        return;
    }
    if (count != 1)
        QorAppendTitle(reply, TITLE_CLASSES);
    for (int64_t i = count - 1; i >= 1 && i >= count - HISTOGRAM_ROWS; i--) {
        QorAppendField(reply, entries[i].name);
        QorAppendNumberField(reply, entries[i].count);
        QorAppendNumberField(reply, entries[i].size / BYTES_PER_KIB);
        QorTextAppendChar(reply, RECORD_END);
    }
    if (count != 1)
        QorTextAppendChar(reply, SECTION_END);
    if (qorHistogramAge >= 0) {
        QorAppendTitle(reply, "JVM Class Details Age");
        QorAppendNumberField(reply, qorHistogramAge);
        QorTextAppendChar(reply, SECTION_END);
    }
    QorFreeClassCounts(entries, count);
}
