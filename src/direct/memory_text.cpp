#include "memory_text.h"

#include "heaptraverse/heap_census.h"
#include "heaptraverse/heap_usage.h"

#include "platforms/qorsysinfo.h"
#include "qorStrUtils.h"
#include "qorrequest.h"
#include "reply/qorformat.h"

#include <initializer_list>
#include <sys/time.h>

namespace {

constexpr uint32_t REQ_HEAP_DETAILS = 0x200;
constexpr int32_t KIB_SHIFT = 10;

// The columns of the tables of objects, and the kinds that each adds up. What is of no column is in a space's
// sum alone.
constexpr VmType COLUMNS[][3] = {
    {TYPE_KLASS, TYPE_KLASS_KLASS, TYPE_INSTANCE_KLASS_KLASS},
    {TYPE_METHOD, TYPE_CONST_METHOD, TYPE_NONE},
    {TYPE_INSTANCE, TYPE_NONE, TYPE_NONE},
    {TYPE_ARRAY, TYPE_NONE, TYPE_NONE},
    {TYPE_POOL, TYPE_POOL_CACHE, TYPE_NONE},
    {TYPE_SYMBOL, TYPE_NONE, TYPE_NONE},
    {TYPE_COMPILED_IC_HOLDER, TYPE_NONE, TYPE_NONE},
};

int64_t ElapsedUsec(const timeval &since) {
    timeval now;
    gettimeofday(&now, nullptr);
    return deltaTimeUsec(since.tv_sec, since.tv_usec, now.tv_sec, now.tv_usec);
}

void AppendUsage(QorText *reply) {
    QorAppendTitle(reply, "JVM Memory Usage");
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++) {
        const QorSpaceUsage &usage = heap.spaces[i];
        QorAppendField(reply, heapspace[i].name);
        QorAppendNumberField(reply, static_cast<int64_t>(usage.capacity));
        QorAppendNumberField(reply, static_cast<int64_t>(usage.used));
        QorAppendNumberField(reply, usage.percent);
        QorTextAppendNumber(reply, static_cast<int64_t>(usage.free));
        QorTextAppendChar(reply, RECORD_END);
    }
    QorTextAppendChar(reply, SECTION_END);
}

void AppendCollections(QorText *reply) {
    QorAppendTitle(reply, TITLE_COLLECTIONS);
    QorAppendField(reply, "Minor");
    QorTextAppendNumber(reply, heap.minorCount);
    QorTextAppendChar(reply, RECORD_END);
    QorAppendField(reply, "Major");
    QorTextAppendNumber(reply, heap.majorCount);
    QorTextAppendChar(reply, SECTION_END);
}

// The name and a figure of each column, by what is counted of each kind.
void AppendColumns(QorText *reply, const char *space, const uint64_t (&byType)[OOP_TABLES], int32_t shift) {
    QorAppendField(reply, space);
    for (const auto &column : COLUMNS) {
        uint64_t sum = 0;
        for (const VmType type : column)
            sum += type == TYPE_NONE ? 0 : byType[type];
        QorAppendNumberField(reply, static_cast<int64_t>(sum >> shift));
    }
}

void AppendTwo(QorText *reply, uint64_t first, uint64_t second) {
    QorAppendNumberField(reply, static_cast<int64_t>(first));
    QorTextAppendNumber(reply, static_cast<int64_t>(second));
    QorTextAppendChar(reply, RECORD_END);
}

void AppendTables(QorText *reply, const QorHeapCensus &census) {
    QorAppendTitle(reply, TITLE_HEAP_MEMORY);
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++) {
        const QorSpaceUsage &usage = census.summary.spaces[i];
        AppendColumns(reply, census.spaces[i].name, census.content[i].typeBytes, KIB_SHIFT);
        AppendTwo(reply, usage.used, usage.capacity);
    }
    QorTextAppendChar(reply, SECTION_END);
    QorAppendTitle(reply, TITLE_HEAP_OBJECTS);
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++) {
        AppendColumns(reply, census.spaces[i].name, census.content[i].count, 0);
        AppendTwo(reply, 0, census.content[i].objects);
    }
    QorTextAppendChar(reply, SECTION_END);
}

// A class's name as the JVM's signatures have it.
void AppendSignature(QorText *reply, const char *name) {
    const bool array = name[0] == '[';
    QorTextAppend(reply, array ? "" : "L");
    QorTextAppend(reply, name);
    QorAppendField(reply, array ? "" : ";");
}

void AppendClasses(QorText *reply, const QorHeapCensus &census) {
    QorAppendTitle(reply, TITLE_CLASSES);
    for (int32_t i = 0; i < census.classCount; i++) {
        const QorClassCensus &row = census.classes[i];
        const int32_t start = reply->length;
        AppendSignature(reply, row.name);
        QorAppendNumberField(reply, static_cast<int64_t>(row.objects));
        QorAppendNumberField(reply, static_cast<int64_t>(row.bytes >> KIB_SHIFT));
        QorTextAppendChar(reply, RECORD_END);
        if (reply->refused) {
            QorTextCut(reply, start);
            qorReplyIsCut = true;
            break;
        }
    }
    QorTextAppendChar(reply, SECTION_END);
}

// The objects of the heap, or its use and why they weren't counted.
void AppendDetails(QorText *reply, bool byClass) {
    const char *refusal = nullptr;
    const QorHeapCensus *census = QorCountHeap(byClass, &refusal);
    if (census && byClass) {
        AppendClasses(reply, *census);
        return;
    }
    if (census)
        AppendTables(reply, *census);
    else
        AppendUsage(reply);
    AppendCollections(reply);
    if (census)
        return;
    QorTextAppend(reply, refusal);
    QorTextAppendChar(reply, SECTION_END);
}

// Load of the machine, microseconds that this took so far, the heap's percentage.
void AppendLoad(QorText *reply, const timeval &start) {
    const int64_t figures[] = {qorsysinfo(CPU_MACHINE_LOAD), ElapsedUsec(start), heap.percent};
    for (const int64_t figure : figures)
        QorAppendNumberField(reply, figure);
}

void AppendSystemData(QorText *reply) {
    const QorSystemFigures figures = {qorsysinfo(CPU_MACHINE_COUNTER),
                                      qorsysinfo(CPU_PROCESS_COUNTER),
                                      static_cast<uint32_t>(heap.minorCount),
                                      static_cast<uint32_t>(heap.majorCount),
                                      heap.percent,
                                      heap.minorTime,
                                      heap.majorTime};
    QorAppendSystemData(reply, figures);
}

} // namespace

void qormemsum(QorText *reply, uint32_t reqid, bool byClass) {
    timeval start;
    gettimeofday(&start, nullptr);
    QorMeasureHeap();
    if (reqid & QORREQ_MEMORY_ACTIVITY) {
        AppendUsage(reply);
        AppendCollections(reply);
    }
    if (reqid & REQ_HEAP_DETAILS)
        AppendDetails(reply, byClass);
    if (reqid & QORREQ_JUST_THREADS)
        AppendLoad(reply, start);
    if (reqid & QORREQ_SAMPLING)
        AppendSystemData(reply);
}
