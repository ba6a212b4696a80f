#include "call_stack_trace.h"

#include "qorrequest.h"
#include "qorsettings.h"
#include "qorutil.h"

#include "qorutil/vm_heap.h"

#include <cstring>

namespace {

// Requests that choose among the threads.
constexpr uint32_t CHOOSING =
    QORREQ_SAMPLING | QORREQ_DB_XTIER | QORREQ_LOCK_HOLDER | QORREQ_THREAD_DETAILS | QORREQ_SERVER_SCAN;
constexpr int32_t LAST_LOOK = 4; // a running thread found so often is read as it is from then on

bool IsRunning(const QorThreadFacts &facts) {
    return facts.lastSp == 0;
}

// By the state alone, before anything of the stack is read.
bool IsActive(const QorThreadFacts &facts, const QorSampleRequest &request, int32_t *looks) {
    if (request.reqid & QORREQ_DB_XTIER)
        return facts.state == DIRECT_RUNNABLE && !IsRunning(facts);
    if (!checkPreActive(facts.state))
        return false;
    if (IsRunning(facts) && !(sp_null_enable && facts.vmState == VM_STATE_JAVA))
        return false;
    if (looks && *looks <= LAST_LOOK && IsRunning(facts)) {
        ++*looks;
        return false;
    }
    return true;
}

// The part of a context id that threads of one request share.
size_t SharedLength(const char *id) {
    const char *const comma = strcmp(webserver, "QVS") == 0 ? strrchr(id, ',') : nullptr;
    return comma ? static_cast<size_t>(comma - id) : strlen(id);
}

bool HasContextId(const QorWalkedThread &thread, const char *id) {
    static char own[VM_TEXT_SIZE];
    if (!valid_oop(thread.facts.object) || !QorVmText(own, sizeof own, getContextId(thread.facts.object)))
        return false;
    const size_t length = SharedLength(own);
    return length == SharedLength(id) && strncmp(own, id, length) == 0;
}

bool IsKey(const QorWalkedThread &thread, const char *key) {
    return key && strcmp(thread.key, key) == 0;
}

// The key decides; a name is compared where one is given.
bool IsTheThread(const QorWalkedThread &thread, char **args) {
    return IsKey(thread, args[1]) && (!args[0] || strcmp(thread.name, args[0]) == 0);
}

} // namespace

bool call_stack_trace(const QorWalkedThread &thread, const QorSampleRequest &request, int32_t *looks) {
    const uint32_t reqid = request.reqid;
    if ((reqid & ~CHOOSING) || (reqid & QORREQ_SERVER_SCAN) ||
        (request.everyThread && (reqid & QORREQ_SAMPLING)))
        return true;
    if ((reqid & QORREQ_ACTIVE_THREADS) && request.args[0] && QorHasContextIds())
        return HasContextId(thread, request.args[0]);
    const bool one = trace_single_thread_details && (reqid & QORREQ_SAMPLING);
    if ((reqid & (QORREQ_SAMPLING | QORREQ_DB_XTIER)) && !one)
        return IsActive(thread.facts, request, looks);
    if (!valid_oop(thread.facts.object))
        return false;
    if (reqid & QORREQ_LOCK_HOLDER)
        return !IsKey(thread, request.args[1]);
    return IsTheThread(thread, request.args);
}
