#include "just_threads.h"

#include "bci.h"
#include "jvmti/Session.h"
#include "jvmti/heap/MemorySystem.h"
#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorutil.h"
#include "reply/records.h"
#include "thread_lookup.h"

#include <algorithm>

namespace {

constexpr int32_t SLOW_RESPONSE_USEC = 10000; // above it the figure is measured once more

// Whether a thread counts in this state even if a rule says that it is idle, or that nothing of it is the
// application's.
bool KeepsState(const QorThreadRecord &thread) {
    return rulesKeepWork &&
           (thread.state == STATE_LOCK || thread.state == STATE_DB_WAIT || thread.state == STATE_RMI_WAIT);
}

// Refines the state from the frames, down to where nothing can change it any more.
void RefineState(QorFrameHandle *frames, QorThreadRecord *thread) {
    bool userCallFound = false;
    for (frames->index = 0; frames->index < frames->count; ++frames->index) {
        QorFrameRecord frame;
        QorReadFrame(frames, FRAME_METHOD_AND_CLASS, &frame);
        if (!userCallFound && frame.callType != 0) {
            userCallFound = true;
            if (checkCurrCall(frame.className, frame.method) == 0 && !KeepsState(*thread)) {
                thread->state = STATE_OBJECT_WAIT;
                return;
            }
        }
        GetThreadEnhancedState(&frame, thread);
        if (userCallFound && QorStateIsSettled(thread->state, frames->index + 1))
            return;
    }
    if (!userCallFound && !KeepsState(*thread))
        GetThreadEnhancedState(nullptr, thread);
}

void CountThreads(QorThreadHandle *handle, int32_t (&counts)[STATE_COUNT]) {
    QorFrameHandle frames;
    QorThreadRecord thread = {};
    for (; handle->index < handle->count; QorGetJVMThread(handle, 0)) {
        // A thread that has ended meanwhile is counted as it is cleared here.
        thread.tid = 0;
        thread.name[0] = 0;
        thread.state = thread.enhancedState = STATE_RUNNABLE;
        QorGetThreadInfo(handle, &thread);
        if (checkThreadName(thread.name) == 0 && !KeepsState(thread)) {
            ++counts[STATE_OBJECT_WAIT];
            continue;
        }
        if (QorGetFrames(handle, &frames) < 0)
            continue;
        RefineState(&frames, &thread);
        if (thread.state >= 0 && thread.state < STATE_COUNT)
            ++counts[thread.state];
    }
}

int32_t MeasureResponse() {
    const int32_t first = GetOSRValue();
    return first > SLOW_RESPONSE_USEC ? GetOSRValue() : first;
}

int32_t MeasureSystemLoad() {
    int64_t load = QorGetCpuLoad(1);
    if (load > 100)
        load = std::min<int64_t>(QorGetCpuLoad(1), 100);
    return static_cast<int32_t>(load);
}

uint32_t MeasureHeapPercentage() {
    const uint64_t max = QorGetMaxMemory(), free = QorGetFreeMemory(), total = QorGetTotalMemory();
    if (max == 0)
        return 0;
    const uint64_t used = total > free ? total - free : 0; // read one after the other, so they may not fit
    return static_cast<uint32_t>(static_cast<float>(used) / static_cast<float>(max) * 100);
}

} // namespace

void QorShowJustThreadRequest(uint32_t, QorText *reply, char **) {
    int32_t counts[STATE_COUNT] = {};
    QorThreadHandle handle;
    QorInitThreadHandle(&handle);
    dataFromBCI(jvmtijni_env, 0);
    QorGetJVMThread(&handle, 0);
    if (!qorIsPollOrTrace)
        QORLOG(LOG_DETAIL, "Entering QorShowJustThreadRequest for %d threads", handle.count);
    CountThreads(&handle, counts);

    const int32_t response = MeasureResponse();
    const int32_t systemLoad = MeasureSystemLoad();
    const int32_t processLoad = static_cast<int32_t>(QorGetCpuLoad(4));
    const uint32_t heapPercentage = MeasureHeapPercentage();
    const char s = FIELD_SEP;
    snprintf(console_line_buf, sizeof console_line_buf, "%u%c%u%c%u%c%d%c%d%c%d%c%d%c%d%c%d%c%d%c%d%c%d%c%u",
             systemLoad, s, response, s, heapPercentage, s, counts[STATE_RUNNABLE], s, counts[STATE_DB_WAIT],
             s, counts[STATE_LOCK], s, counts[STATE_NETWORK_WAIT], s, counts[STATE_IO_WAIT], s,
             counts[STATE_OBJECT_WAIT], s, counts[STATE_SLEEPING], s, counts[STATE_RMI_WAIT], s,
             counts[STATE_OTHER], s, processLoad);
    QorTextAppend(reply, console_line_buf);
    closeThreadAndFreeLists();
}
