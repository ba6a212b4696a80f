// The Java threads of a sample that was read by address.
//
// Such a sample knows a thread as an address and a kernel id, and its worker can make no reference. So the
// caller asks Java for its threads and takes those that the sample's blocks name, as far as they still live.
#pragma once

#include <jni.h>

struct QorE2EBlock;

// An array with one element for each block of `list`, in its order: the thread, or null for one that has
// ended. A local reference; null, and no exception, when there is no block or Java can't be asked. On the
// thread of `env`, which keeps the list to itself.
jobjectArray QorFindDirectThreads(JNIEnv *env, const QorE2EBlock *list);
