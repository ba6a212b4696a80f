// The record of one thread in an all-threads sample.
#include "Xtier/thread_e2e_info.h"
#include "all_threads_sample.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/Session.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "thread_lookup.h"

#include <cstdlib>

namespace {

// The locks of a thread, as records of their own.
struct ThreadLocks {
    QorText wait, owned;
};

void ReadLocks(QorSample *sample, const QorThreadRecord &thread, ThreadLocks *locks) {
    QorTextStart(&locks->wait, console_mon_wait_buf, CONSOLE_BUF_SIZE);
    QorTextStart(&locks->owned, console_mon_owned_buf, CONSOLE_BUF_SIZE);
    const QorMonitorScope scope = trace_single_thread_details ? MONITORS_OF_ONE_THREAD : MONITORS_OF_THE_WALK;
    QorMonitorRecord contended = {};
    if (QorGetContendedMonitorInfo(&sample->handle, &thread, scope, &contended, 0) == 1 &&
        contended.waiting == 1) {
        QorAppendLockWaitRecord(&locks->wait, &contended, sample->processId);
        QorNameVirtualOwner(&sample->handle, contended, sample->lockOwner);
    }

    QorMonitorRecord *records = nullptr;
    const int32_t count = QorGetOwnedMonitorInfo(&sample->handle, &thread, scope, &records);
    for (int32_t i = 0; i < count; ++i)
        if (QorAppendOwnedLockRecord(&locks->owned, &records[i]) < 0)
            break;
    free(records);
}

bool ReadsAtOnce() {
    return gbQorRELocal && !gbQorSkipLocal;
}

// Name, request and identity: the columns before the current call. The URL of a request is known by now
// only to who reads at once.
void AppendIdentity(const QorSample &sample, const QorThreadWalk &walk, QorXtierPositions *at) {
    QorText *out = sample.reply;
    if (!sample.writesStacks)
        QorAppendField(out, "a");
    QorAppendField(out, walk.thread.name);
    QorAppendField(out, null_str);
    const char *url = ReadsAtOnce() ? QorDataReadAtOnce().web->requestUrl : "";
    if (walk.xtier.web)
        at->requestStart = out->length;
    QorAppendField(out, url[0] ? url : null_str);
    QorAppendField(out, null_str); // request detail
    if (walk.xtier.web)
        at->requestEnd = out->length;
    QorAppendField(out, walk.key);
}

void AppendCurrentCall(QorText *out, const QorThreadWalk &walk, QorXtierPositions *at) {
    if (walk.currentCall.length == 0) {
        for (int32_t i = 0; i < 3; ++i)
            QorAppendField(out, null_str);
        return;
    }
    const int32_t start = out->length;
    QorTextAppend(out, walk.currentCall.text, walk.currentCall.length);
    QorTextAppendChar(out, FIELD_SEP);
    if (walk.framework != FRAMEWORK_NONE) {
        at->currentCallStart = start;
        at->currentCallEnd = out->length;
    }
}

void AppendSections(QorSample *sample, const QorThreadWalk &walk, QorXtierPositions *at) {
    QorText *out = sample->reply;
    if (walk.stackRows.length == 0)
        return;
    QorTextAppendChar(out, SECTION_END);
    QorTextAppend(out, TITLE_CALL_STACK);
    if (walk.frameworkRow >= 0)
        at->stackCallStart = at->stackCallEnd = out->length + walk.frameworkRow;
    QorTextAppend(out, walk.stackRows.text, walk.stackRows.length);
    if (out->refused)
        return; // the record won't be written, so its locks need not be asked for

    ThreadLocks locks;
    ReadLocks(sample, walk.thread, &locks);
    if (locks.wait.length > 0) {
        QorTextAppendChar(out, SECTION_END);
        QorTextAppend(out, locks.wait.text, locks.wait.length);
    }
    if (locks.owned.length > 0) {
        QorTextAppendChar(out, SECTION_END);
        QorTextAppend(out, TITLE_LOCKS);
        QorTextAppendChar(out, RECORD_END);
        QorTextAppend(out, locks.owned.text, locks.owned.length);
    }
    QorMonitorRecord blocker = {};
    if (locks.wait.length == 0 && QorGetParkedOn(&sample->handle, &blocker) == 1) {
        QorTextAppendChar(out, SECTION_END);
        QorAppendParkedRecord(out, &blocker);
    }
}

} // namespace

bool QorCarriesThreadData(uint32_t reqid) {
    return (reqid & QORREQ_THREAD_DATA) && e2eclass && jobjclass;
}

int32_t QorWriteThreadRecord(QorSample *sample, QorThreadWalk *walk) {
    QorText *out = sample->reply;
    const int32_t start = out->length;
    sample->lockOwner[0] = 0;
    const bool isPollForm = (sample->reqid & QORREQ_POLL_DETAILS) != 0;
    if (isPollForm && sample->recordStands && !trace_single_thread_details) {
        QorTextAppendChar(out, SECTION_END);
        QorTextAppend(out, sample->title);
    }
    QorXtierPositions at;
    AppendIdentity(*sample, *walk, &at);
    AppendCurrentCall(out, *walk, &at);
    if (gbiOptimizationLevel == 3)
        QorTextAppendChar(out, STATE_MARK);
    QorAppendState(out, walk->thread.state, ReadsAtOnce() ? QorDataReadAtOnce().database : nullptr, &at);
    if (isPollForm)
        AppendSections(sample, *walk, &at);
    else
        QorTextAppendChar(out, RECORD_END);
    const bool noRoomForEnd = out->size - out->length <= 1; // the section's end must follow
    if (out->refused || noRoomForEnd) {
        QorTextCut(out, start);
        QorDropThreadFrames();
        return -1;
    }
    sample->recordStands = true;
    if (!QorHasRowData(walk->xtier))
        QorDropThreadFrames();
    else if (QorAddThreadLocation(&walk->thread, walk->key, at, walk->framework) != 0)
        return -1;
    if (!QorCarriesThreadData(sample->reqid))
        return 0;
    const int32_t added = QorAddE2EBlock(jvmtijni_env, &sample->handle, &walk->thread, sample->frames.count);
    if (added == 0 && sample->lockOwner[0])
        QorNoteLockOwner(sample->lockOwner);
    return added;
}
