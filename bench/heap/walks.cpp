// Bare walks over the heap, with callbacks that do the least there is to do: what the agent's histogram and
// text dump are measured against.
#include <jni.h>
#include <jvmti.h>

namespace {

struct Seen {
    jlong objects, bytes;
};

jint JNICALL Count(jlong, jlong size, jlong *, jint, void *seen) {
    static_cast<Seen *>(seen)->objects++;
    static_cast<Seen *>(seen)->bytes += size;
    return JVMTI_VISIT_OBJECTS;
}

jint JNICALL Tag(jvmtiHeapReferenceKind, const jvmtiHeapReferenceInfo *, jlong, jlong, jlong size, jlong *tag,
                 jlong *, jint, void *seen) {
    if (!*tag) {
        *tag = ++static_cast<Seen *>(seen)->objects;
        static_cast<Seen *>(seen)->bytes += size;
    }
    return JVMTI_VISIT_OBJECTS;
}

jvmtiEnv *Open(JNIEnv *env) {
    JavaVM *vm = nullptr;
    void *opened = nullptr;
    jvmtiCapabilities wanted = {};
    wanted.can_tag_objects = 1;
    if (env->GetJavaVM(&vm) != JNI_OK || vm->GetEnv(&opened, JVMTI_VERSION_1_1) != JNI_OK ||
        static_cast<jvmtiEnv *>(opened)->AddCapabilities(&wanted) != JVMTI_ERROR_NONE) {
        env->ThrowNew(env->FindClass("java/lang/IllegalStateException"), "no JVMTI environment that can tag");
        return nullptr;
    }
    return static_cast<jvmtiEnv *>(opened);
}

void TagClasses(JNIEnv *env, jvmtiEnv *jvmti) {
    jint count = 0;
    jclass *classes = nullptr;
    env->PushLocalFrame(4096);
    if (jvmti->GetLoadedClasses(&count, &classes) == JVMTI_ERROR_NONE)
        for (jint i = 0; i < count; i++)
            jvmti->SetTag(classes[i], i + 1);
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(classes));
    env->PopLocalFrame(nullptr);
}

// Runs the walk alone: objects seen, or -1.
jlong Run(JNIEnv *env, jvmtiEnv *jvmti, bool iterate) {
    if (!jvmti)
        return -1;
    Seen seen = {0, 0};
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_iteration_callback = iterate ? Count : nullptr;
    callbacks.heap_reference_callback = iterate ? nullptr : Tag;
    if (iterate)
        TagClasses(env, jvmti);
    const jvmtiError error =
        iterate ? jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_CLASS_UNTAGGED, nullptr, &callbacks, &seen)
                : jvmti->FollowReferences(0, nullptr, nullptr, &callbacks, &seen);
    return error == JVMTI_ERROR_NONE ? seen.objects : -1;
}

} // namespace

// A new environment, to be handed to the others.
extern "C" JNIEXPORT jlong JNICALL Java_qoragent_bench_heap_HeapBench_open(JNIEnv *env, jclass) {
    return reinterpret_cast<jlong>(Open(env));
}

extern "C" JNIEXPORT jlong JNICALL Java_qoragent_bench_heap_HeapBench_iterate(JNIEnv *env, jclass,
                                                                              jlong jvmti) {
    return Run(env, reinterpret_cast<jvmtiEnv *>(jvmti), true);
}

extern "C" JNIEXPORT jlong JNICALL Java_qoragent_bench_heap_HeapBench_follow(JNIEnv *env, jclass,
                                                                             jlong jvmti) {
    return Run(env, reinterpret_cast<jvmtiEnv *>(jvmti), false);
}

extern "C" JNIEXPORT void JNICALL Java_qoragent_bench_heap_HeapBench_close(JNIEnv *, jclass, jlong jvmti) {
    reinterpret_cast<jvmtiEnv *>(jvmti)->DisposeEnvironment();
}
