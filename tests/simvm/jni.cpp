// JNI as the direct road may use it: what start-up, replies and the agent's Java side need, as Java code on
// the caller's thread has it. Each other slot ends the process with its number, as nothing is to be asked of
// the VM; so does a call on another thread than the environment's. Texts and arrays are kept beside the heap.
#include "simvm.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace simvm {

namespace {

JNINativeInterface_ table;
JNIInvokeInterface_ invocation;
JavaVM_ javaVm;

struct Beside {
    std::string text; // or bytes
    std::vector<Object *> objects;
    std::vector<std::string> texts;
    std::vector<jlong> numbers;
};
std::vector<Beside *> locals;                   // used by one thread at a time
std::vector<std::pair<int32_t, size_t>> frames; // handles and locals when each was pushed
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
template <class TABLE, int... SLOT>
void FillTable(TABLE *out, std::integer_sequence<int, SLOT...>) {
    ((reinterpret_cast<void **>(out)[SLOT] = reinterpret_cast<void *>(&Unasked<SLOT>)), ...);
}

// The calling thread's description; ends the process when the environment is another thread's.
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

// A function of the table, which gets its caller.
template <bool WITH_EXCEPTION = false, class BODY, class RESULT, class... ARGUMENTS>
void Fill(RESULT (*&slot)(JNIEnv *, ARGUMENTS...), BODY function) {
    static const BODY body = function;
    slot = [](JNIEnv *env, ARGUMENTS... arguments) -> RESULT {
        return RESULT(body(Caller(env, WITH_EXCEPTION), arguments...));
    };
}

bool IsBeside(jobject reference) {
    return std::count(locals.begin(), locals.end(), reinterpret_cast<Beside *>(reference)) != 0;
}
Beside *ArrayOf(jobject reference) {
    return IsBeside(reference) ? reinterpret_cast<Beside *>(reference)
                               : (Fail("JNI was called with something else than an array"), nullptr);
}
template <class T = jobject>
T NewBeside(Beside made) {
    locals.push_back(new Beside(std::move(made)));
    return reinterpret_cast<T>(locals.back());
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
jobject HandleOf(ThreadInfo *caller, Object *object) {
    return object ? NewHandle(caller, object) : nullptr;
}
jclass MirrorOf(ThreadInfo *caller, const Class &type) {
    Object mirror = {At(type.klass, &Klass::javaMirror), 0, 0, 'P'};
    return static_cast<jclass>(NewHandle(caller, &mirror));
}
std::nullptr_t Throw(ThreadInfo *caller) {
    caller->exceptionPending = true;
    return nullptr;
}
int32_t &Handles(ThreadInfo *caller) {
    return As<HandleBlock>(caller->handles).top;
}

jobject PopLocalFrame(ThreadInfo *caller, jobject result) {
    const bool isBeside = IsBeside(result);
    Object *kept = isBeside ? nullptr : ObjectOf(result);
    Handles(caller) = frames.back().first;
    const auto end = std::remove_if(locals.begin() + frames.back().second, locals.end(), [&](Beside *one) {
        return reinterpret_cast<jobject>(one) != result && (delete one, true);
    });
    locals.erase(end, locals.end());
    frames.pop_back();
    return isBeside ? result : HandleOf(caller, kept);
}

void FillReferences() {
    Fill(table.PushLocalFrame, [](ThreadInfo *caller, jint) {
        frames.emplace_back(Handles(caller), locals.size());
        return 0;
    });
    Fill<true>(table.PopLocalFrame, PopLocalFrame);
    // A word that follows the object, or the class's own one with its mirror.
    Fill(table.NewGlobalRef, [](ThreadInfo *, jobject handle) -> void * {
        if (Object *object = ObjectOf(handle))
            return &object->address;
        return handle ? &At(ClassOf(handle)->klass, &Klass::javaMirror) : nullptr;
    });
    Fill<true>(table.DeleteGlobalRef, [](ThreadInfo *, jobject) {});
    Fill(table.NewLocalRef, [](ThreadInfo *caller, jobject of) { return HandleOf(caller, ObjectOf(of)); });
    Fill<true>(table.DeleteLocalRef, [](ThreadInfo *caller, jobject handle) {
        const Word *last = &As<HandleBlock>(caller->handles).handles[Handles(caller) - 1];
        if (IsBeside(handle))
            FreeText(static_cast<jstring>(handle));
        else
            Handles(caller) -= reinterpret_cast<const Word *>(handle) == last;
    });
    Fill(table.IsSameObject,
         [](ThreadInfo *, jobject one, jobject other) { return WordIn(one) == WordIn(other); });
    Fill<true>(table.ExceptionOccurred,
               [](ThreadInfo *caller) { return jthrowable(caller->exceptionPending ? &javaVm : nullptr); });
    Fill<true>(table.ExceptionCheck, [](ThreadInfo *caller) { return caller->exceptionPending; });
    Fill<true>(table.ExceptionClear, [](ThreadInfo *caller) { caller->exceptionPending = false; });
    table.ExceptionDescribe = table.ExceptionClear;
}

void SetObjectArrayElement(ThreadInfo *, jobjectArray array, jsize index, jobject element) {
    if (IsBeside(element))
        ArrayOf(array)->texts.at(index) = ArrayOf(element)->text;
    else if (element && !ObjectOf(element))
        Fail("JNI was given a stale reference");
    else
        ArrayOf(array)->objects.at(index) = ObjectOf(element);
}

void FillArrays() {
    Fill(table.NewObjectArray, [](ThreadInfo *, jsize length, jclass, jobject) {
        return NewBeside<jobjectArray>(
            {"", std::vector<Object *>(length), std::vector<std::string>(length), {}});
    });
    Fill(table.NewLongArray, [](ThreadInfo *, jsize length) {
        return NewBeside<jlongArray>({"", {}, {}, std::vector<jlong>(length)});
    });
    Fill(table.NewByteArray, [](ThreadInfo *, jsize length) {
        return NewBeside<jbyteArray>({std::string(length, 0), {}, {}, {}});
    });
    Fill(table.GetArrayLength, [](ThreadInfo *, jarray array) {
        return IsBeside(array) ? std::max(ArrayOf(array)->objects.size(), ArrayOf(array)->numbers.size())
                               : ObjectOf(array)->values.size();
    });
    Fill(table.GetCharArrayRegion, [](ThreadInfo *, jcharArray array, jsize start, jsize length, jchar *out) {
        for (jsize i = 0; i < length; i++)
            out[i] = jchar(ObjectOf(array)->values.at(start + i).number);
    });
    Fill(table.GetObjectArrayElement, [](ThreadInfo *caller, jobjectArray array, jsize index) {
        return HandleOf(caller, ArrayOf(array)->objects.at(index));
    });
    Fill(table.SetObjectArrayElement, SetObjectArrayElement);
    Fill(table.SetLongArrayRegion,
         [](ThreadInfo *, jlongArray array, jsize start, jsize length, const jlong *from) {
             std::copy_n(from, length, ArrayOf(array)->numbers.begin() + start);
         });
    Fill(table.SetByteArrayRegion,
         [](ThreadInfo *, jbyteArray array, jsize start, jsize length, const jbyte *from) {
             ArrayOf(array)->text.replace(start, length, reinterpret_cast<const char *>(from), length);
         });
}

Value FieldOf(jobject handle, jfieldID field) {
    return Get(ObjectOf(handle), reinterpret_cast<Field *>(field)->name);
}

void FillFields() {
    Fill(table.FindClass, [](ThreadInfo *caller, const char *name) -> jclass {
        const Class *found = FindClass(name);
        return found ? MirrorOf(caller, *found) : Throw(caller);
    });
    Fill(table.GetObjectClass,
         [](ThreadInfo *caller, jobject of) { return MirrorOf(caller, *ObjectOf(of)->type); });
    Fill(table.GetFieldID,
         [](ThreadInfo *caller, jclass type, const char *name, const char *signature) -> jfieldID {
             for (const Field *field : FieldsOf(ClassOf(type)))
                 if (field->name == name && field->signature == signature)
                     return reinterpret_cast<jfieldID>(const_cast<Field *>(field));
             return Throw(caller);
         });
    Fill(table.GetLongField,
         [](ThreadInfo *, jobject of, jfieldID field) { return FieldOf(of, field).number; });
    Fill(table.GetIntField,
         [](ThreadInfo *, jobject of, jfieldID field) { return FieldOf(of, field).number; });
    Fill(table.GetObjectField, [](ThreadInfo *caller, jobject of, jfieldID field) {
        return HandleOf(caller, FieldOf(of, field).object);
    });
}

void Expect(jmethodID method, Method expected) {
    if (reinterpret_cast<const char *const *>(method) != METHODS + expected)
        Fail("JNI called another method");
}
bool Is(jmethodID method, Method expected) {
    return reinterpret_cast<const char *const *>(method) == METHODS + expected;
}

jobject CallStaticObjectMethod(ThreadInfo *caller, jclass, jmethodID method, va_list arguments) {
    if (Is(method, CURRENT_THREAD))
        return HandleOf(caller, caller->object);
    Expect(method, JAVA_CALLS);
    JavaCall call;
    call.threads = ArrayOf(va_arg(arguments, jobject))->objects;
    call.ids = ArrayOf(va_arg(arguments, jobject))->numbers;
    call.texts = ArrayOf(va_arg(arguments, jobject))->texts;
    for (int *number : {&call.count, &call.withSystem, &call.polling})
        *number = va_arg(arguments, jint);
    return javaSide ? NewBeside({javaSide(call), {}, {}, {}}) : Throw(caller);
}

jint CallIntMethod(ThreadInfo *, jobject, jmethodID method, va_list arguments) {
    const std::lock_guard<std::recursive_mutex> held(vm.lock);
    if (Is(method, ACTIVE_COUNT))
        return jint(vm.threads.size());
    Expect(method, ENUMERATE);
    std::vector<Object *> &into = ArrayOf(va_arg(arguments, jobject))->objects;
    const size_t count = std::min(into.size(), vm.threads.size());
    for (size_t i = 0; i < count; i++)
        into[i] = vm.threads[i]->object;
    return jint(count);
}

void FillMethods() {
    Fill(table.GetMethodID,
         [](ThreadInfo *caller, jclass, const char *name, const char *signature) -> jmethodID {
             for (const char *const &method : METHODS)
                 if (std::string(name) + signature == method)
                     return reinterpret_cast<jmethodID>(const_cast<char **>(&method));
             return Throw(caller);
         });
    table.GetStaticMethodID = table.GetMethodID;
    Fill(table.CallStaticObjectMethodV, CallStaticObjectMethod);
    Fill(table.CallObjectMethodV, [](ThreadInfo *caller, jobject, jmethodID method, va_list) {
        if (!Is(method, THREAD_GROUP))
            Expect(method, PARENT);
        return Is(method, PARENT) ? nullptr : HandleOf(caller, vm.threadGroup);
    });
    Fill(table.CallIntMethodV, CallIntMethod);
    Fill(table.NewObjectV, [](ThreadInfo *, jclass, jmethodID method, va_list arguments) {
        Expect(method, STRING_OF_BYTES);
        return NewText(ArrayOf(va_arg(arguments, jobject))->text);
    });
}

// Of plain characters: a byte each.
void FillTexts() {
    Fill(table.GetStringUTFChars,
         [](ThreadInfo *, jstring text, jboolean *) { return TextOf(text).c_str(); });
    Fill(table.GetStringLength, [](ThreadInfo *, jstring text) { return TextOf(text).size(); });
    Fill(table.GetStringUTFRegion, [](ThreadInfo *, jstring text, jsize start, jsize length, char *out) {
        out[TextOf(text).copy(out, length, start)] = 0;
    });
    Fill(table.ReleaseStringUTFChars, [](ThreadInfo *, jstring, const char *) {});
    Fill(table.NewStringUTF, [](ThreadInfo *, const char *text) {
        return NewBeside<jstring>({text, {}, {}, {}});
    });
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
    FillTable(&table, std::make_integer_sequence<int, sizeof table / sizeof(void *)>());
    FillTable(&invocation, std::make_integer_sequence<int, sizeof invocation / sizeof(void *)>());
    for (auto *fill : {FillReferences, FillArrays, FillFields, FillMethods, FillTexts})
        fill();
    Fill(table.GetVersion, [](ThreadInfo *) { return JNI_VERSION_1_4; });
    Fill(table.GetJavaVM, [](ThreadInfo *, JavaVM **out) { return *out = &javaVm, JNI_OK; });
    invocation.GetEnv = GetEnv;
    javaVm.functions = &invocation;
}

} // namespace

JNIEnv *EnvOf(ThreadInfo *thread) {
    if (!table.GetVersion)
        FillTables();
    Word &slot = At(thread->address, &JavaThread::jniEnv);
    slot = reinterpret_cast<Word>(&table);
    return reinterpret_cast<JNIEnv *>(&slot);
}

jstring NewText(const std::string &text) {
    return reinterpret_cast<jstring>(new Beside{text, {}, {}, {}});
}
const std::string &TextOf(jstring text) {
    return reinterpret_cast<Beside *>(text)->text;
}
void FreeText(jstring text) {
    locals.erase(std::remove(locals.begin(), locals.end(), reinterpret_cast<Beside *>(text)), locals.end());
    delete reinterpret_cast<Beside *>(text);
}

size_t LocalReferences(ThreadInfo *thread) {
    return Handles(thread) + locals.size();
}

std::vector<Object *> TakeArray(jobjectArray array) {
    const std::vector<Object *> objects = ArrayOf(array)->objects;
    FreeText(reinterpret_cast<jstring>(array));
    return objects;
}

void DefineJavaSide(std::function<std::string(const JavaCall &)> answer) {
    for (const char *name : {"qoragent/cJavaCall", "qoragent/DbUtil"})
        DefineClass(name);
    javaSide = std::move(answer);
}

} // namespace simvm
