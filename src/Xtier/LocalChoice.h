// From the findings of a walk for locals to the objects: back from tags to references, and which of a frame's
// objects is the one that says what it does.
//
// Worker only, within a local frame of the caller's that has room for the references (QorCountFoundObjects).
#pragma once

#include "LocalSearch.h"

#include <cstdint>
#include <jni.h>
#include <jvmti.h>

// References that QorFetchFoundObjects will make.
int32_t QorCountFoundObjects(const QorLocalWalk &walk);

// Gets the found objects and takes their tags away, as many as the walk's time allows. JVMTI's error, 0 for
// none: what was got is usable, but tags may be left in the environment.
int32_t QorFetchFoundObjects(QorLocalWalk *walk);

// The object of the frame, a reference that is not the caller's own, with its class's signature (or, for an
// entity, that of the event beside it) in LOCAL_SIGNATURE_SIZE bytes; null and "" when there is none. `ends`
// says whether the search ends at a signature. With `env` classes are marked there as what they turn out to
// be.
jobject QorChooseLocalObject(const QorLocalWalk &walk, const QorWantedFrame &frame,
                             bool (*ends)(const char *), jvmtiEnv *env, char *signature);

// Attaches to the entry all objects of the frame that the rules have for the entry's kinds.
void QorTakeRuleObjects(const QorLocalWalk &walk, const QorWantedFrame &frame, bool (*ends)(const char *),
                        jvmtiEnv *env, QorAllThreadLocalInfoList *entry);
