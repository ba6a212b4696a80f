#include "thread_facts.h"

#include "platforms/qorsysinfo.h"
#include "reply/qorformat.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"
#include "qorutil/vm_threads.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr uint64_t SP_FLAGS = 3; // bits of the anchor's sp that the JVM uses for itself

} // namespace

bool QorReadThreadFacts(uint64_t thread, QorThreadFacts *out) {
    QorForgetPages();
    *out = {};
    out->address = thread;
    if (!QorPeekValue(thread + offsets[THREAD_OBJECT], &out->object) ||
        !QorPeekValue(thread + offsets[THREAD_STATE], &out->vmState) ||
        !QorPeekValue(thread + offsets[THREAD_LAST_SP], &out->lastSp) ||
        !QorPeekValue(thread + offsets[THREAD_OSTHREAD], &out->osThread))
        return false;
    out->lastSp &= ~SP_FLAGS;
    out->osState = NO_OS_THREAD;
    if (out->osThread && (!QorPeekValue(out->osThread + OSTHREAD_STATE, &out->osState) ||
                          !QorPeekValue(out->osThread + offsets[OSTHREAD_ID], &out->id)))
        return false;
    out->state = QorStateOf(out->osState);
    return true;
}

bool QorStillThatThread(const QorThreadFacts &facts) {
    QorForgetPages();
    return facts.id > 0 && QorKernelIdOf(facts.address) == facts.id &&
           syscall(SYS_tgkill, getpid(), facts.id, 0) == 0;
}

void QorReadThreadName(const QorThreadFacts &facts, char *out) {
    if (!valid_oop(facts.object) ||
        !QorCharArrayText(out, QOR_THREAD_NAME_SIZE, QorWordAt(facts.object + THREAD_NAME)) || !out[0])
        snprintf(out, QOR_THREAD_NAME_SIZE, "%s", null_str);
    std::replace(out, out + strlen(out), '|', ' ');
}

void QorFormatDirectKey(const QorThreadFacts &facts, char *out) {
    if (Pthread_NPTL)
        snprintf(out, QOR_THREAD_KEY_SIZE, "%d-%d", getpid(), facts.id);
    else
        snprintf(out, QOR_THREAD_KEY_SIZE, "%d", facts.id);
}
