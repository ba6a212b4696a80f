// JNI as the direct road may use it: what start-up, replies and the agent's Java side need, as Java code on
// the caller's thread has it. Each other slot ends the process with its number, as nothing is to be asked of
// the VM; so does a call on another thread than the environment's. References are described objects and
// classes; texts and the arrays made here are kept beside the heap.
#include "simvm.h"

#include <cstdarg>

namespace simvm {

namespace {

JNINativeInterface_ table;
JNIInvokeInterface_ invocation;
JavaVM_ javaVm;
std::function<std::string(const JavaCall &)> javaSide;
thread_local std::deque<Object> locals;
thread_local ThreadInfo *caller; // of the function that runs

template <int SLOT>
void Unasked() {
    Fail(("JNI function " + std::to_string(SLOT) + " was called").c_str());
}
template <class TABLE, int... SLOT>
void FillTable(TABLE *out, std::integer_sequence<int, SLOT...>) {
    ((reinterpret_cast<void **>(out)[SLOT] = reinterpret_cast<void *>(&Unasked<SLOT>)), ...);
}

// The calling thread's description; ends the process when the environment is another thread's.
ThreadInfo *Caller(JNIEnv *env, bool mayHaveException) {
    ThreadInfo *thread = Self();
    if (EnvOf(thread) != env)
        Fail("JNI was called with an environment that isn't the thread's");
    if (thread->exceptionPending && !mayHaveException)
        Fail("JNI was called with an exception pending");
    return thread;
}

using Method = Word (*)(va_list arguments);

// What a reference or an id stands for.
template <class T>
auto Described(T argument) {
    if constexpr (std::is_same_v<T, jclass>)
        return reinterpret_cast<Class *>(argument);
    else if constexpr (std::is_convertible_v<T, jobject>)
        return reinterpret_cast<Object *>(argument);
    else if constexpr (std::is_same_v<T, jfieldID>)
        return reinterpret_cast<const Field *>(argument);
    else if constexpr (std::is_same_v<T, jmethodID>)
        return *reinterpret_cast<const Method *>(argument);
    else
        return argument;
}

// A function of the table, which gets the descriptions of its arguments.
template <bool WITH_EXCEPTION = false, class BODY, class RESULT, class... ARGUMENTS>
void Fill(RESULT (*&slot)(JNIEnv *, ARGUMENTS...), BODY function) {
    static const BODY body = function;
    slot = [](JNIEnv *env, ARGUMENTS... arguments) -> RESULT {
        caller = Caller(env, WITH_EXCEPTION);
        return RESULT(body(Described(arguments)...));
    };
}

Object *Beside(size_t length, const std::string &text = "") {
    locals.emplace_back();
    locals.back().values.resize(length);
    locals.back().text = text;
    return &locals.back();
}

std::nullptr_t Throw() {
    caller->exceptionPending = true;
    return nullptr;
}

void FillReferences() {
    Fill(table.PushLocalFrame, [](jint) { return 0; });
    Fill<true>(table.PopLocalFrame, [](Object *result) { return result; });
    Fill(table.NewGlobalRef, [](Object *of) { return of; });
    Fill<true>(table.DeleteGlobalRef, [](Object *) {});
    Fill<true>(table.DeleteLocalRef, [](Object *) {});
    Fill(table.IsSameObject, [](Object *one, Object *other) { return one == other; });
    Fill<true>(table.ExceptionCheck, []() { return caller->exceptionPending; });
    Fill<true>(table.ExceptionClear, []() { caller->exceptionPending = false; });
}

void FillArrays() {
    Fill(table.NewObjectArray, [](jsize length, Class *, Object *) { return Beside(length); });
    Fill(table.NewLongArray, [](jsize length) { return Beside(length); });
    Fill(table.NewByteArray, [](jsize length) { return Beside(0, std::string(length, 0)); });
    Fill(table.GetArrayLength, [](Object *array) { return array->values.size(); });
    Fill(table.GetCharArrayRegion, [](Object *array, jsize start, jsize length, jchar *out) {
        for (jsize i = 0; i < length; i++)
            out[i] = jchar(array->values.at(start + i).number);
    });
    Fill(table.GetObjectArrayElement,
         [](Object *array, jsize index) { return array->values.at(index).object; });
    Fill(table.SetObjectArrayElement,
         [](Object *array, jsize index, Object *element) { array->values.at(index) = element; });
    Fill(table.SetLongArrayRegion, [](Object *array, jsize start, jsize length, const jlong *from) {
        std::copy_n(from, length, array->values.begin() + start);
    });
    Fill(table.SetByteArrayRegion, [](Object *array, jsize start, jsize length, const jbyte *from) {
        array->text.replace(start, length, reinterpret_cast<const char *>(from), length);
    });
}

// ---- methods

Word Enumerate(va_list arguments) {
    const Locked held(vm.lock);
    std::vector<Value> &into = va_arg(arguments, Object *)->values;
    const size_t count = std::min(into.size(), vm.threads.size());
    for (size_t i = 0; i < count; i++)
        into[i] = vm.threads[i]->object;
    return count;
}

Word CallJavaSide(va_list arguments) {
    JavaCall call = {va_arg(arguments, Object *), nullptr, 0, 0};
    va_arg(arguments, Object *); // ids
    call.texts = va_arg(arguments, Object *);
    call.count = va_arg(arguments, jint);
    call.withSystem = va_arg(arguments, jint);
    return Word(Beside(0, javaSide(call)));
}

const std::map<std::string, Method> METHODS = {
    {"currentThread()Ljava/lang/Thread;", [](va_list) { return Word(caller->object); }},
    {"getThreadGroup()Ljava/lang/ThreadGroup;", [](va_list) { return Word(vm.threadGroup); }},
    {"getParent()Ljava/lang/ThreadGroup;", [](va_list) { return Word(0); }},
    {"activeCount()I", [](va_list) { return Word(vm.threads.size()); }},
    {"enumerate([Ljava/lang/Thread;)I", Enumerate},
    {"cjavacalls([Ljava/lang/Object;[J[Ljava/lang/String;III)Ljava/lang/String;", CallJavaSide},
    {"<init>([BI)V", // of String: long replies go over as bytes
     [](va_list arguments) { return Word(Beside(0, va_arg(arguments, Object *)->text)); }}};

void FillClasses() {
    const auto call = [](auto *, Method method, va_list arguments) { return method(arguments); };
    Fill(table.CallStaticObjectMethodV, call);
    Fill(table.CallObjectMethodV, call);
    Fill(table.CallIntMethodV, call);
    Fill(table.NewObjectV, call);
    Fill(table.FindClass, [](const char *name) -> Class * {
        Class *found = FindClass(name);
        return found ? found : Throw();
    });
    Fill(table.GetMethodID, [](Class *, const char *name, const char *signature) -> const Method * {
        const auto found = METHODS.find(name + std::string(signature));
        return found == METHODS.end() ? Throw() : &found->second;
    });
    table.GetStaticMethodID = table.GetMethodID;
    Fill(table.GetFieldID, [](Class *type, const char *name, const char *signature) -> const Field * {
        for (const Field *field : FieldsOf(type))
            if (field->name == name && field->signature == signature)
                return field;
        return Throw();
    });
    Fill(table.GetLongField, [](Object *of, const Field *field) { return Get(of, field->name).number; });
    Fill(table.GetObjectField, [](Object *of, const Field *field) { return Get(of, field->name).object; });
}

// Of plain characters: a byte each.
void FillTexts() {
    Fill(table.GetStringUTFChars, [](Object *text, jboolean *) { return text->text.c_str(); });
    Fill(table.GetStringLength, [](Object *text) { return text->text.size(); });
    Fill(table.GetStringUTFRegion, [](Object *text, jsize start, jsize length, char *out) {
        out[text->text.copy(out, length, start)] = 0;
    });
    Fill(table.ReleaseStringUTFChars, [](Object *, const char *) {});
    Fill(table.NewStringUTF, [](const char *text) { return Beside(0, text); });
}

void FillTables() {
    FillTable(&table, std::make_integer_sequence<int, sizeof table / sizeof(void *)>());
    FillTable(&invocation, std::make_integer_sequence<int, sizeof invocation / sizeof(void *)>());
    for (auto *fill : {FillReferences, FillArrays, FillClasses, FillTexts})
        fill();
    Fill(table.GetVersion, []() { return JNI_VERSION_1_4; });
    Fill(table.GetJavaVM, [](JavaVM **out) { return *out = &javaVm, JNI_OK; });
    javaVm.functions = &invocation;
}

} // namespace

JNIEnv *EnvOf(ThreadInfo *thread) {
    if (!table.GetVersion)
        FillTables();
    Word &slot = thread->Java().jniEnv;
    slot = Word(&table);
    return reinterpret_cast<JNIEnv *>(&slot);
}

jstring NewText(const std::string &text) {
    return HandleOf<jstring>(Beside(0, text));
}

void EndLocals() {
    locals.clear();
}

void DefineJavaSide(std::function<std::string(const JavaCall &)> answer) {
    for (const char *name : {"qoragent/cJavaCall", "qoragent/DbUtil"})
        DefineClass(name);
    javaSide = std::move(answer);
}

} // namespace simvm
