// A heap walk in a copy of the process, so that the JVM is paused for the fork alone.
//
// A copy made anywhere else couldn't walk: the thread that does, the JVM's own, would be missing. So the walk
// is begun as any other, and its first callback makes the copy, on that thread and with everything stopped.
// In the parent the callback ends the walk; the JVM goes on. The copy goes on walking. See
// platforms/forked_child.h for what the copy may do.
//
// Worker only, but for the callbacks.
#pragma once

#include "platforms/fork_rules.h"

#include <cstdint>
#include <jvmti.h>

// Whether the current request is answered by a copy: as its flags say, else as the setting does.
bool QorWantsCopy();

// The heap as the JVM counts it, and as a new object shows where it is: what can't be found counts as shared.
QorHeapInUse QorJvmHeapInUse();

// In a walk's callback, first of all. True where the walk goes on: in the copy. In the parent the callback
// then ends the walk.
inline bool QorWalkOnInChild() {
    if (__builtin_expect(!qorInForkedChild, 0) && (QorForkedPid() != 0 || QorForkHere() != 0))
        return false;
    QorForkStep();
    return true;
}

// What is to be done after the call that started the walk: in a copy whose walk ran on the very thread that
// called, nothing but waiting for its end. The process id or the refusal.
int32_t QorForkedWalkReturned(jvmtiError error);
