#include "memory_text.h"

#include "heap_usage.h"

#include "qorStrUtils.h"
#include "qorformat.h"
#include "qorrequest.h"
#include "qorsysinfo.h"

#include <sys/time.h>

namespace {

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

void qormemsum(QorText *reply, uint32_t reqid) {
    timeval start;
    gettimeofday(&start, nullptr);
    QorMeasureHeap();
    if (reqid & QORREQ_MEMORY_ACTIVITY) {
        AppendUsage(reply);
        AppendCollections(reply);
    }
    if (reqid & QORREQ_JUST_THREADS)
        AppendLoad(reply, start);
    if (reqid & QORREQ_SAMPLING)
        AppendSystemData(reply);
}
