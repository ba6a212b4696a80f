// The objects in the locals of a frame, without the right to read locals.
//
// A JVM refuses an agent that came late the capability to read locals, but tags objects for it. The roots of
// a reference walk are the locals of all threads, each with its thread and method: what belongs to the method
// asked for gets tags, the walk ends there, and the tags lead to the objects. The JVM is paused for as
// long as it takes to get there, 0.2 s at most, and never for a walk of the heap.
//
// The stack of a virtual thread that no carrier runs is an object: its locals are found after the roots.
//
// What it can't tell: values of primitive locals, names, and which of two frames of the same method a local
// belongs to. Adjacent frames of one method show their locals together. Worker only.
#pragma once

#include "field_text.h"
#include "qorcost.h"

#include <cstdint>
#include <jni.h>
#include <jvmti.h>

enum : int32_t { MAX_LOCAL_OBJECTS = 4096 };

// What the walk looks for and what it has found.
struct QorLocalsWalk {
    int64_t tid; // Java thread id
    jmethodID method;
    bool isNative;    // the method is a native one
    int64_t firstTag; // tags from here on, `count` of them, are the walk's
    int32_t count;
    bool threadMet; // the thread's stack has been reached
    QorStopLimit limit;
};

// The JVM's side of the walk; `userData` is the QorLocalsWalk. Runs inside the JVM with all threads stopped:
// it touches memory of its own and the tag, nothing else.
jint JNICALL jvmtiHeapReferenceOneObjectCallback(jvmtiHeapReferenceKind kind,
                                                 const jvmtiHeapReferenceInfo *info, jlong classTag,
                                                 jlong referrerClassTag, jlong size, jlong *tag,
                                                 jlong *referrerTag, jint length, void *userData);

// The objects in the locals of a method of a thread, in slot order: their number, with *out an array for the
// caller to free; 0, with *out null, when there are none. Sets qorReplyIsCut when the time ended the walk.
// `methodId` is a jmethodID or its lower 32 bits as a signed number, and is looked for among the thread's
// frames. `location` is not read. The objects keep their tags.
int32_t QorJVMTIGetLocalObject(int32_t tid, int64_t methodId, int64_t location, QorFieldRecord **out);
