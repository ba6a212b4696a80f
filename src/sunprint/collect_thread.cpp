#include "collect_thread.h"

#include "qorformat.h"
#include "qorrequest.h"
#include "qorsysinfo.h"
#include "qorutil.h"

#include <cstring>

namespace {

constexpr uint32_t ROWS = QORREQ_MEMORY_ACTIVITY | QORREQ_THREAD_SUMMARY | QORREQ_ACTIVE_THREADS;
constexpr char MARKER_USER[] = "user", MARKER_SYSTEM[] = "sys";
constexpr char NO_LOCKS[] = "No Locks held by Current Thread";
constexpr char NO_SUCH_THREAD[] = "This Thread does not exist on the JVM";
constexpr char NO_HOLDER[] = "Thread holding this lock not found.";
constexpr char NO_HOLDER_HINT[] = "Check if the object is still locked.";

void AppendTitle(QorText *out, const char *title) {
    QorTextAppend(out, title);
    QorTextAppendChar(out, RECORD_END);
}

void AppendSection(QorText *out, const char *text) {
    QorTextAppend(out, text);
    QorTextAppendChar(out, SECTION_END);
}

// Turns the mark of the last record, or of the title, into the section's.
void EndSection(QorText *out) {
    if (out->length == 0 || out->text[out->length - 1] != RECORD_END)
        return;
    QorTextCut(out, out->length - 1);
    QorTextAppendChar(out, SECTION_END);
}

void AppendText(QorText *out, const QorText &text) {
    QorTextAppend(out, text.text, text.length);
}

// Name, request, key and current call; the request of a server isn't known.
void AppendHead(QorText *out, const QorWalkedThread &thread, const QorThreadText &text) {
    const char *const fields[] = {thread.name, null_str, null_str, null_str, thread.key};
    for (const char *field : fields)
        QorAppendField(out, field);
    if (text.call.length == 0)
        for (int32_t i = 0; i < 3; i++)
            QorAppendField(out, null_str);
    else {
        AppendText(out, text.call);
        QorTextAppendChar(out, FIELD_SEP);
    }
    QorTextAppend(out, tempstates[text.state]);
}

const char *MarkerOf(const QorThreadText &text) {
    return text.userCall ? MARKER_USER : MARKER_SYSTEM;
}

void AppendPollRecord(QorText *out, const QorSampleRequest &request, const QorWalkedThread &thread,
                      const QorThreadText &text) {
    char title[TITLE_SIZE];
    InitResponseHeader(request.reqid, title);
    QorTextAppend(out, title);
    QorAppendField(out, MarkerOf(text));
    AppendHead(out, thread, text);
    QorTextAppendChar(out, SECTION_END);
    if (text.printed == 0)
        return;
    QorTextAppend(out, TITLE_CALL_STACK);
    AppendText(out, text.rows);
    QorTextAppendChar(out, SECTION_END);
    AppendText(out, text.waits);
    if (text.locks.length == 0) {
        AppendSection(out, NO_LOCKS);
        return;
    }
    AppendTitle(out, TITLE_LOCKS);
    AppendText(out, text.locks);
    EndSection(out);
}

void AppendStackView(QorText *out, const QorSampleRequest &request, const QorWalkedThread &thread,
                     const QorThreadText &text) {
    char title[TITLE_SIZE];
    InitResponseHeader(request.reqid, title);
    AppendText(out, text.waits);
    QorTextAppend(out, title);
    AppendHead(out, thread, text);
    QorTextAppendChar(out, SECTION_END);
    AppendTitle(out, TITLE_CALL_STACK);
    AppendText(out, text.rows);
    EndSection(out);
    AppendTitle(out, TITLE_LOCKS);
    AppendText(out, text.locks);
    EndSection(out);
}

void AppendHolder(QorText *out, const QorWalkedThread &thread, const QorThreadText &text) {
    const char *const fields[] = {MarkerOf(text), thread.name, thread.key};
    for (const char *field : fields)
        QorAppendField(out, field);
    AppendText(out, text.call);
    QorTextAppendChar(out, FIELD_SEP);
    AppendSection(out, tempstates[text.state]);
}

void AppendRow(QorText *out, const QorWalkedThread &thread, const QorThreadText &text) {
    QorAppendField(out, MarkerOf(text));
    AppendHead(out, thread, text);
    QorTextAppendChar(out, RECORD_END);
}

// Whether the thread has anything to show.
bool Counts(const QorDirectSample &sample, const QorThreadText &text) {
    const QorSampleRequest &request = sample.request;
    if (request.reqid & QORREQ_LOCK_HOLDER)
        return text.holds;
    if (QorLeavesIdleOut(request) && !checkState(tempstates[text.state]))
        return false;
    return true;
}

void AppendCounts(QorText *out, const int32_t *counts) {
    const int64_t figures[] = {
        counts[DIRECT_RUNNABLE], counts[DIRECT_DB_WAIT],
        counts[DIRECT_LOCK],     counts[DIRECT_NETWORK_WAIT],
        counts[DIRECT_IO_WAIT],  counts[DIRECT_OBJECT_WAIT] + counts[DIRECT_CONDVAR_WAIT],
        counts[DIRECT_SLEEPING], counts[DIRECT_RMI_WAIT]};
    for (const int64_t figure : figures) {
        QorTextAppendNumber(out, figure);
        QorTextAppendChar(out, FIELD_SEP);
    }
    QorTextAppendNumber(out, qorsysinfo(CPU_PROCESS_LOAD));
}

} // namespace

