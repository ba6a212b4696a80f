// JNI as the direct road may use it: what start-up, replies and the agent's Java side need, as Java code on
// the caller's thread has it. Each other slot ends the process with its number, as nothing is to be asked of
// the VM; so does a call on another thread than the environment's. Texts and arrays are kept beside the heap.
#include "jni_table.h"

#include <algorithm>
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

struct Beside {
    std::string text; // or bytes
    std::vector<Object *> objects;
    std::vector<std::string> texts;
    std::vector<jlong> numbers;
};
std::set<Beside *> locals; // used by one thread at a time
struct LocalFrame {        // what was in use when it was pushed
    int32_t handles;
    std::set<Beside *> locals;
};
std::map<ThreadInfo *, std::vector<LocalFrame>> frames;
std::function<std::string(const JavaCall &)> javaSide;

const char *const METHODS[] = {"currentThread()Ljava/lang/Thread;",
                               "getThreadGroup()Ljava/lang/ThreadGroup;",
                               "getParent()Ljava/lang/ThreadGroup;",
                               "activeCount()I",
                               "enumerate([Ljava/lang/Thread;)I",
                               "cjavacalls([Ljava/lang/Object;[J[Ljava/lang/String;III)Ljava/lang/String;",
                               "<init>([BI)V"}; // of String: long replies go over as bytes
enum Method { CURRENT_THREAD, THREAD_GROUP, PARENT, ACTIVE_COUNT, ENUMERATE, JAVA_CALLS, STRING_OF_BYTES };

template <int SLOT>
void Unasked() {
    fprintf(stderr, "simvm: JNI function %d was called\n", SLOT);
    abort();
}
template <int... SLOT>
void FillTable(void **out, std::integer_sequence<int, SLOT...>) {
    ((out[SLOT] = reinterpret_cast<void *>(&Unasked<SLOT>)), ...);
}

Beside *BesideOf(jobject reference) {
    return locals.count(reinterpret_cast<Beside *>(reference)) ? reinterpret_cast<Beside *>(reference)
                                                               : nullptr;
}
Beside *ArrayOf(jobject reference) {
    if (!BesideOf(reference))
        Fail("JNI was called with something else than an array");
    return BesideOf(reference);
}
jobject NewBeside(Beside made) {
    return reinterpret_cast<jobject>(*locals.insert(new Beside(std::move(made))).first);
}
template <class T>
T NewArrayBeside(JNIEnv *env, Beside made) {
    Caller(env);
    return static_cast<T>(NewBeside(std::move(made)));
}
bool DeleteBeside(Beside *made) {
    const bool isLocal = locals.erase(made) != 0;
    if (isLocal)
        delete made;
    return isLocal;
}

Word WordIn(jobject handle) {
    return handle ? As<Word>(reinterpret_cast<Word>(handle)) : 0;
}
Object *ObjectOf(jobject handle) {
    for (Object &object : vm.objects)
        if (object.address && object.address == WordIn(handle))
            return &object;
    return nullptr;
}
Class *ClassOf(jobject mirror) {
    for (auto &[name, type] : vm.classes)
        if (type.klass && At(type.klass, &Klass::javaMirror) == WordIn(mirror))
            return &type;
    Fail("JNI was called with something else than a class");
}
jobject HandleOf(JNIEnv *env, Object *object) {
    return object ? NewHandle(Caller(env), object) : nullptr;
}
jclass MirrorOf(JNIEnv *env, const Class &type) {
    Object mirror = {At(type.klass, &Klass::javaMirror), 0, 0, 'P'};
    return static_cast<jclass>(HandleOf(env, &mirror));
}
template <class T>
T Throw(JNIEnv *env) {
    Caller(env)->exceptionPending = true;
    return {};
}

// ---- the functions
// -----------------------------------------------------------------------------------------

jobject PopLocalFrame(JNIEnv *env, jobject result) {
    ThreadInfo *caller = Caller(env, true);
    Object *kept = BesideOf(result) ? nullptr : ObjectOf(result);
    const LocalFrame frame = std::move(frames[caller].back());
    frames[caller].pop_back();
    As<HandleBlock>(caller->handles).top = frame.handles;
    for (Beside *one : std::set<Beside *>(locals))
        if (!frame.locals.count(one) && reinterpret_cast<jobject>(one) != result)
            DeleteBeside(one);
    return kept ? NewHandle(caller, kept) : BesideOf(result) ? result : nullptr;
}

