#include "local_objects.h"

#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "jvmti/threads/MethodTable.h"
#include "jvmti/threads/ThreadSystem.h"
#include "object_fields.h"
#include "qorlog.h"
#include "qorrequest.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr jlocation NATIVE_LOCATION = -1;
constexpr jlong MARKED_THREAD = -1;    // objects that were shown have positive tags
constexpr int32_t LAST_HEAP_KIND = 20; // references from object to object, and room for more of them
constexpr int64_t MOST_USEC = 200000;  // of a walk

// Locals are reported ahead of all of these, apart from those of virtual threads that no carrier runs. Going
// on would lead through the whole heap. Each mounted thread is of kind OTHER, ahead of its locals.
bool IsBehindLocals(jvmtiHeapReferenceKind kind) {
    return kind <= LAST_HEAP_KIND || kind == JVMTI_HEAP_REFERENCE_JNI_GLOBAL ||
           kind == JVMTI_HEAP_REFERENCE_SYSTEM_CLASS;
}

// The console may know the method by a number of 32 bits.
bool IsMethod(jmethodID method, int64_t asked) {
    const int64_t id = reinterpret_cast<int64_t>(method);
    const bool cut = asked == static_cast<int32_t>(asked);
    return cut ? static_cast<int32_t>(id) == asked : id == asked;
}

bool FindFrame(QorThreadHandle *handle, int64_t methodId, QorLocalsWalk *walk) {
    QorFrameHandle frames;
    const int32_t count = QorGetFrames(handle, &frames);
    for (int32_t i = 0; i < count; i++) {
        if (!IsMethod(frames.frames[i].method, methodId))
            continue;
        walk->method = frames.frames[i].method;
        walk->isNative = frames.frames[i].location == NATIVE_LOCATION;
        return true;
    }
    return false;
}

// Looks for a frame of the method on the thread: only what is on a stack is asked of the JVM. A virtual
// thread that no carrier runs is kept in `unmounted`, by a global reference.
bool FindMethod(int32_t tid, int64_t methodId, QorLocalsWalk *walk, jobject *unmounted) {
    QorThreadHandle handle;
    QorInitThreadHandle(&handle);
    bool found = false, isMet = false;
    for (QorGetJVMThread(&handle, 0); handle.index < handle.count && !isMet; QorGetJVMThread(&handle, 0)) {
        walk->tid = QorGetWalkThreadId(&handle, handle.index);
        isMet = static_cast<int32_t>(walk->tid) == tid;
        found = isMet && FindFrame(&handle, methodId, walk);
    }
    if (!isMet && QorTurnToVirtual(&handle, tid)) {
        walk->tid = tid;
        found = FindFrame(&handle, methodId, walk);
        *unmounted = found ? QorNewGlobalRef(jvmtijni_env, handle.threads[0]) : nullptr;
    }
    QorCloseThreadHandle(&handle);
    return found;
}

// Constants of compiled code, which pass for JNI locals, are between the locals.
bool IsOfStack(const QorLocalsWalk &walk, jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info) {
    if (kind == JVMTI_HEAP_REFERENCE_JNI_LOCAL)
        return info && info->jni_local.thread_id == walk.tid;
    return kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL && info && info->stack_local.thread_id == walk.tid;
}

// The JVM reports the locals of a thread that isn't mounted when it follows a reference to it: the walk goes
// on to the thread that is marked, and from there no further. It ends after that thread's stack, which comes
// ahead of its fields or, when a carrier has taken it up meanwhile, among the other stacks.
jint JNICALL TagLocalsOfMarked(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info, jlong, jlong,
                               jlong, jlong *tag, jlong *, jint, void *userData) {
    QorLocalsWalk *walk = static_cast<QorLocalsWalk *>(userData);
    const bool follows = *tag == MARKED_THREAD, isOfStack = IsOfStack(*walk, kind, info);
    if (kind <= LAST_HEAP_KIND || (walk->threadMet && !isOfStack) || walk->count == MAX_LOCAL_OBJECTS ||
        QorStopIsOver(&walk->limit))
        return JVMTI_VISIT_ABORT;
    walk->threadMet = isOfStack;
    if (kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL && isOfStack && info->stack_local.method == walk->method) {
        *tag = gbiQorLocalVariableCounter++;
        walk->count++;
    }
    return follows ? JVMTI_VISIT_OBJECTS : 0;
}

