#include "thread_e2e_info.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

QorE2EBlock *thread_e2e_info;

namespace {

// A thread's processor time and allocation, and what the answer has beside the threads.
constexpr int32_t ANSWER_ROOM_A_THREAD = 64, ANSWER_ROOM = 128;

QorE2EBlock *lastBlock;  // tail of the list; of no meaning while the list is empty
QorE2EBlock *freeBlocks; // kept for the next sample

QorE2EBlock *TakeBlock() {
    QorE2EBlock *block = freeBlocks;
    if (!block)
        return static_cast<QorE2EBlock *>(calloc(1, sizeof(QorE2EBlock)));
    freeBlocks = block->next;
    block->next = nullptr;
    return block;
}

void GiveBlockBack(QorE2EBlock *block) {
    free(block->lockOwner);
    block->lockOwner = nullptr;
    if (block->textsWritten)
        *block = {};
    block->next = freeBlocks;
    freeBlocks = block;
}

// A block at the list's end, with nothing known of its thread; null when there is no memory, and the list
// released.
QorE2EBlock *AppendBlock(JNIEnv *env, int32_t frameCount) {
    QorE2EBlock *block = TakeBlock();
    if (!block) {
        if (thread_e2e_info)
            QORLOG(LOG_ERROR, "Failed to allocate memory for thread_info struct.");
        else
            QORLOG(LOG_ERROR, "Curr_thread_e2e_info malloc Failed");
        release_thread_e2e_info(env);
        QORLOG(LOG_ERROR, "curr_thread_e2e_info Malloc Failed");
        return nullptr;
    }
    block->patchPoint = nullptr;
    block->valid = 0;
    block->byReadRule = block->isVirtual = false;
    block->partnerId = 0;
    block->directRef = block->threadRef = nullptr;
    block->javaThread = 0;
    block->osThreadId = -1;
    block->frameCount = frameCount;
    block->stuckAndHogger[0] = block->stuckAndHogger[1] = -1; // unknown
    if (thread_e2e_info)
        lastBlock->next = block;
    else
        thread_e2e_info = block;
    lastBlock = block;
    return block;
}

} // namespace

int32_t QorAddE2EBlock(JNIEnv *env, const QorThreadHandle *handle, const QorThreadRecord *thread,
                       int32_t frameCount) {
    QorE2EBlock *block = AppendBlock(env, frameCount);
    if (!block)
        return -1;
    block->directRef = handle->threads[handle->index];
    // The reference outlives this sample's local frame, and may be handed to another thread.
    block->threadRef = QorNewGlobalRef(env, block->directRef);
    block->threadId = static_cast<int32_t>(thread->tid);
    block->isVirtual = QorIsVirtual(handle, handle->index);
    block->partnerId = QorGetPartnerId(handle, handle->index);
    if (gbIbmJvm)
        block->osThreadId = thread->ostid;
    return 0;
}

int32_t QorAddE2EBlock(uint64_t javaThread, int32_t kernelId, const char *name, int32_t frameCount) {
    QorE2EBlock *block = AppendBlock(nullptr, frameCount);
    if (!block)
        return -1;
    block->javaThread = javaThread;
    block->threadId = kernelId;
    snprintf(block->name, sizeof block->name, "%s", name);
    return 0;
}

void QorNoteLockOwner(const char *name) {
    if (thread_e2e_info && !lastBlock->lockOwner)
        lastBlock->lockOwner = strdup(name);
}

int32_t QorRoomForAnswer() {
    int32_t room = thread_e2e_info ? ANSWER_ROOM : 0;
    for (const QorE2EBlock *block = thread_e2e_info; block; block = block->next)
        room += ANSWER_ROOM_A_THREAD;
    return room;
}

void release_thread_e2e_info(JNIEnv *env) {
    while (QorE2EBlock *block = thread_e2e_info) {
        thread_e2e_info = block->next;
        if (block->threadRef)
            QorDeleteGlobalRef(env, block->threadRef);
        GiveBlockBack(block);
    }
}

void QorDropE2EPool() {
    while (QorE2EBlock *block = freeBlocks) {
        freeBlocks = block->next;
        free(block);
    }
}
