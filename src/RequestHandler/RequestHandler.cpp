#include "RequestHandler.h"

#include "RequestHandler/threads/all_threads.h"
#include "RequestHandler/threads/just_threads.h"
#include "RequestHandler/threads/lock_holder.h"
#include "RequestHandler/threads/thread_stack.h"
#include "RequestHandler/threads/virtual_threads.h"
#include "client_port.h"
#include "jvmti/heap/HeapDump.h"
#include "memory_views.h"
#include "qorlog.h"
#include "qorrequest.h"

namespace {

constexpr int32_t MEMORY_VIEW_ARGUMENT = 8;

struct ViewRow {
    uint32_t bits;
    void (*show)(uint32_t reqid, QorText *reply, char **args);
};

void ShowPoll(uint32_t reqid, QorText *reply, char **args) {
    get_system_data = 0;
    QorShowAllThreadRequest(reqid, reply, args);
}

// The first row with one of its bits set decides.
constexpr ViewRow views[] = {
    {QORREQ_MEMORY_ACTIVITY, QorShowMemoryActivity},
    {QORREQ_ACTIVE_THREADS, QorShowAllThreadRequest},
    {QORREQ_POLL_DETAILS, ShowPoll},
    {QORREQ_THREAD_SUMMARY | QORREQ_JUST_THREADS, QorShowJustThreadRequest},
    {QORREQ_THREAD_DETAILS, QorShowThreadStackRequest},
    {QORREQ_LOCK_HOLDER, QorShowMonitorThreadRequest},
    {QORREQ_DB_XTIER, QorShowDBXtierThreadInfo},
    {QORREQ_VIRTUAL_THREADS, QorShowVirtualThreadsRequest},
};

int32_t IntArgument(int32_t slot) {
    return static_cast<int32_t>(QorConsoleNumber(slot));
}

} // namespace

const QorViews qorJvmtiViews = {
    [] { QorHandleShowMemRequest(pagebuf, MEMORY_VIEW_ARGUMENT, dumpfile, reqid); },
    [] { QorShowObjectRequest(IntArgument(0), IntArgument(1), reqid, pagebuf, PAGEBUF_SIZE); },
    [] {
        QorHandlePrintLocalRequest(IntArgument(0), QorConsoleNumber(1), QorConsoleNumber(2), IntArgument(3),
                                   IntArgument(4), pagebuf, PAGEBUF_SIZE);
    },
    [] { QorHandleShowJVMRequest(reqid, pagebuf, PAGEBUF_SIZE, console_args); },
    nullptr,
};

void QorHandleShowJVMRequest(uint32_t reqid, char *page, int32_t pageSize, char **args) {
    QorText reply;
    QorTextContinue(&reply, page, pageSize);
    for (const ViewRow &row : views) {
        if (!(reqid & row.bits))
            continue;
        row.show(reqid, &reply, args);
        return;
    }
}

void QorHandleShowMemRequest(char *page, int32_t, const char *path, uint32_t) {
    QorText reply;
    QorTextContinue(&reply, page, PAGEBUF_SIZE);
    if (!*path) {
        QorShowMemoryDetails(&reply);
    } else if (strcmp(path, HISTOGRAM_WORD) == 0) {
        QorShowClassHistogram(&reply);
    } else {
        // The reply says nothing of the outcome: whoever reads the file knows it by its trailer.
        QORLOG(LOG_DETAIL, "processing mem req : %s \n", path);
        QorHeapDump(path);
    }
}
