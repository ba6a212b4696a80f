#include "frame_report.h"

#include "frame_monitors.h"
#include "frame_rows.h"
#include "frame_state.h"
#include "sunprint/frame_names.h"

#include "qorrequest.h"
#include "qorutil.h"
#include "reply/qorformat.h"

#include "qorutil/vm_klass.h"

bool (*qorServerPortTest)(const QorWalkedThread &thread, const QorFrameInfo &frame,
                          const QorFrameNames &names);

namespace {

// Requests that show no more than the current call.
constexpr uint32_t CALL_ONLY =
    QORREQ_JUST_THREADS | QORREQ_MEMORY_ACTIVITY | QORREQ_THREAD_SUMMARY | QORREQ_ACTIVE_THREADS;
constexpr int32_t DATABASE_FRAMES = 3;    // a network call may be a database's, as the third frame shows
constexpr int32_t CONNECTION_FRAMES = 40; // in which the connection is looked for
// Requests that show what the frames say of other tiers.
constexpr uint32_t WITH_TIERS = QORREQ_MEMORY_ACTIVITY | QORREQ_THREAD_SUMMARY | QORREQ_THREAD_DETAILS |
                                QORREQ_DB_XTIER | QORREQ_SAMPLING;

void SetCall(QorThreadText *out, const QorFrameNames &names, bool system) {
    QorTextCut(&out->call, 0);
    out->callEnd = QorAppendCall(&out->call, names);
    out->userCall = !system;
}

// The current call: the application's first one, else the top frame.
void NoteCall(QorThreadText *out, const QorFrameNames &names, bool system) {
    if (!out->userCall && (!system || out->printed == 0))
        SetCall(out, names, system);
}

// What a framework works on is shown as the application's call, and as a separate row above the frame's.
void ReportFramework(const QorSampleRequest &request, QorThreadTiers *tiers, QorThreadText *out) {
    tiers->lineAt = QorAppendFrameworkRow(request, &out->rows, *tiers);
    if (out->userCall || (request.reqid & QORREQ_LOCK_HOLDER))
        return;
    QorTextCut(&out->call, 0);
    out->callEnd = QorAppendFrameworkCall(&out->call, *tiers);
    out->userCall = true;
}

void ReportTiers(const QorWalkedThread &thread, const QorSampleRequest &request, const QorFrameInfo &frame,
                 const QorFrameNames &names, QorThreadTiers *tiers, QorThreadText *out) {
    if (QorWaitsForRemoteCall(names))
        out->state = DIRECT_RMI_WAIT;
    if (!(request.reqid & WITH_TIERS))
        return;
    const bool database = out->state == DIRECT_DB_WAIT || (request.reqid & QORREQ_DB_XTIER);
    const bool hadLine = tiers->line != 0;
    if (QorReadTiers({thread.name, thread.key, &frame, &names, out->printed, database}, tiers))
        ReportFramework(request, tiers, out);
    if (tiers->line != 0 && !hadLine)
        QorPutLine(&out->rows, tiers->lineAt, tiers->line);
}

// Whether frames further out may add something.
bool GoesOn(const QorSampleRequest &request, const QorThreadText &out) {
    if (!(request.reqid & CALL_ONLY) || !out.userCall)
        return true;
    if (out.state == DIRECT_NETWORK_WAIT)
        return out.printed < DATABASE_FRAMES;
    return (request.reqid & WITH_TIERS) && out.state == DIRECT_DB_WAIT && !out.tiers->databaseBlock[0] &&
           out.printed < CONNECTION_FRAMES;
}

// One frame. REPORT_DROPPED ends the thread; false in *more ends its frames.
QorReport ReportFrame(const QorWalkedThread &thread, const QorSampleRequest &request,
                      const QorFrameInfo &frame, const QorFrameNames &names, QorThreadTiers *tiers,
                      QorThreadText *out, bool *more) {
    if (request.reqid & QORREQ_SERVER_SCAN)
        return qorServerPortTest && qorServerPortTest(thread, frame, names) ? REPORT_PORT_FOUND : REPORT_DONE;
    const bool first = out->printed == 0;
    const bool system = checkSystemCall(names.className, names.method) != 0;
    const bool held = out->holds, hadCall = out->userCall;
    if (!QorReportMonitors(thread, request, frame, names, first, out))
        return REPORT_DROPPED;
    out->state = QorRefineState(out->state, out->printed, names.className, names.method);
    ReportTiers(thread, request, frame, names, tiers, out);
    if (QorLeavesIdleOut(request) && !checkPreActive(out->state))
        return REPORT_DROPPED;
    if (out->holds && !held)
        SetCall(out, names, system); // where it holds the lock
    else if (!out->holds)
        NoteCall(out, names, system);
    if ((request.reqid & QORREQ_JUST_THREADS) && !hadCall && !system && !QorKeepsState(out->state) &&
        checkCurrCall(names.className, names.method) == 0)
        out->state = DIRECT_OBJECT_WAIT;
    QorAppendFrameRow(request, &out->rows, frame, names, system);
    out->printed++;
    *more = GoesOn(request, *out);
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
    QorThreadTiers *const tiers = QorClearTiers();
    out->tiers = tiers;
    if ((request.reqid & QORREQ_THREAD_DETAILS) && QorHasContextIds())
        QorVmText(tiers->contextId, sizeof tiers->contextId, getContextId(thread.facts.object));
    bool more = true;
    for (int32_t i = 0; i < thread.frames && more; i++) {
        const QorNaming naming = QorNameFrame(frame_info[i], &names);
        if (naming == FRAME_UNREADABLE)
            return REPORT_UNREADABLE;
        if (naming == FRAME_NAMELESS)
            continue;
        const QorReport report = ReportFrame(thread, request, frame_info[i], names, tiers, out, &more);
        if (report != REPORT_DONE)
            return report;
    }
    if (out->printed == 0)
        out->state = QorStateWithoutFrames(out->state, thread.name);
    if (out->state == DIRECT_DB_WAIT && (request.reqid & WITH_TIERS))
        QorUseKnownConnection(thread.name, thread.key, tiers);
    return REPORT_DONE;
}
