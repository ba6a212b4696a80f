#include "hold_tests.h"

#include "thread_facts.h"

#include "qorutil/vm_reader.h"
#include "qorutil/vm_threads.h"

#include <cstdio>

namespace {

bool IsInJava(uint64_t thread, int32_t id) {
    int32_t state = 0;
    uint64_t osThread = 0;
    int32_t kernelId = 0;
    return QorPeekFresh(thread + offsets[THREAD_STATE], &state, sizeof state) && state == VM_STATE_JAVA &&
           QorPeekFresh(thread + offsets[THREAD_OSTHREAD], &osThread, sizeof osThread) &&
           QorPeekFresh(osThread + offsets[OSTHREAD_ID], &kernelId, sizeof kernelId) && kernelId == id;
}

bool IsListedInJava(uint64_t thread, int32_t id) {
    return IsInJava(thread, id) && QorIsListed(thread, id);
}

void NameOf(uint64_t thread, char *out, size_t size) {
    static char name[QOR_THREAD_NAME_SIZE]; // the worker alone asks
    QorThreadFacts facts;
    *name = 0;
    if (QorReadThreadFacts(thread, &facts))
        QorReadThreadName(facts, name);
    snprintf(out, size, "%s", name);
}

} // namespace

const QorHoldTests QOR_HOLD_TESTS = {IsListedInJava, IsInJava, NameOf};