void FillReferences() {
    jniTable.PushLocalFrame = [](JNIEnv *env, jint) -> jint {
        ThreadInfo *caller = Caller(env);
        frames[caller].push_back({As<HandleBlock>(caller->handles).top, locals});
        return 0;
    };
    jniTable.PopLocalFrame = PopLocalFrame;
    // A word that follows the object, or the class's own one with its mirror.
    jniTable.NewGlobalRef = [](JNIEnv *env, jobject handle) {
        Caller(env);
        if (Object *object = ObjectOf(handle))
            return reinterpret_cast<jobject>(&object->address);
        return handle ? reinterpret_cast<jobject>(&At(ClassOf(handle)->klass, &Klass::javaMirror)) : nullptr;
    };
    jniTable.DeleteGlobalRef = [](JNIEnv *env, jobject) { Caller(env, true); };
    jniTable.NewLocalRef = [](JNIEnv *env, jobject handle) { return HandleOf(env, ObjectOf(handle)); };
    jniTable.DeleteLocalRef = [](JNIEnv *env, jobject handle) {
        auto &block = As<HandleBlock>(Caller(env, true)->handles);
        if (block.top && handle == reinterpret_cast<jobject>(&block.handles[block.top - 1]))
            block.top--;
        else
            DeleteBeside(reinterpret_cast<Beside *>(handle));
    };
    jniTable.IsSameObject = [](JNIEnv *env, jobject one, jobject other) -> jboolean {
        return Caller(env) && WordIn(one) == WordIn(other);
    };
    jniTable.ExceptionOccurred = [](JNIEnv *env) {
        return Caller(env, true)->exceptionPending ? reinterpret_cast<jthrowable>(&javaVm) : nullptr;
    };
    jniTable.ExceptionCheck = [](JNIEnv *env) -> jboolean { return Caller(env, true)->exceptionPending; };
    jniTable.ExceptionClear = [](JNIEnv *env) { Caller(env, true)->exceptionPending = false; };
    jniTable.ExceptionDescribe = jniTable.ExceptionClear;
}

void SetObjectArrayElement(JNIEnv *env, jobjectArray array, jsize index, jobject element) {
    Caller(env);
    if (const Beside *text = BesideOf(element))
        ArrayOf(array)->texts.at(index) = text->text;
    else if (element && !ObjectOf(element))
        Fail("JNI was given a stale reference");
    else
        ArrayOf(array)->objects.at(index) = ObjectOf(element);
}

void FillArrays() {
    jniTable.NewObjectArray = [](JNIEnv *env, jsize length, jclass, jobject) {
        return NewArrayBeside<jobjectArray>(
            env, {"", std::vector<Object *>(length), std::vector<std::string>(length), {}});
    };
    jniTable.NewLongArray = [](JNIEnv *env, jsize length) {
        return NewArrayBeside<jlongArray>(env, {"", {}, {}, std::vector<jlong>(length)});
    };
    jniTable.NewByteArray = [](JNIEnv *env, jsize length) {
        return NewArrayBeside<jbyteArray>(env, {std::string(length, 0), {}, {}, {}});
    };
    jniTable.GetArrayLength = [](JNIEnv *env, jarray array) {
        Caller(env);
        const Beside *beside = BesideOf(array);
        return jsize(!beside ? ObjectOf(array)->values.size()
                             : std::max(beside->objects.size(), beside->numbers.size()));
    };
    jniTable.GetCharArrayRegion = [](JNIEnv *env, jcharArray array, jsize start, jsize length, jchar *out) {
        Caller(env);
        for (jsize i = 0; i < length; i++)
            out[i] = jchar(ObjectOf(array)->values.at(start + i).number);
    };
    jniTable.GetObjectArrayElement = [](JNIEnv *env, jobjectArray array, jsize index) {
        return HandleOf(env, ArrayOf(array)->objects.at(index));
    };
    jniTable.SetObjectArrayElement = SetObjectArrayElement;
    jniTable.SetLongArrayRegion = [](JNIEnv *env, jlongArray array, jsize start, jsize length,
                                     const jlong *from) {
        Caller(env);
        std::copy_n(from, length, ArrayOf(array)->numbers.begin() + start);
    };
    jniTable.SetByteArrayRegion = [](JNIEnv *env, jbyteArray array, jsize start, jsize length,
                                     const jbyte *from) {
        Caller(env);
        ArrayOf(array)->text.replace(start, length, reinterpret_cast<const char *>(from), length);
    };
}