void FollowLocals(QorLocalsWalk *walk, jvmtiHeapReferenceCallback callback) {
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_reference_callback = callback;
    const int64_t start = QorStopStarts();
    const jvmtiError error = jvmti->FollowReferences(0, nullptr, nullptr, &callbacks, walk);
    QorStopEnded(STOP_LOCALS, start);
    if (walk->limit.isOver) {
        QORLOG(LOG_NOTE, "The walk to the locals was ended after %d callbacks", walk->limit.callbacks);
        qorReplyIsCut = true;
    }
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "No walk to the locals: error %d", error);
        describe(error);
    }
}

void TagLocals(QorLocalsWalk *walk, jobject unmounted) {
    QorWrapTagCounter();
    walk->firstTag = gbiQorLocalVariableCounter;
    walk->limit.usec = MOST_USEC;
    if (!unmounted) {
        FollowLocals(walk, jvmtiHeapReferenceOneObjectCallback);
        return;
    }
    jlong former = 0, now = 0;
    jvmti->GetTag(unmounted, &former);
    if (jvmti->SetTag(unmounted, MARKED_THREAD) != JVMTI_ERROR_NONE)
        return;
    FollowLocals(walk, TagLocalsOfMarked);
    if (jvmti->GetTag(unmounted, &now) == JVMTI_ERROR_NONE && now == MARKED_THREAD) // else it is a local
        jvmti->SetTag(unmounted, former);
}

struct TaggedObject {
    jlong tag;
    jobject object;
};

// The objects that carry the walk's tags, ordered by them: their number, -1 on an error. *out is the
// caller's, the references are its frame's.
int32_t FindTagged(const QorLocalsWalk &walk, TaggedObject **out) {
    *out = nullptr;
    jlong *wanted = static_cast<jlong *>(malloc(static_cast<size_t>(walk.count) * sizeof(jlong)));
    if (!wanted) {
        QORLOG(LOG_ERROR, "Tags cant be allocated ");
        return -1;
    }
    for (int32_t i = 0; i < walk.count; i++)
        wanted[i] = walk.firstTag + i;
    QORLOG(LOG_DETAIL, " Locals found %d ", walk.count);
    jint count = 0;
    jobject *objects = nullptr;
    jlong *tags = nullptr;
    const jvmtiError error = jvmti->GetObjectsWithTags(walk.count, wanted, &count, &objects, &tags);
    free(wanted);
    if (error != JVMTI_ERROR_NONE) {
        describe(error);
        return -1;
    }
    QorExpectLocalRefs(count);
    *out = static_cast<TaggedObject *>(calloc(static_cast<size_t>(count) + 1, sizeof(TaggedObject)));
    for (jint i = 0; *out && i < count; i++)
        (*out)[i] = {tags[i], objects[i]};
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(objects));
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(tags));
    if (!*out) {
        QORLOG(LOG_ERROR, "No memory for %d locals", count);
        return -1;
    }
    std::sort(*out, *out + count, [](const TaggedObject &a, const TaggedObject &b) { return a.tag < b.tag; });
    return count;
}

