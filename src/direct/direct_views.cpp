#include "direct_views.h"

#include "direct_start.h"
#include "memory_text.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"
#include "reply/qorformat.h"
#include "reply/qortext.h"
#include "sunprint/fields.h"
#include "sunprint/locals.h"
#include "sunprint/object_print.h"
#include "sunprint/report/print_threads.h"

#include <cstring>

namespace {

QorText Reply() {
    QorText reply;
    QorTextContinue(&reply, pagebuf, PAGEBUF_SIZE);
    return reply;
}

void ShowMemory() {
    QorText reply = Reply();
    qormemsum(&reply, reqid, pars && strstr(pars, HISTOGRAM_WORD));
}

void ShowObject() {
    QorText reply = Reply();
    PrintObject(atoqoraddr(console_args[0]), static_cast<int32_t>(QorConsoleNumber(1)), &reply);
}

void ShowLocals() {
    QorText reply = Reply();
    QorAnswerLocals(console_args, &reply);
}

void ShowThreads() {
    QorText reply = Reply();
    PrintSunThreads(reqid, &reply, console_args);
}

void ShowFigures() {
    QorText reply = Reply();
    qormemsum(&reply, reqid & MEMORY_WITH_THREADS);
}

} // namespace

const QorViews qorDirectViews = {ShowMemory, ShowObject, ShowLocals, ShowThreads, ShowFigures};

bool QorReadHandle(uint64_t handle, char *dst, int32_t size) {
    if (!direct_ready)
        return false;
    refresh_heap = 1;
    for (int32_t tries = 0; tries < 2; tries++) {
        const uint32_t collections = QorCollectionCount();
        QorForgetPages();
        QorNoteSpaces();
        const uint64_t string = QorWordAt(handle);
        const bool isString = QorIsInstanceOf(string, "java/lang/String") && QorVmText(dst, size, string);
        if (!QorIsCollecting() && QorCollectionCount() == collections)
            return isString;
    }
    return false;
}
