#include "running_queue.h"

#include "qorlog.h"

#include "qorutil/vm_threads.h"

namespace {

QueueElem QueueSpNull[MAX_VM_THREADS]; // in the order of their coming; thread 0: deleted
int32_t elements, deleted;

} // namespace

void QorClearQueue() {
    elements = deleted = 0;
}

void add_queue_elem(uint64_t thread) {
    if (elements == MAX_VM_THREADS) {
        QORLOG(LOG_NOTE, "Qor Agent:Max. queue space exhausted");
        return;
    }
    QueueSpNull[elements++] = {thread, 1, 0};
}

void delete_queue_elem(QueueElem *elem) {
    elem->thread = 0;
    deleted++;
}

QueueElem *QorNextInQueue(int32_t *at) {
    while (*at < elements) {
        QueueElem *elem = &QueueSpNull[(*at)++];
        if (elem->thread)
            return elem;
    }
    return nullptr;
}

int32_t QorQueueLength() {
    return elements - deleted;
}
