#include "collect_thread.h"

#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorutil.h"
#include "reply/records.h"

#include "Xtier/XtierInsert.h"
#include "Xtier/thread_e2e_info.h"
#include "direct_connections.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t ROWS = QORREQ_MEMORY_ACTIVITY | QORREQ_THREAD_SUMMARY | QORREQ_ACTIVE_THREADS;
constexpr char MARKER_USER[] = "user", MARKER_SYSTEM[] = "sys";
constexpr char TITLE_CLIENT[] = "RMI Client", TITLE_CONTEXT[] = "Context ID";
constexpr char FRAMEWORK_URL[] = "/faces";
constexpr char NO_ROOM_FOR_BLOCK[] = "Completion Diagnostic Code 04-01";
constexpr char NO_ROOM_FOR_CALL[] = "Completion Diagnostic Code 04-02";
constexpr char NO_ROOM_FOR_URL[] = "Completion Diagnostic Code 04-03";
constexpr char NO_LOCKS[] = "No Locks held by Current Thread";
constexpr char NO_SUCH_THREAD[] = "This Thread does not exist on the JVM";
constexpr char NO_CALL_ID[] = "RMI Call Id not found on server JVM";
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

// A framework's own address says nothing; the page that it shows does.
const char *UrlOf(const QorThreadTiers &tiers) {
    const bool saysNothing =
        !tiers.url[0] || strncmp(tiers.url, FRAMEWORK_URL, sizeof FRAMEWORK_URL - 1) == 0;
    return saysNothing && tiers.page[0] ? tiers.page : tiers.url;
}

// Call, file and line; the method that is called on another server goes with the call.
void AppendCall(QorText *out, const QorThreadText &text) {
    if (text.call.length == 0) {
        const char *const fields[] = {null_str, null_str, null_str};
        for (const char *field : fields)
            QorAppendField(out, field);
        return;
    }
    QorTextAppend(out, text.call.text, text.callEnd);
    if (text.tiers && text.tiers->ejbMethod[0]) {
        const char *const parts[] = {" (", text.tiers->ejbClass, "->", text.tiers->ejbMethod, ")"};
        for (const char *part : parts)
            QorTextAppend(out, part);
    }
    QorTextAppend(out, text.call.text + text.callEnd, text.call.length - text.callEnd);
    QorTextAppendChar(out, FIELD_SEP);
}

// The state, and of a call to a database or another server what is known of it.
void AppendState(QorText *out, const QorThreadText &text) {
    QorTextAppend(out, tempstates[text.state]);
    if (text.state == DIRECT_DB_WAIT && text.tiers)
        QorTextAppend(out, text.tiers->databaseBlock);
    else if (text.state == DIRECT_RMI_WAIT && text.tiers && text.tiers->call.host[0])
        QorAppendRmiBlock(out, QorRmiBlockOf(text.tiers->call));
}

// Name, request, key, current call and state.
void AppendHead(QorText *out, const QorWalkedThread &thread, const QorThreadText &text) {
    const char *const url = text.tiers ? UrlOf(*text.tiers) : "";
    const char *const address = text.tiers ? text.tiers->remoteAddress : "";
    const char *const fields[] = {thread.name, null_str, OrPlaceholder(url), OrPlaceholder(address),
                                  thread.key};
    for (const char *field : fields)
        QorAppendField(out, field);
    AppendCall(out, text);
    AppendState(out, text);
}

