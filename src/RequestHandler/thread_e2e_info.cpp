#include "thread_e2e_info.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cstdlib>

QorE2EBlock *thread_e2e_info;

namespace {

QorE2EBlock *lastBlock;  // tail of the list; of no meaning while the list is empty
QorE2EBlock *freeBlocks; // kept for the next sample
int32_t freeCount;

constexpr int32_t MOST_FREE_BLOCKS = 256; // 1.8 MiB

void GiveBlockBack(QorE2EBlock *block) {
    if (freeCount == MOST_FREE_BLOCKS) {
        free(block);
        return;
    }
    block->next = freeBlocks;
    freeBlocks = block;
    ++freeCount;
}

QorE2EBlock *TakeBlock() {
    if (QorE2EBlock *block = freeBlocks) {
        freeBlocks = block->next;
        --freeCount;
        return block;
    }
    return static_cast<QorE2EBlock *>(malloc(sizeof(QorE2EBlock)));
}

// Empty texts are cleared by their first byte: a block is 7 KiB and nearly all of it stays unused.
void ClearBlock(QorE2EBlock *block) {
    block->patchPoint = nullptr;
    block->valid = 0;
    block->stuckAndHogger[0] = block->stuckAndHogger[1] = 0;
    block->ioFile[0] = block->applicationName[0] = block->moduleName[0] = 0;
    block->wmName[0] = block->sessionId[0] = block->networkHost[0] = 0;
    block->networkPort = 0;
    block->next = nullptr;
}

} // namespace

int32_t QorAddE2EBlock(JNIEnv *env, const QorThreadHandle *handle, const QorThreadRecord *thread,
                       int32_t frameCount) {
    QorE2EBlock *block = TakeBlock();
    if (!block) {
        if (thread_e2e_info)
            QORLOG(LOG_ERROR, "Failed to allocate memory for thread_info struct.");
        else
            QORLOG(LOG_ERROR, "Curr_thread_e2e_info malloc Failed");
        release_thread_e2e_info(env);
        QORLOG(LOG_ERROR, "curr_thread_e2e_info Malloc Failed");
        return -1;
    }
    ClearBlock(block);
    block->directRef = handle->threads[handle->index];
    // The reference outlives this sample's local frame, and may be handed to another thread.
    block->threadRef = QorNewGlobalRef(env, block->directRef);
    block->threadId = static_cast<int32_t>(thread->tid);
    block->osThreadId = gbIbmJvm ? thread->ostid : -1;
    block->frameCount = frameCount;
    if (thread_e2e_info)
        lastBlock->next = block;
    else
        thread_e2e_info = block;
    lastBlock = block;
    return 0;
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
    freeCount = 0;
    while (QorE2EBlock *block = freeBlocks) {
        freeBlocks = block->next;
        free(block);
    }
}
