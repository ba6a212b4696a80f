// The record of one thread in an all-threads sample.
#include "all_threads_sample.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/Session.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "thread_e2e_info.h"

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
        contended.waiting == 1)
        QorAppendLockWaitRecord(&locks->wait, &contended, sample->processId);

    QorMonitorRecord *records = nullptr;
    const int32_t count = QorGetOwnedMonitorInfo(&sample->handle, &thread, scope, &records);
    for (int32_t i = 0; i < count; ++i)
        if (QorAppendOwnedLockRecord(&locks->owned, &records[i]) < 0)
            break;
    free(records);
}

// Name, request and identity: the columns in front of the current call.
void AppendIdentity(const QorSample &sample, const QorThreadWalk &walk) {
    QorText *out = sample.reply;
    if (!sample.writesStacks)
        QorAppendField(out, "a");
    QorAppendField(out, walk.thread.name);
    QorAppendField(out, null_str);
    QorAppendField(out, null_str); // request URL
    QorAppendField(out, null_str); // request detail
    QorAppendField(out, walk.key);
}

void AppendCurrentCall(QorText *out, const QorText &currentCall) {
    if (currentCall.length > 0) {
        QorTextAppend(out, currentCall.text, currentCall.length);
        QorTextAppendChar(out, FIELD_SEP);
        return;
    }
    for (int32_t i = 0; i < 3; ++i)
        QorAppendField(out, null_str);
}

void AppendState(QorText *out, int32_t state) {
    if (gbiOptimizationLevel == 3)
        QorTextAppendChar(out, STATE_MARK);
    char strThreadState[STATE_TEXT_SIZE];
    mapQorThreadState2String(state, strThreadState);
    QorTextAppend(out, strThreadState);
    if (state == STATE_DB_WAIT)
        QorTextAppend(out, QorEmptyDatabaseBlock());
    else if (state == STATE_RMI_WAIT)
        QorTextAppend(out, QorEmptyRmiBlock());
}

void AppendSections(QorSample *sample, const QorThreadWalk &walk) {
    QorText *out = sample->reply;
    if (walk.stackRows.length == 0)
        return;
    QorTextAppendChar(out, SECTION_END);
    QorTextAppend(out, TITLE_CALL_STACK);
    QorTextAppend(out, walk.stackRows.text, walk.stackRows.length);
    if (out->refused)
        return; // the record will not stand, so its locks need not be asked for

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
}

} // namespace

int32_t QorWriteThreadRecord(QorSample *sample, QorThreadWalk *walk) {
    QorText *out = sample->reply;
    const int32_t start = out->length;
    const bool isPollForm = (sample->reqid & QORREQ_POLL_DETAILS) != 0;
    if (isPollForm && sample->recordStands && !trace_single_thread_details) {
        QorTextAppendChar(out, SECTION_END);
        QorTextAppend(out, sample->title);
    }
    AppendIdentity(*sample, *walk);
    AppendCurrentCall(out, walk->currentCall);
    AppendState(out, walk->thread.state);
    if (isPollForm)
        AppendSections(sample, *walk);
    else
        QorTextAppendChar(out, RECORD_END);
    const bool noRoomForEnd = out->size - out->length <= 1; // the section's end must follow
    if (out->refused || noRoomForEnd) {
        QorTextCut(out, start);
        return -1;
    }
    sample->recordStands = true;
    if ((sample->reqid & QORREQ_THREAD_DATA) && e2eclass && jobjclass)
        return QorAddE2EBlock(jvmtijni_env, &sample->handle, &walk->thread, sample->frames.count);
    return 0;
}
