#include "LocationList.h"

#include "jvmti/threads/ThreadSystem.h"

#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstdlib>

int32_t AddToXtierLocationInfoList(const QorThreadRecord *thread, QorXtierLocationInfo **head,
                                   QorXtierLocationInfo **tail) {
    auto *entry = static_cast<QorXtierLocationInfo *>(malloc(sizeof(QorXtierLocationInfo)));
    if (!entry) {
        QORLOG(LOG_ERROR, "Malloc Failed");
        return -1;
    }
    entry->threadId = thread->tid;
    entry->threadName[0] = entry->threadKey[0] = 0;
    entry->framework = FRAMEWORK_NONE;
    QorStrncpy(entry->threadName, thread->name, NAME_SIZE, NAME_SIZE);
    entry->at = {};
    entry->newest = nullptr;
    entry->next = nullptr;
    if (*head)
        (*tail)->next = entry;
    else
        *head = entry;
    *tail = entry;
    return 0;
}

void FreeXtierLocationInfoArrayList(QorXtierLocationInfo *list) {
    while (list) {
        QorXtierLocationInfo *next = list->next;
        free(list);
        list = next;
    }
}
