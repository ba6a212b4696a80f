#include "LocalList.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorlog.h"

#include <cstdlib>
#include <cstring>

int32_t getObjOpt;

namespace {

constexpr int32_t MAX_FREE_ENTRIES = 4096; // 10 MB

// Kept for the next sample. The slots and the references of a free entry are null; its texts are stale.
QorAllThreadLocalInfoList *freeEntries;
int32_t freeEntryCount;

QorAllThreadLocalInfoList *TakeEntry() {
    QorAllThreadLocalInfoList *entry = freeEntries;
    if (!entry)
        return static_cast<QorAllThreadLocalInfoList *>(calloc(1, sizeof(QorAllThreadLocalInfoList)));
    freeEntries = entry->next;
    freeEntryCount--;
    entry->strSignature[0] = 0;
    entry->localCount = 0;
    entry->prev = nullptr;
    return entry;
}

void DropReference(jobject *ref) {
    if (*ref)
        QorDeleteGlobalRef(jvmtijni_env, *ref);
    *ref = nullptr;
}

} // namespace

void QorDropRuleObjects(QorAllThreadLocalInfoList *entry) {
    for (int32_t i = 0; i < entry->ruleObjectCount; i++)
        DropReference(&entry->ruleObjects[i].object);
    entry->ruleObjectCount = 0;
}

namespace {

void GiveEntryBack(QorAllThreadLocalInfoList *entry) {
    DropReference(&entry->objLocalVarHandle);
    for (jobject &slot : entry->localObjects)
        DropReference(&slot);
    QorDropRuleObjects(entry);
    if (freeEntryCount == MAX_FREE_ENTRIES) {
        free(entry);
        return;
    }
    entry->next = freeEntries;
    freeEntries = entry;
    freeEntryCount++;
}

// References that the walk can make refer to other objects.
void PrepareSlots(QorAllThreadLocalInfoList *entry) {
    if (!getObjOpt || !threadClass)
        return;
    for (jobject &slot : entry->localObjects)
        slot = QorNewGlobalRef(jvmtijni_env, threadClass);
}

} // namespace

int32_t AddToThreadLocalInfoList(const QorThreadRecord *thread, const QorFrameRecord *frame,
                                 QorAllThreadLocalInfoList **list, int32_t kind) {
    if (!frame) {
        QORLOG(LOG_ERROR, "Qor Agent : AddToThreadLocalInfoList QorFrameExtractedInfoObj is NULL");
        return -1;
    }
    QorAllThreadLocalInfoList *entry = TakeEntry();
    if (!entry) {
        QORLOG(LOG_ERROR, "Qor Agent : AddToThreadLocalInfoList Calloc Failed");
        return -1;
    }
    const QorThreadHandle *handle = thread->handle;
    entry->serial = *list ? (*list)->serial + 1 : 0;
    entry->threadId = thread->tid;
    entry->threadRef =
        handle && handle->threads && handle->index >= 0 ? handle->threads[handle->index] : nullptr;
    entry->frameIndex = frame->frameIndex;
    entry->frameMethod = frame->methodId;
    const size_t length = strnlen(thread->name, NAME_SIZE - 1);
    memcpy(entry->threadName, thread->name, length);
    entry->threadName[length] = 0;
    entry->methodName = frame->method;
    entry->className = frame->className;
    entry->kind = kind;
    entry->tiers = frame->facts ? frame->facts->tiers & TIER_OBJECTS : 0;
    entry->thickDriver = tessar_thick_driver;
    PrepareSlots(entry);
    entry->next = *list;
    *list = entry;
    return 0;
}

QorFrameRecord QorFrameOfEntry(const QorAllThreadLocalInfoList *entry) {
    QorFrameRecord frame = {};
    frame.method = entry->methodName;
    frame.className = entry->className;
    frame.fileName = "";
    return frame;
}

void QorCutThreadLocalInfoList(QorAllThreadLocalInfoList **list, QorAllThreadLocalInfoList *formerHead) {
    while (*list && *list != formerHead) {
        QorAllThreadLocalInfoList *entry = *list;
        *list = entry->next;
        GiveEntryBack(entry);
    }
}

void FreeQorAllThreadLocalInfoList(QorAllThreadLocalInfoList *list) {
    QorCutThreadLocalInfoList(&list, nullptr);
}

void QorDropLocalListPool() {
    while (QorAllThreadLocalInfoList *entry = freeEntries) {
        freeEntries = entry->next;
        free(entry);
    }
    freeEntryCount = 0;
}
