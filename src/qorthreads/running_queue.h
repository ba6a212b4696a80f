// The threads that a sample puts off because they run Java code: by the time the others are read, they may
// have left an anchor and need not be held.
//
// One sample's; worker only.
#pragma once

#include <cstdint>

struct QueueElem {
    uint64_t thread;
    int32_t looks; // how often it was found running
    int32_t tries; // how often its stack couldn't be read
};

// Empties the queue.
void QorClearQueue();

// Puts a thread at the end. One that finds no room is left out, with a line in the log.
void add_queue_elem(uint64_t thread);
void delete_queue_elem(QueueElem *elem);

// The first element from number *at on, which is moved after it; null at the end.
QueueElem *QorNextInQueue(int32_t *at);
int32_t QorQueueLength();