void ReadLocal(jobject object, QorFieldRecord *record) {
    QorCopyName(record->value, " ");
    if (!object || QorIsSameObject(jvmtijni_env, object, nullptr)) {
        QORLOG(LOG_DETAIL, " Object is NULL");
        return;
    }
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    if (!klass)
        return;
    jlong tag = 0;
    if (jvmti->GetTag(object, &tag) == JVMTI_ERROR_NONE)
        record->tag = tag;
    QORLOG(LOG_TRACE, "GetTag1 %d", static_cast<int32_t>(tag));
    char *signature = nullptr;
    if (jvmti->GetClassSignature(klass, &signature, nullptr) == JVMTI_ERROR_NONE && signature) {
        QorCopyName(record->type, signature);
        QorGetPrimitiveObjectValues(QorRetPrimitiveType(signature), object, record);
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(signature));
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
}

// Makes a record of each object.
int32_t ReadLocals(const TaggedObject *objects, int32_t count, QorFieldRecord **out) {
    if (count == 0) {
        QORLOG(LOG_DETAIL, " No Objects for the Method");
        return 0;
    }
    *out = static_cast<QorFieldRecord *>(calloc(static_cast<size_t>(count), sizeof(QorFieldRecord)));
    if (!*out) {
        QORLOG(LOG_ERROR, " Malloc Failed\n");
        return 0;
    }
    QORLOG(LOG_DETAIL, "Number of Objects for the Method : %d", count);
    for (int32_t i = 0; i < count; i++)
        ReadLocal(objects[i].object, &(*out)[i]);
    return count;
}

} // namespace

// The locals of a frame come in a row: the first one of another frame after them ends the walk. Compiled
// code reports its constants as JNI locals of the Java method that it was made of; they are none of its
// locals, but belong to the row.
jint JNICALL jvmtiHeapReferenceOneObjectCallback(jvmtiHeapReferenceKind kind,
                                                 const jvmtiHeapReferenceInfo *info, jlong, jlong, jlong,
                                                 jlong *tag, jlong *, jint, void *userData) {
    QorLocalsWalk *walk = static_cast<QorLocalsWalk *>(userData);
    const bool isStackLocal = kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL;
    if (QorStopIsOver(&walk->limit))
        return JVMTI_VISIT_ABORT;
    if (!isStackLocal && kind != JVMTI_HEAP_REFERENCE_JNI_LOCAL)
        return IsBehindLocals(kind) ? JVMTI_VISIT_ABORT : JVMTI_VISIT_OBJECTS;
    if (!info)
        return JVMTI_VISIT_OBJECTS;
    const jlong tid = isStackLocal ? info->stack_local.thread_id : info->jni_local.thread_id;
    const jmethodID method = isStackLocal ? info->stack_local.method : info->jni_local.method;
    if (tid != walk->tid || method != walk->method)
        return walk->count > 0 ? JVMTI_VISIT_ABORT : JVMTI_VISIT_OBJECTS;
    if (!isStackLocal && !walk->isNative)
        return JVMTI_VISIT_OBJECTS;
    if (walk->count == MAX_LOCAL_OBJECTS)
        return JVMTI_VISIT_ABORT;
    *tag = gbiQorLocalVariableCounter++;
    walk->count++;
    return JVMTI_VISIT_OBJECTS;
}

int32_t QorJVMTIGetLocalObject(int32_t tid, int64_t methodId, int64_t, QorFieldRecord **out) {
    *out = nullptr;
    QorLocalsWalk walk = {};
    jobject unmounted = nullptr;
    if (FindMethod(tid, methodId, &walk, &unmounted))
        TagLocals(&walk, unmounted);
    if (unmounted)
        QorDeleteGlobalRef(jvmtijni_env, unmounted);
    QorLocalFrame frame(jvmtijni_env, 1);
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR);
        return 0;
    }
    if (walk.count == 0) {
        QORLOG(LOG_DETAIL, " No locals found. returning");
        return 0;
    }
    TaggedObject *objects = nullptr;
    const int32_t found = FindTagged(walk, &objects);
    const int32_t count = found < 0 ? 0 : ReadLocals(objects, found, out);
    free(objects);
    return count;
}
