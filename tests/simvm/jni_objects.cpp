// JNI on objects, as Java code on the caller's thread has it: arrays, fields, and the few methods of
// java.lang.Thread, its group and the agent's Java side. Arrays are kept beside the heap.
#include "jni_table.h"

#include <algorithm>
#include <cstdarg>
#include <set>

namespace simvm {

namespace {

struct BesideArray {
    std::vector<Object *> objects;
    std::vector<std::string> texts;
    std::vector<jlong> numbers;
};
std::set<BesideArray *> arrays;
std::set<std::string *> texts;
struct LocalFrame { // what was in use when it was pushed
    int32_t handles;
    std::set<std::string *> texts;
    std::set<BesideArray *> arrays;
};
std::map<ThreadInfo *, std::vector<LocalFrame>> frames;
std::function<std::string(const JavaCall &)> javaSide;

enum Method { CURRENT_THREAD, THREAD_GROUP, PARENT, ACTIVE_COUNT, ENUMERATE, JAVA_CALLS, METHOD_COUNT };
const char *const METHODS[METHOD_COUNT] = {
    "currentThread()Ljava/lang/Thread;",
    "getThreadGroup()Ljava/lang/ThreadGroup;",
    "getParent()Ljava/lang/ThreadGroup;",
    "activeCount()I",
    "enumerate([Ljava/lang/Thread;)I",
    "cjavacalls([Ljava/lang/Object;[J[Ljava/lang/String;III)Ljava/lang/String;"};

bool IsArray(jobject reference) {
    return arrays.count(reinterpret_cast<BesideArray *>(reference)) != 0;
}
BesideArray *ArrayOf(jobject reference) {
    if (!IsArray(reference))
        Fail("JNI was called with something else than an array");
    return reinterpret_cast<BesideArray *>(reference);
}

Object *ObjectOf(jobject handle) {
    for (Object &object : vm.objects)
        if (handle && object.address && object.address == As<Word>(reinterpret_cast<Word>(handle)))
            return &object;
    return nullptr;
}

Class *ClassOf(jobject mirror) {
    for (auto &[name, type] : vm.classes)
        if (type.klass && At(type.klass, &Klass::javaMirror) == As<Word>(reinterpret_cast<Word>(mirror)))
            return &type;
    Fail("JNI was called with something else than a class");
}

jobject HandleOf(JNIEnv *env, Object *object) {
    return object ? NewHandle(Caller(env), object) : nullptr;
}

// ---- references
// --------------------------------------------------------------------------------------------

jint PushLocalFrame(JNIEnv *env, jint) {
    ThreadInfo *caller = Caller(env);
    frames[caller].push_back({As<HandleBlock>(caller->handles).top, texts, arrays});
    return 0;
}
jobject PopLocalFrame(JNIEnv *env, jobject result) {
    ThreadInfo *caller = Caller(env, true);
    Object *kept = IsArray(result) ? nullptr : ObjectOf(result);
    LocalFrame frame = std::move(frames[caller].back());
    frames[caller].pop_back();
    As<HandleBlock>(caller->handles).top = frame.handles;
    for (BesideArray *array : std::set<BesideArray *>(arrays))
        if (!frame.arrays.count(array) && reinterpret_cast<jobject>(array) != result)
            DeleteBeside(reinterpret_cast<jobject>(array));
    for (std::string *text : std::set<std::string *>(texts))
        if (!frame.texts.count(text))
            DeleteBeside(reinterpret_cast<jobject>(text));
    return kept ? NewHandle(caller, kept) : IsArray(result) ? result : nullptr;
}
// A word that follows the object, or the class's own one with its mirror.
jobject NewGlobalRef(JNIEnv *env, jobject handle) {
    Caller(env);
    if (Object *object = ObjectOf(handle))
        return reinterpret_cast<jobject>(&object->address);
    return handle ? reinterpret_cast<jobject>(&At(ClassOf(handle)->klass, &Klass::javaMirror)) : nullptr;
}
void DeleteGlobalRef(JNIEnv *env, jobject) {
    Caller(env, true);
}
jobject NewLocalRef(JNIEnv *env, jobject handle) {
    return HandleOf(env, ObjectOf(handle));
}
jboolean IsSameObject(JNIEnv *env, jobject one, jobject other) {
    Caller(env);
    auto word = [](jobject handle) { return handle ? As<Word>(reinterpret_cast<Word>(handle)) : 0; };
    return word(one) == word(other);
}

// ---- arrays
// ------------------------------------------------------------------------------------------------

jobjectArray NewObjectArray(JNIEnv *env, jsize length, jclass, jobject) {
    Caller(env);
    auto *array = new BesideArray{std::vector<Object *>(length), std::vector<std::string>(length), {}};
    arrays.insert(array);
    return reinterpret_cast<jobjectArray>(array);
}
jlongArray NewLongArray(JNIEnv *env, jsize length) {
    Caller(env);
    auto *array = new BesideArray{{}, {}, std::vector<jlong>(length)};
    arrays.insert(array);
    return reinterpret_cast<jlongArray>(array);
}
jsize GetArrayLength(JNIEnv *env, jarray array) {
    Caller(env);
    if (!IsArray(array))
        return jsize(ObjectOf(array)->values.size());
    return jsize(std::max(ArrayOf(array)->objects.size(), ArrayOf(array)->numbers.size()));
}
void GetCharArrayRegion(JNIEnv *env, jcharArray array, jsize start, jsize length, jchar *out) {
    Caller(env);
    for (jsize i = 0; i < length; i++)
        out[i] = jchar(ObjectOf(array)->values.at(start + i).number);
}
jobject GetObjectArrayElement(JNIEnv *env, jobjectArray array, jsize index) {
    return HandleOf(env, ArrayOf(array)->objects.at(index));
}
void SetObjectArrayElement(JNIEnv *env, jobjectArray array, jsize index, jobject element) {
    Caller(env);
    auto *text = reinterpret_cast<std::string *>(element);
    if (texts.count(text))
        ArrayOf(array)->texts.at(index) = *text;
    else if (element && !ObjectOf(element))
        Fail("JNI was given a stale reference");
    else
        ArrayOf(array)->objects.at(index) = ObjectOf(element);
}
void SetLongArrayRegion(JNIEnv *env, jlongArray array, jsize start, jsize length, const jlong *from) {
    Caller(env);
    std::copy_n(from, length, ArrayOf(array)->numbers.begin() + start);
}

// ---- fields and methods
// ------------------------------------------------------------------------------------

jclass GetObjectClass(JNIEnv *env, jobject handle) {
    Object mirror = {At(ObjectOf(handle)->type->klass, &Klass::javaMirror), 0, 0, 'P'};
    return static_cast<jclass>(NewHandle(Caller(env), &mirror));
}
jfieldID GetFieldID(JNIEnv *env, jclass type, const char *name, const char *signature) {
    for (const Field *field : FieldsOf(ClassOf(type)))
        if (field->name == name && field->signature == signature)
            return reinterpret_cast<jfieldID>(const_cast<Field *>(field));
    Caller(env)->exceptionPending = true;
    return nullptr;
}
Value FieldOf(JNIEnv *env, jobject handle, jfieldID field) {
    Caller(env);
    return Get(ObjectOf(handle), reinterpret_cast<Field *>(field)->name);
}
jlong GetLongField(JNIEnv *env, jobject handle, jfieldID field) {
    return FieldOf(env, handle, field).number;
}
jint GetIntField(JNIEnv *env, jobject handle, jfieldID field) {
    return jint(FieldOf(env, handle, field).number);
}
jobject GetObjectField(JNIEnv *env, jobject handle, jfieldID field) {
    return HandleOf(env, FieldOf(env, handle, field).object);
}

jmethodID FindMethod(JNIEnv *env, jclass, const char *name, const char *signature) {
    for (const char *const &method : METHODS)
        if (std::string(name) + signature == method)
            return reinterpret_cast<jmethodID>(const_cast<char **>(&method));
    Caller(env)->exceptionPending = true;
    return nullptr;
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
    if (!javaSide) {
        Caller(env)->exceptionPending = true;
        return nullptr;
    }
    jstring answer = NewText(javaSide(call));
    NoteText(answer);
    return answer;
}
jobject CallStaticObjectMethodV(JNIEnv *env, jclass, jmethodID method, va_list arguments) {
    ThreadInfo *caller = Caller(env);
    if (MethodOf(method) == CURRENT_THREAD)
        return NewHandle(caller, caller->object);
    return MethodOf(method) == JAVA_CALLS ? CallJavaSide(env, arguments)
                                          : (Fail("JNI called another static method"), nullptr);
}
jobject CallObjectMethodV(JNIEnv *env, jobject, jmethodID method, va_list) {
    ThreadInfo *caller = Caller(env);
    if (MethodOf(method) == THREAD_GROUP)
        return NewHandle(caller, vm.threadGroup);
    return MethodOf(method) == PARENT ? nullptr : (Fail("JNI called another method"), nullptr);
}
jint CallIntMethodV(JNIEnv *env, jobject, jmethodID method, va_list arguments) {
    Caller(env);
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    if (MethodOf(method) == ACTIVE_COUNT)
        return jint(vm.threads.size());
    if (MethodOf(method) != ENUMERATE)
        Fail("JNI called another method that returns a number");
    std::vector<Object *> &into = ArrayOf(va_arg(arguments, jobject))->objects;
    size_t count = std::min(into.size(), vm.threads.size());
    for (size_t i = 0; i < count; i++)
        into[i] = vm.threads[i]->object;
    return jint(count);
}

} // namespace

bool DeleteBeside(jobject reference) {
    if (IsArray(reference)) {
        arrays.erase(ArrayOf(reference));
        delete reinterpret_cast<BesideArray *>(reference);
        return true;
    }
    auto *text = reinterpret_cast<std::string *>(reference);
    if (!texts.erase(text))
        return false;
    delete text;
    return true;
}

void NoteText(jstring text) {
    texts.insert(reinterpret_cast<std::string *>(text));
}

size_t LocalReferences(ThreadInfo *thread) {
    return As<HandleBlock>(thread->handles).top + arrays.size() + texts.size();
}

std::vector<Object *> TakeArray(jobjectArray array) {
    std::vector<Object *> objects = ArrayOf(array)->objects;
    DeleteBeside(array);
    return objects;
}

void DefineJavaSide(std::function<std::string(const JavaCall &)> answer) {
    for (const char *name : {"qoragent/cJavaCall", "qoragent/DbUtil"})
        DefineClass(name);
    javaSide = std::move(answer);
}

void FillObjectFunctions() {
    jniTable.PushLocalFrame = PushLocalFrame;
    jniTable.PopLocalFrame = PopLocalFrame;
    jniTable.NewGlobalRef = NewGlobalRef;
    jniTable.DeleteGlobalRef = DeleteGlobalRef;
    jniTable.NewLocalRef = NewLocalRef;
    jniTable.IsSameObject = IsSameObject;
    jniTable.NewObjectArray = NewObjectArray;
    jniTable.NewLongArray = NewLongArray;
    jniTable.GetArrayLength = GetArrayLength;
    jniTable.GetCharArrayRegion = GetCharArrayRegion;
    jniTable.GetObjectArrayElement = GetObjectArrayElement;
    jniTable.SetObjectArrayElement = SetObjectArrayElement;
    jniTable.SetLongArrayRegion = SetLongArrayRegion;
    jniTable.GetObjectClass = GetObjectClass;
    jniTable.GetFieldID = GetFieldID;
    jniTable.GetLongField = GetLongField;
    jniTable.GetIntField = GetIntField;
    jniTable.GetObjectField = GetObjectField;
    jniTable.GetStaticMethodID = FindMethod;
    jniTable.GetMethodID = FindMethod;
    jniTable.CallStaticObjectMethodV = CallStaticObjectMethodV;
    jniTable.CallObjectMethodV = CallObjectMethodV;
    jniTable.CallIntMethodV = CallIntMethodV;
}

} // namespace simvm
