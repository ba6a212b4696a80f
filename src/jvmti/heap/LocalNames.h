// Names of the methods that are on some thread's stack, looked up before a walk.
//
// The walk reports local variables with the method that has them, but no method can be looked up while it
// runs. So all stacks are taken first and their methods' names kept in a table. A thread that runs on may
// have entered another method by the time of the walk; its locals then have no name.
#pragma once

#include <cstdint>
#include <jni.h>

// Fills the table with the stacks of all threads, at full depth. What is unavailable is left out. Worker, in
// an open local frame.
void QorCollectLocalNames();

// "class::method" or "method", unterminated; null when the table doesn't know the method. Any thread, also
// in a walk.
const char *QorFindLocalName(jmethodID method, int32_t *length);

// Empties the table and gives its memory back.
void QorDropLocalNames();