bool QorOpenDirectReply(QorDirectSample *sample) {
    uint32_t &reqid = sample->request.reqid;
    if ((reqid & QORREQ_POLL_DETAILS) && no_gc) {
        AppendSection(sample->reply, COLLECTOR_RUNNING);
        return false;
    }
    if ((reqid & QORREQ_POLL_DETAILS) && !poll_details && !trace_single_thread_details)
        reqid = QORREQ_ACTIVE_THREADS;
    if (((reqid & QORREQ_LOCK_HOLDER) && !sample->request.args[0]) ||
        ((reqid & QORREQ_THREAD_DETAILS) && !sample->request.args[1])) {
        QorTextAppendChar(sample->reply, SECTION_END);
        return false;
    }
    if ((reqid & (ROWS | QORREQ_LOCK_HOLDER)) && !(reqid & QORREQ_JUST_THREADS)) {
        char title[TITLE_SIZE];
        InitResponseHeader(reqid, title);
        QorTextAppend(sample->reply, title);
    }
    return true;
}

void QorCollectThread(QorDirectSample *sample, const QorWalkedThread &thread, const QorThreadText &text) {
    const uint32_t reqid = sample->request.reqid;
    if (!Counts(*sample, text))
        return;
    QorText *out = sample->reply;
    const int32_t start = out->length;
    if (reqid & QORREQ_JUST_THREADS)
        sample->counts[text.state]++;
    else if (reqid & ROWS)
        AppendRow(out, thread, text);
    else if (reqid & QORREQ_POLL_DETAILS)
        AppendPollRecord(out, sample->request, thread, text);
    else if (reqid & QORREQ_THREAD_DETAILS)
        AppendStackView(out, sample->request, thread, text);
    else if (reqid & QORREQ_LOCK_HOLDER)
        AppendHolder(out, thread, text);
    sample->shown = true;
    sample->ended = reqid & (QORREQ_LOCK_HOLDER | QORREQ_THREAD_DETAILS);
    if (!out->refused)
        return;
    QorTextCut(out, start);
    sample->ended = qorReplyIsCut = true;
}

void QorCloseDirectReply(QorDirectSample *sample) {
    const uint32_t reqid = sample->request.reqid;
    if (reqid & QORREQ_JUST_THREADS)
        AppendCounts(sample->reply, sample->counts);
    else if (reqid & ROWS)
        EndSection(sample->reply);
    else if ((reqid & QORREQ_THREAD_DETAILS) && !sample->shown)
        AppendSection(sample->reply, NO_SUCH_THREAD);
    else if ((reqid & QORREQ_LOCK_HOLDER) && !sample->shown) {
        AppendSection(sample->reply, NO_HOLDER);
        AppendSection(sample->reply, NO_HOLDER_HINT);
    }
}
