// JNI as the direct road may use it: the few functions that start-up and replies need. Each other slot ends
// the process with its number, as nothing is to be asked of the VM; so does a call on another thread than the
// environment's.
#include "jni_table.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace simvm {

JNINativeInterface_ jniTable;

namespace {

JNIInvokeInterface_ invocation;
JavaVM_ javaVm;
std::set<std::string *> byteArrays; // used by one thread at a time

template <int SLOT>
void Unasked() {
    fprintf(stderr, "simvm: JNI function %d was called\n", SLOT);
    abort();
}
template <int SLOT>
void UnaskedOfVm() {
    fprintf(stderr, "simvm: function %d of the invocation interface was called\n", SLOT);
    abort();
}
template <int... SLOT>
void FillTable(void **out, std::integer_sequence<int, SLOT...>) {
    ((out[SLOT] = reinterpret_cast<void *>(&Unasked<SLOT>)), ...);
}
template <int... SLOT>
void FillInvocation(void **out, std::integer_sequence<int, SLOT...>) {
    ((out[SLOT] = reinterpret_cast<void *>(&UnaskedOfVm<SLOT>)), ...);
}

} // namespace

ThreadInfo *Caller(JNIEnv *env, bool mayHaveException) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    for (ThreadInfo *thread : vm.threads)
        if (EnvOf(thread) == env && thread->kernelId == syscall(SYS_gettid)) {
            if (thread->exceptionPending && !mayHaveException)
                Fail("JNI was called with an exception pending");
            return thread;
        }
    Fail("JNI was called with an environment that isn't the thread's");
}

namespace {

jint GetVersion(JNIEnv *env) {
    Caller(env);
    return JNI_VERSION_1_4;
}
jclass FindClassByName(JNIEnv *env, const char *name) {
    ThreadInfo *caller = Caller(env);
    Class *found = FindClass(name);
    if (!found) {
        caller->exceptionPending = true;
        return nullptr;
    }
    Object mirror = {At(found->klass, &Klass::javaMirror), 0, 0, 'P'};
    return static_cast<jclass>(NewHandle(caller, &mirror));
}
jthrowable ExceptionOccurred(JNIEnv *env) {
    return Caller(env, true)->exceptionPending ? reinterpret_cast<jthrowable>(&javaVm) : nullptr;
}
jboolean ExceptionCheck(JNIEnv *env) {
    return Caller(env, true)->exceptionPending;
}
void ExceptionClear(JNIEnv *env) {
    Caller(env, true)->exceptionPending = false;
}
void DeleteLocalRef(JNIEnv *env, jobject handle) {
    auto &block = As<HandleBlock>(Caller(env, true)->handles);
    if (block.top && handle == reinterpret_cast<jobject>(&block.handles[block.top - 1]))
        block.top--;
    else if (DeleteBeside(handle))
        return;
    else if (byteArrays.erase(reinterpret_cast<std::string *>(handle)))
        delete reinterpret_cast<std::string *>(handle);
}
const char *GetStringUTFChars(JNIEnv *env, jstring text, jboolean *) {
    Caller(env);
    return TextOf(text).c_str();
}
void ReleaseStringUTFChars(JNIEnv *env, jstring, const char *) {
    Caller(env);
}
jstring NewStringUTF(JNIEnv *env, const char *text) {
    Caller(env);
    jstring made = NewText(text);
    NoteText(made);
    return made;
}
// Long replies go over as bytes: byte arrays are kept beside the heap, as texts are, and the one constructor
// known is String(byte[], int).
jbyteArray NewByteArray(JNIEnv *env, jsize length) {
    Caller(env);
    auto *array = new std::string(length, 0);
    byteArrays.insert(array);
    return reinterpret_cast<jbyteArray>(array);
}
void SetByteArrayRegion(JNIEnv *env, jbyteArray array, jsize start, jsize length, const jbyte *from) {
    Caller(env);
    reinterpret_cast<std::string *>(array)->replace(start, length, reinterpret_cast<const char *>(from),
                                                    length);
}
jmethodID (*otherMethods)(JNIEnv *, jclass, const char *, const char *);
jmethodID GetMethodID(JNIEnv *env, jclass type, const char *name, const char *signature) {
    Caller(env);
    if (strcmp(name, "<init>") != 0 || strcmp(signature, "([BI)V") != 0)
        return otherMethods(env, type, name, signature);
    return reinterpret_cast<jmethodID>(&byteArrays);
}
jobject NewObjectV(JNIEnv *env, jclass, jmethodID, va_list arguments) {
    Caller(env);
    return NewText(*va_arg(arguments, std::string *));
}
jint GetJavaVM(JNIEnv *env, JavaVM **out) {
    Caller(env);
    *out = &javaVm;
    return JNI_OK;
}
jint GetEnv(JavaVM *, void **out, jint version) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    *out = nullptr;
    if (version < JNI_VERSION_1_1 || version > JNI_VERSION_1_4) // no JVMTI, no newer JNI
        return JNI_EVERSION;
    for (ThreadInfo *thread : vm.threads)
        if (thread->kernelId == syscall(SYS_gettid))
            *out = EnvOf(thread);
    return *out ? JNI_OK : JNI_EDETACHED;
}

void FillTables() {
    FillTable(reinterpret_cast<void **>(&jniTable),
              std::make_integer_sequence<int, sizeof jniTable / sizeof(void *)>());
    FillInvocation(reinterpret_cast<void **>(&invocation),
                   std::make_integer_sequence<int, sizeof invocation / sizeof(void *)>());
    FillObjectFunctions();
    otherMethods = jniTable.GetMethodID;
    jniTable.GetVersion = GetVersion;
    jniTable.FindClass = FindClassByName;
    jniTable.ExceptionOccurred = ExceptionOccurred;
    jniTable.ExceptionCheck = ExceptionCheck;
    jniTable.ExceptionClear = ExceptionClear;
    jniTable.ExceptionDescribe = ExceptionClear;
    jniTable.DeleteLocalRef = DeleteLocalRef;
    jniTable.GetStringUTFChars = GetStringUTFChars;
    jniTable.ReleaseStringUTFChars = ReleaseStringUTFChars;
    jniTable.NewStringUTF = NewStringUTF;
    jniTable.NewByteArray = NewByteArray;
    jniTable.SetByteArrayRegion = SetByteArrayRegion;
    jniTable.GetMethodID = GetMethodID;
    jniTable.NewObjectV = NewObjectV;
    jniTable.GetJavaVM = GetJavaVM;
    invocation.GetEnv = GetEnv;
    javaVm.functions = &invocation;
}

} // namespace

JNIEnv *EnvOf(ThreadInfo *thread) {
    if (!jniTable.GetVersion)
        FillTables();
    Word &slot = At(thread->address, &JavaThread::jniEnv);
    slot = reinterpret_cast<Word>(&jniTable);
    return reinterpret_cast<JNIEnv *>(&slot);
}

jstring NewText(const std::string &text) {
    return reinterpret_cast<jstring>(new std::string(text));
}
const std::string &TextOf(jstring text) {
    return *reinterpret_cast<std::string *>(text);
}
void FreeText(jstring text) {
    if (!DeleteBeside(text))
        delete reinterpret_cast<std::string *>(text);
}

} // namespace simvm