Value FieldOf(JNIEnv *env, jobject handle, jfieldID field) {
    Caller(env);
    return Get(ObjectOf(handle), reinterpret_cast<Field *>(field)->name);
}

void FillFields() {
    jniTable.FindClass = [](JNIEnv *env, const char *name) {
        const Class *found = FindClass(name);
        return found ? MirrorOf(env, *found) : Throw<jclass>(env);
    };
    jniTable.GetObjectClass = [](JNIEnv *env, jobject handle) {
        return MirrorOf(env, *ObjectOf(handle)->type);
    };
    jniTable.GetFieldID = [](JNIEnv *env, jclass type, const char *name, const char *signature) {
        for (const Field *field : FieldsOf(ClassOf(type)))
            if (field->name == name && field->signature == signature)
                return reinterpret_cast<jfieldID>(const_cast<Field *>(field));
        return Throw<jfieldID>(env);
    };
    jniTable.GetLongField = [](JNIEnv *env, jobject handle, jfieldID field) {
        return jlong(FieldOf(env, handle, field).number);
    };
    jniTable.GetIntField = [](JNIEnv *env, jobject handle, jfieldID field) {
        return jint(FieldOf(env, handle, field).number);
    };
    jniTable.GetObjectField = [](JNIEnv *env, jobject handle, jfieldID field) {
        return HandleOf(env, FieldOf(env, handle, field).object);
    };
}

Method MethodOf(jmethodID method) {
    return Method(reinterpret_cast<const char *const *>(method) - METHODS);
}

jobject CallJavaSide(JNIEnv *env, va_list arguments) {
    JavaCall call;
    call.threads = ArrayOf(va_arg(arguments, jobject))->objects;
    call.ids = ArrayOf(va_arg(arguments, jobject))->numbers;
    call.texts = ArrayOf(va_arg(arguments, jobject))->texts;
    call.count = va_arg(arguments, jint);
    call.withSystem = va_arg(arguments, jint);
    call.polling = va_arg(arguments, jint);
    return javaSide ? NewBeside({javaSide(call), {}, {}, {}}) : Throw<jobject>(env);
}

jint CallIntMethodV(JNIEnv *env, jobject, jmethodID method, va_list arguments) {
    Caller(env);
    const std::lock_guard<std::recursive_mutex> held(vm.lock);
    if (MethodOf(method) == ACTIVE_COUNT)
        return jint(vm.threads.size());
    if (MethodOf(method) != ENUMERATE)
        Fail("JNI called another method that returns a number");
    std::vector<Object *> &into = ArrayOf(va_arg(arguments, jobject))->objects;
    const size_t count = std::min(into.size(), vm.threads.size());
    for (size_t i = 0; i < count; i++)
        into[i] = vm.threads[i]->object;
    return jint(count);
}

void FillMethods() {
    jniTable.GetMethodID = [](JNIEnv *env, jclass, const char *name, const char *signature) {
        for (const char *const &method : METHODS)
            if (std::string(name) + signature == method)
                return reinterpret_cast<jmethodID>(const_cast<char **>(&method));
        return Throw<jmethodID>(env);
    };
    jniTable.GetStaticMethodID = jniTable.GetMethodID;
    jniTable.CallStaticObjectMethodV = [](JNIEnv *env, jclass, jmethodID method,
                                          va_list arguments) -> jobject {
        if (MethodOf(method) == CURRENT_THREAD)
            return HandleOf(env, Caller(env)->object);
        return Caller(env) && MethodOf(method) == JAVA_CALLS
                   ? CallJavaSide(env, arguments)
                   : (Fail("JNI called another static method"), nullptr);
    };
    jniTable.CallObjectMethodV = [](JNIEnv *env, jobject, jmethodID method, va_list) -> jobject {
        if (MethodOf(method) == THREAD_GROUP)
            return HandleOf(env, vm.threadGroup);
        return MethodOf(method) == PARENT ? nullptr : (Fail("JNI called another method"), nullptr);
    };
    jniTable.CallIntMethodV = CallIntMethodV;
    jniTable.NewObjectV = [](JNIEnv *env, jclass, jmethodID method, va_list arguments) -> jobject {
        if (!Caller(env) || MethodOf(method) != STRING_OF_BYTES)
            Fail("JNI called another constructor");
        return NewText(ArrayOf(va_arg(arguments, jobject))->text);
    };
}