// The JVM whose call the thread answers.
void AppendClient(QorText *out, const QorThreadTiers &tiers) {
    if (tiers.clientPort == 0 && !tiers.clientHost[0])
        return;
    AppendTitle(out, TITLE_CLIENT);
    QorTextAppendNumber(out, tiers.clientPort);
    QorTextAppendChar(out, FIELD_SEP);
    AppendSection(out, OrPlaceholder(tiers.clientHost));
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
    if (text.tiers)
        AppendClient(out, *text.tiers);
    AppendTitle(out, TITLE_CALL_STACK);
    AppendText(out, text.rows);
    EndSection(out);
    AppendTitle(out, TITLE_LOCKS);
    AppendText(out, text.locks);
    EndSection(out);
    if (!text.tiers || !text.tiers->contextId[0])
        return;
    AppendTitle(out, TITLE_CONTEXT);
    AppendSection(out, text.tiers->contextId);
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

// What was too much of a record that didn't fit.
const char *WhatHadNoRoom(const QorThreadText &text) {
    if (text.tiers && text.tiers->databaseBlock[0])
        return NO_ROOM_FOR_BLOCK;
    return text.tiers && text.tiers->url[0] ? NO_ROOM_FOR_URL : NO_ROOM_FOR_CALL;
}

// Takes back a record that didn't fit; a view of one thread says so.
void GiveUpRecord(QorDirectSample *sample, int32_t start, const char *why) {
    QorTextCut(sample->reply, start);
    QORLOG(LOG_WARNING, "%s", why);
    if (sample->request.reqid & QORREQ_THREAD_DETAILS)
        AppendSection(sample->reply, why);
    sample->ended = qorReplyIsCut = true;
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

// The answer is the thread that runs the call asked for.
void CollectServedCall(QorDirectSample *sample, const QorWalkedThread &thread, const QorThreadText &text) {
    char **const args = sample->request.args;
    sample->shown = args[1] && text.tiers && text.tiers->servedCall == atoi(args[0]);
    sample->ended = sample->shown;
    if (!sample->shown)
        return;
    QorTextAppend(sample->reply, thread.name);
    QorTextAppendChar(sample->reply, '|');
    QorTextAppend(sample->reply, thread.key);
}

// Without a call it is the one that uses the connection with that port of ours.
void CloseSearch(const QorDirectSample &sample) {
    char **const args = sample.request.args;
    if (sample.shown)
        return;
    if (args[1])
        QorTextAppend(sample.reply, NO_CALL_ID);
    else if (!QorThreadOfClientPort(atoi(args[0]), sample.reply))
        QorTextAppend(sample.reply, NO_CLIENT_PORT);
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
    if (reqid == QORREQ_VIRTUAL_THREADS) {
        QorAppendTitle(sample->reply, TITLE_VIRTUAL_THREADS);
        QorAppendNoVirtualThreads(sample->reply, NO_VIRTUAL_THREADS);
        return false;
    }
    if ((reqid & QORREQ_POLL_DETAILS) && no_gc) {
        AppendSection(sample->reply, COLLECTOR_RUNNING);
        return false;
    }
    if ((reqid & QORREQ_POLL_DETAILS) && !poll_details && !trace_single_thread_details)
        reqid = QORREQ_ACTIVE_THREADS;
    if ((reqid & QORREQ_DB_XTIER) && !sample->request.args[0])
        return false;
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
    if (reqid & QORREQ_DB_XTIER)
        CollectServedCall(sample, thread, text);
    if (out->refused)
        GiveUpRecord(sample, start, WhatHadNoRoom(text));
    else if (reqid & QORREQ_THREAD_DATA)
        QorAddE2EBlock(thread.facts.address, thread.facts.id, thread.name, thread.frames);
}

void QorCloseDirectReply(QorDirectSample *sample) {
    const uint32_t reqid = sample->request.reqid;
    if (reqid & QORREQ_JUST_THREADS)
        AppendCounts(sample->reply, sample->counts);
    else if (reqid & QORREQ_DB_XTIER)
        CloseSearch(*sample);
    else if (reqid & ROWS)
        EndSection(sample->reply);
    else if ((reqid & QORREQ_THREAD_DETAILS) && !sample->shown)
        AppendSection(sample->reply, NO_SUCH_THREAD);
    else if ((reqid & QORREQ_LOCK_HOLDER) && !sample->shown) {
        AppendSection(sample->reply, NO_HOLDER);
        AppendSection(sample->reply, NO_HOLDER_HINT);
    }
}
