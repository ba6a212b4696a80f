#include "frame_monitors.h"

#include "frame_state.h"

#include "qorrequest.h"
#include "qorutil.h"
#include "reply/qorformat.h"

#include <cstdio>

namespace {

enum : int32_t { LOCK_RECORD_SIZE = 3 * VM_SYMBOL_SIZE + 128 };

// A thread that has stopped at a collection's wish is blocked too, but waits for no monitor.
bool WaitsForMonitor(const QorThreadFacts &facts) {
    return (facts.vmState == VM_STATE_BLOCKED || facts.vmState == VM_STATE_BLOCKED_LEAVING) &&
           facts.state == DIRECT_LOCK;
}

void AppendWait(QorText *out, uint64_t object, const char *className) {
    char record[LOCK_RECORD_SIZE];
    const int32_t length =
        snprintf(record, sizeof record, "%s%c%lx%c%d%c%s%c%s%c", TITLE_LOCK_WAIT, RECORD_END, object,
                 FIELD_SEP, 0, FIELD_SEP, className, FIELD_SEP, VIEW_LOCK_HOLDER, SECTION_END);
    QorTextAppend(out, record, length);
}

// In a poll the last field is the frame's number, in the view of one thread its call.
void AppendHeld(QorText *out, const QorSampleRequest &request, uint64_t object, const char *className,
                const QorFrameNames &names, int32_t frame) {
    if (!(request.reqid & (QORREQ_POLL_DETAILS | QORREQ_THREAD_DETAILS)))
        return; // they aren't shown
    char record[LOCK_RECORD_SIZE], where[2 * VM_SYMBOL_SIZE + 8], lock[24];
    if (request.reqid & QORREQ_POLL_DETAILS)
        snprintf(where, sizeof where, "%d", frame);
    else
        snprintf(where, sizeof where, "%s->%s", names.className, names.method);
    snprintf(lock, sizeof lock, "%lx", object);
    const int32_t length = className[0]
                               ? snprintf(record, sizeof record, "%s%c%d%c%s%c%s%c", lock, FIELD_SEP, 0,
                                          FIELD_SEP, className, FIELD_SEP, where, RECORD_END)
                               : snprintf(record, sizeof record, "%s%c%s%cInvalid Object%c%s%c", null_str,
                                          FIELD_SEP, null_str, FIELD_SEP, FIELD_SEP, where, RECORD_END);
    if (QorTextAppend(out, record, length) < 0)
        qorReplyIsCut = true;
}

} // namespace

bool QorReportMonitors(const QorWalkedThread &thread, const QorSampleRequest &request,
                       const QorFrameInfo &frame, const QorFrameNames &names, bool first,
                       QorThreadText *out) {
    static char className[VM_SYMBOL_SIZE];
    for (int32_t i = 0; i < frame.monitorCount; i++) {
        const uint64_t object = frame_monitors[frame.firstMonitor + i];
        const bool isObject = QorClassNameOf(object, className);
        const bool waited = first && i == 0 && WaitsForMonitor(thread.facts);
        if (object && !isObject)
            continue; // the frame has put something else there
        if (waited && QorLeavesIdleOut(request) && !QorKeepsState(thread.facts.state) &&
            !checkMonitor(className))
            return false;
        if (waited && isObject)
            AppendWait(&out->waits, object, className);
        if (waited)
            continue;
        out->holds |= isObject && object == request.lock;
        AppendHeld(&out->locks, request, object, className, names, out->printed);
    }
    return true;
}