jint GetEnv(JavaVM *, void **out, jint version) {
    const std::lock_guard<std::recursive_mutex> held(vm.lock);
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
    FillTable(reinterpret_cast<void **>(&invocation),
              std::make_integer_sequence<int, sizeof invocation / sizeof(void *)>());
    FillReferences();
    FillArrays();
    FillFields();
    FillMethods();
    jniTable.GetVersion = [](JNIEnv *env) -> jint { return Caller(env) ? JNI_VERSION_1_4 : 0; };
    jniTable.GetStringUTFChars = [](JNIEnv *env, jstring text, jboolean *) {
        return Caller(env) ? TextOf(text).c_str() : nullptr;
    };
    // Texts are of plain characters: a byte each.
    jniTable.GetStringLength = [](JNIEnv *env, jstring text) -> jsize {
        return Caller(env) ? jsize(TextOf(text).size()) : 0;
    };
    jniTable.GetStringUTFRegion = [](JNIEnv *env, jstring text, jsize start, jsize length, char *out) {
        Caller(env);
        out[TextOf(text).copy(out, length, start)] = 0;
    };
    jniTable.ReleaseStringUTFChars = [](JNIEnv *env, jstring, const char *) { Caller(env); };
    jniTable.NewStringUTF = [](JNIEnv *env, const char *text) {
        return NewArrayBeside<jstring>(env, {text, {}, {}, {}});
    };
    jniTable.GetJavaVM = [](JNIEnv *env, JavaVM **out) -> jint {
        *out = &javaVm;
        return Caller(env) ? JNI_OK : JNI_ERR;
    };
    invocation.GetEnv = GetEnv;
    javaVm.functions = &invocation;
}

} // namespace

ThreadInfo *Caller(JNIEnv *env, bool mayHaveException) {
    const std::lock_guard<std::recursive_mutex> held(vm.lock);
    for (ThreadInfo *thread : vm.threads)
        if (EnvOf(thread) == env && thread->kernelId == syscall(SYS_gettid)) {
            if (thread->exceptionPending && !mayHaveException)
                Fail("JNI was called with an exception pending");
            return thread;
        }
    Fail("JNI was called with an environment that isn't the thread's");
}

JNIEnv *EnvOf(ThreadInfo *thread) {
    if (!jniTable.GetVersion)
        FillTables();
    Word &slot = At(thread->address, &JavaThread::jniEnv);
    slot = reinterpret_cast<Word>(&jniTable);
    return reinterpret_cast<JNIEnv *>(&slot);
}

jstring NewText(const std::string &text) {
    return reinterpret_cast<jstring>(new Beside{text, {}, {}, {}});
}
const std::string &TextOf(jstring text) {
    return reinterpret_cast<Beside *>(text)->text;
}
void FreeText(jstring text) {
    if (!DeleteBeside(reinterpret_cast<Beside *>(text)))
        delete reinterpret_cast<Beside *>(text);
}

size_t LocalReferences(ThreadInfo *thread) {
    return As<HandleBlock>(thread->handles).top + locals.size();
}

std::vector<Object *> TakeArray(jobjectArray array) {
    const std::vector<Object *> objects = ArrayOf(array)->objects;
    DeleteBeside(ArrayOf(array));
    return objects;
}

void DefineJavaSide(std::function<std::string(const JavaCall &)> answer) {
    for (const char *name : {"qoragent/cJavaCall", "qoragent/DbUtil"})
        DefineClass(name);
    javaSide = std::move(answer);
}

} // namespace simvm
