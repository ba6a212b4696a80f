#include "all_threads.h"

#include "Xtier/Enrichment.h"
#include "Xtier/LocalWalk.h"
#include "Xtier/thread_e2e_info.h"
#include "all_threads_sample.h"
#include "bci.h"
#include "jvmti/Session.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "stack_rows.h"
#include "thread_lookup.h"

#include <cstring>
#include <unistd.h>

namespace {

constexpr char ALL_THREADS_WORD[] = "JVMALLTHREADS";
constexpr int32_t SAMPLES_PER_REPORT = 1800;

// Figures since the last report.
int32_t snSampleCount;
int32_t snTotalThreads;
int32_t snTotalFrames;
int32_t snOverallMaxDepth;

// States in which a thread may be doing work.
constexpr uint32_t ACTIVE_STATES = 1U << STATE_RUNNABLE | 1U << STATE_LOCK | 1U << STATE_NETWORK_WAIT |
                                   1U << STATE_IO_WAIT | 1U << STATE_DB_WAIT | 1U << STATE_RMI_WAIT |
                                   1U << STATE_OTHER;

bool IsPoll() {
    return qorIsPollOrTrace != 0;
}

bool WantsAllThreads(uint32_t reqid, char **args) {
    return reqid == QORREQ_POLL_DETAILS && args[0] &&
           strncmp(args[0], ALL_THREADS_WORD, sizeof ALL_THREADS_WORD - 1) == 0;
}

void StartSample(QorSample *sample, uint32_t reqid, QorText *reply, char **args) {
    sample->reqid = reqid;
    sample->args = args;
    sample->reply = reply;
    sample->processId = getpid();
    sample->recordStands = false;
    sample->threadCount = sample->frameCount = sample->maxDepth = 0;
    sample->deepestThread = 0;
    InitResponseHeader(reqid, sample->title); // may set poll_details
    sample->writesStacks = (reqid & QORREQ_POLL_DETAILS) && poll_details;
    sample->filtering =
        (reqid & QORREQ_ACTIVE_THREADS) || ((reqid & QORREQ_POLL_DETAILS) && !trace_all_threads &&
                                            !trace_single_thread_details && !WantsAllThreads(reqid, args));
    QorStartFrameShapes();
    release_thread_e2e_info(jvmtijni_env);
    gbQorHeldThreads = nullptr; // a fault may have ended the last view
}

// Whether the trace is of another thread. `end` is set when it names none.
bool IsPassedOverByTrace(const QorSample &sample, const QorThreadWalk &walk, bool *end) {
    if (!(sample.reqid & QORREQ_POLL_DETAILS) || !trace_single_thread_details)
        return false;
    if (!sample.args[1]) {
        QORLOG(LOG_ERROR, "console_args[1] NULL");
        *end = true;
        return true;
    }
    return strncmp(walk.key, sample.args[1], THREAD_KEY_SIZE) != 0;
}

bool IsActive(const QorThreadWalk &walk) {
    constexpr uint32_t WORK_STATES = 1U << STATE_LOCK | 1U << STATE_DB_WAIT | 1U << STATE_RMI_WAIT;
    if (!(ACTIVE_STATES >> walk.thread.state & 1U))
        return false;
    if (rulesKeepWork && ((WORK_STATES >> walk.thread.state & 1U) || walk.servesOrAsks))
        return true;
    return walk.userCallFound && !walk.userCallIsIdle && !walk.nameIsIdle;
}

void StartThread(QorThreadWalk *walk) {
    walk->userCallFound = false;
    walk->userFrame = -1;
    walk->omitted = walk->processed = 0;
    walk->userCallIsIdle = walk->rowsFull = walk->servesOrAsks = false;
    walk->xtier = {};
    walk->framework = FRAMEWORK_NONE;
    walk->frameworkRow = -1;
    tessar_thick_driver = 0;
    QorStartThreadFrames();
    if (gbQorRELocal && !gbQorSkipLocal)
        QorStartReadingAtOnce();
    QorTextStart(&walk->currentCall, console_frame_buf, CONSOLE_BUF_SIZE);
    QorTextStart(&walk->stackRows, console_thr_buf, CONSOLE_THR_BUF_SIZE - LONGEST_SKIP_ROW);
}

void FormatKey(const QorSample &sample, QorThreadWalk *walk) {
    const int32_t length = QorFormatThreadKey(walk->key, sample.processId, walk->thread.tid);
    walk->threadId = strchr(walk->key, '-') + 1;
    walk->threadIdLength = length - static_cast<int32_t>(walk->threadId - walk->key);
}

// Samples the thread at the cursor. 0, or -1 when the sample must end.
int32_t SampleThread(QorSample *sample, QorThreadWalk *walk) {
    ++sample->threadCount;
    if (QorGetThreadInfo(&sample->handle, &walk->thread) != 0)
        return 0; // it has ended since the snapshot
    FormatKey(*sample, walk);
    bool end = false;
    if (IsPassedOverByTrace(*sample, *walk, &end))
        return end ? -1 : 0;
    walk->nameIsIdle = sample->filtering && checkThreadName(walk->thread.name) == 0;
    if (walk->nameIsIdle && !rulesKeepWork)
        return 0;
    const int32_t depth = QorGetFrames(&sample->handle, &sample->frames);
    if (depth < 0)
        return 0;

    StartThread(walk);
    QorWalkFrames(sample, walk);
    sample->frameCount += walk->processed;
    if (sample->frames.index > sample->maxDepth) { // where the walk of its frames has ended
        sample->maxDepth = sample->frames.index;
        sample->deepestThread = walk->thread.tid;
    }
    if (!IsPoll())
        QORLOG(LOG_DETAIL,
               "Stats: %d : thread id %d, %d total frames, processed %d frames, Usercall at frame %d, "
               "omitted %d frames",
               sample->threadCount, static_cast<int32_t>(walk->thread.tid), depth, walk->processed,
               walk->userFrame, walk->omitted);
    if (depth == 0)
        GetThreadEnhancedState(nullptr, &walk->thread); // no Java stack counts as waiting

    const bool needsFrame = (sample->reqid & QORREQ_POLL_DETAILS) != 0;
    if ((sample->filtering && !IsActive(*walk)) || (depth == 0 && needsFrame)) {
        QorDropThreadFrames();
        return 0;
    }
    if (QorWriteThreadRecord(sample, walk) == 0)
        return 0;
    qorReplyIsCut = true;
    return -1;
}

void AddToStatistics(const QorSample &sample) {
    if (!IsPoll())
        QORLOG(LOG_NOTE, "Stats: For this sample, processed %d threads, %d frames, Max depth %d at tid %d",
               sample.threadCount, sample.frameCount, sample.maxDepth,
               static_cast<int32_t>(sample.deepestThread));
    if (snSampleCount == SAMPLES_PER_REPORT) {
        QORLOG(
            LOG_NOTE,
            "Stats: Since Last report, processed %d samples, %d threads; %d frames total, Max depth of all "
            "threads %d",
            snSampleCount, snTotalThreads, snTotalFrames, snOverallMaxDepth);
        snSampleCount = snTotalThreads = snTotalFrames = snOverallMaxDepth = 0;
        return;
    }
    ++snSampleCount;
    snTotalThreads += sample.threadCount;
    snTotalFrames += sample.frameCount;
    if (sample.maxDepth > snOverallMaxDepth)
        snOverallMaxDepth = sample.maxDepth;
}

void WalkThreads(QorSample *sample) {
    QorThreadWalk walk;
    while (sample->handle.index < sample->handle.count) {
        if (SampleThread(sample, &walk) != 0)
            return;
        QorGetJVMThread(&sample->handle, 0);
    }
    const bool isTrace = (sample->reqid & QORREQ_POLL_DETAILS) && trace_single_thread_details;
    if (isTrace && !sample->recordStands && sample->args[1] &&
        QorTurnToKey(&sample->handle, sample->processId, sample->args[1])) {
        QorHoldUnmounted(sample->handle);
        SampleThread(sample, &walk);
    }
}

} // namespace

void QorShowAllThreadRequest(uint32_t reqid, QorText *reply, char **args) {
    QorSample sample;
    StartSample(&sample, reqid, reply, args);
    if (sample.title[0])
        QorTextAppend(reply, sample.title);

    QorInitThreadHandle(&sample.handle);
    dataFromBCI(jvmtijni_env, 0);
    if (!QorGetJVMThread(&sample.handle, 0)) {
        QORLOG(LOG_ERROR, "Failed to the get thread ");
        closeThreadAndFreeLists();
        return;
    }
    if (!IsPoll())
        QORLOG(LOG_NOTE, "Entering QorShowAllThreadRequest for %d threads", sample.handle.count);
    WalkThreads(&sample);
    AddToStatistics(sample);
    QorTextAppendChar(reply, SECTION_END);
    if (!gbQorRELocal && !gbQorSkipLocal)
        QorInsertXtierData(reply);
    if (QorCarriesThreadData(reqid))
        checkAndAppendInfo(jvmtijni_env, nullptr);
    else
        release_thread_e2e_info(jvmtijni_env);
    closeThreadAndFreeLists();
}
