#include "frame_report.h"

#include "frame_monitors.h"
#include "frame_names.h"
#include "frame_state.h"

#include "qorformat.h"
#include "qorrequest.h"
#include "qorutil.h"

#include "qorutil/vm_klass.h"

#include <cstdio>
#include <initializer_list>

bool (*qorServerPortTest)(const QorWalkedThread &thread, const QorFrameInfo &frame,
                          const QorFrameNames &names);

namespace {

// Requests that show no more than the current call.
constexpr uint32_t CALL_ONLY =
    QORREQ_JUST_THREADS | QORREQ_MEMORY_ACTIVITY | QORREQ_THREAD_SUMMARY | QORREQ_ACTIVE_THREADS;
constexpr int32_t FIRST_SHOWN_LINE = 4; // lower ones are the compiler's, not the source's
constexpr int32_t DATABASE_FRAMES = 3;  // a network call may be a database's, as the third frame tells

void AppendHex(QorText *out, uint64_t value) {
    char text[24];
    const int32_t length = snprintf(text, sizeof text, "%lx%c", value, FIELD_SEP);
    QorTextAppend(out, text, length);
}

// Call, file, line; no separator at the end.
void AppendFrameGroup(QorText *out, const QorFrameNames &names) {
    QorTextAppend(out, names.className);
    QorTextAppend(out, "->", 2);
    QorAppendField(out, names.method);
    QorAppendField(out, names.native ? NO_LINE_FILE : names.file[0] ? names.file : null_str);
    if (names.line < FIRST_SHOWN_LINE)
        QorTextAppend(out, null_str);
    else
        QorTextAppendNumber(out, names.line);
}

void AppendPlace(QorText *out, const QorFrameInfo &frame) {
    QorTextAppendNumber(out, frame.kind);
    QorTextAppendChar(out, FIELD_SEP);
    for (const uint64_t value : {frame.fp, frame.pc, frame.sp})
        AppendHex(out, value);
}

// A row of a poll: RECORD_END call file line kind fp pc sp method.
void AppendPollRow(QorText *out, const QorFrameInfo &frame, const QorFrameNames &names) {
    char method[24];
    snprintf(method, sizeof method, "%lx", frame.method);
    QorTextAppendChar(out, RECORD_END);
    AppendFrameGroup(out, names);
    QorTextAppendChar(out, FIELD_SEP);
    AppendPlace(out, frame);
    QorTextAppend(out, method);
}

// A row of one thread's view: marker kind fp pc sp method call file line RECORD_END.
void AppendStackRow(QorText *out, const QorFrameInfo &frame, const QorFrameNames &names, bool system) {
    QorAppendField(out, system ? "sys" : "user");
    AppendPlace(out, frame);
    AppendHex(out, frame.method);
    AppendFrameGroup(out, names);
    QorTextAppendChar(out, RECORD_END);
}

// Rows behind a hole would pass for the next ones, so the first that has no room is the last.
void AppendRow(const QorSampleRequest &request, QorText *out, const QorFrameInfo &frame,
               const QorFrameNames &names, bool system) {
    const int32_t start = out->length;
    if (!(request.reqid & (QORREQ_POLL_DETAILS | QORREQ_THREAD_DETAILS)) || out->refused)
        return;
    if (request.reqid & QORREQ_POLL_DETAILS)
        AppendPollRow(out, frame, names);
    else
        AppendStackRow(out, frame, names, system);
    if (!out->refused)
        return;
    QorTextCut(out, start);
    out->refused = qorReplyIsCut = true;
}

void SetCall(QorThreadText *out, const QorFrameNames &names, bool system) {
    QorTextCut(&out->call, 0);
    AppendFrameGroup(&out->call, names);
    out->userCall = !system;
}

// The current call: the application's first one, else the top frame.
void NoteCall(QorThreadText *out, const QorFrameNames &names, bool system) {
    if (!out->userCall && (!system || out->printed == 0))
        SetCall(out, names, system);
}

// One frame. REPORT_DROPPED ends the thread; false in *more ends its frames.
QorReport ReportFrame(const QorWalkedThread &thread, const QorSampleRequest &request,
                      const QorFrameInfo &frame, const QorFrameNames &names, QorThreadText *out, bool *more) {
    if (request.reqid & QORREQ_SERVER_SCAN)
        return qorServerPortTest && qorServerPortTest(thread, frame, names) ? REPORT_PORT_FOUND : REPORT_DONE;
    const bool first = out->printed == 0;
    const bool system = checkSystemCall(names.className, names.method) != 0;
    const bool held = out->holds;
    if (!QorReportMonitors(thread, request, frame, names, first, out))
        return REPORT_DROPPED;
    out->state = QorRefineState(out->state, out->printed, names.className, names.method);
    if (QorLeavesIdleOut(request) && !checkPreActive(out->state))
        return REPORT_DROPPED;
    if (out->holds && !held)
        SetCall(out, names, system); // where it holds the lock
    else if (!out->holds)
        NoteCall(out, names, system);
    if ((request.reqid & QORREQ_JUST_THREADS) && !system && checkCurrCall(names.className, names.method) == 0)
        out->state = DIRECT_OBJECT_WAIT;
    AppendRow(request, &out->rows, frame, names, system);
    out->printed++;
    const bool mayBeDatabase = out->state == DIRECT_NETWORK_WAIT && out->printed < DATABASE_FRAMES;
    *more = !(request.reqid & CALL_ONLY) || !out->userCall || mayBeDatabase;
    return REPORT_DONE;
}

} // namespace

bool QorLeavesIdleOut(const QorSampleRequest &request) {
    return (request.reqid & QORREQ_SAMPLING) && !request.everyThread && !trace_single_thread_details;
}

QorReport QorReportFrames(const QorWalkedThread &thread, const QorSampleRequest &request,
                          QorThreadText *out) {
    const bool caller = thread.facts.address == gbCallerJavaThread && thread.facts.id == gbCallerKernelId;
    out->state = caller ? DIRECT_OBJECT_WAIT : thread.facts.state;
    static QorFrameNames names; // 3 KB; the worker alone reports
    bool more = true;
    for (int32_t i = 0; i < thread.frames && more; i++) {
        const QorNaming naming = QorNameFrame(frame_info[i], &names);
        if (naming == FRAME_UNREADABLE)
            return REPORT_UNREADABLE;
        if (naming == FRAME_NAMELESS)
            continue;
        const QorReport report = ReportFrame(thread, request, frame_info[i], names, out, &more);
        if (report != REPORT_DONE)
            return report;
    }
    if (out->printed == 0)
        out->state = QorStateWithoutFrames(out->state, thread.name);
    return REPORT_DONE;
}
