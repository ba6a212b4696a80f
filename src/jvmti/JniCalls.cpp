#include "JniCalls.h"

#include "qorlog.h"

// Every wrapper makes its call, clears what the call may have left pending, and returns what the call gave. A
// session whose worker could not be attached has no environment: the call is then as good as failed.
//
// ExceptionCheck and not ExceptionOccurred, which would leave a local reference for each exception seen.

bool QorClearException(JNIEnv *env) {
    if (!env->ExceptionCheck())
        return false;
    if (qorloglevel > LOG_TRACE)
        env->ExceptionDescribe();
    env->ExceptionClear();
    return true;
}

bool QorDescribeException(JNIEnv *env) {
    if (!env->ExceptionCheck())
        return false;
    env->ExceptionDescribe();
    env->ExceptionClear();
    return true;
}

// One wrapper: result, its name, the JNI function, the value without an environment, parameters, arguments.
#define WRAP(Result, Name, Function, None, Parameters, ...)                                                  \
    Result Name Parameters {                                                                                 \
        if (!env)                                                                                            \
            return None;                                                                                     \
        Result given = env->Function(__VA_ARGS__);                                                           \
        QorClearException(env);                                                                              \
        return given;                                                                                        \
    }

// Functions that JNI lets throw nothing: a sample makes thousands of these calls.
#define WRAP_PLAIN(Result, Name, Function, None, Parameters, ...)                                            \
    Result Name Parameters {                                                                                 \
        return env ? env->Function(__VA_ARGS__) : None;                                                      \
    }

#define WRAP_VOID(Name, Function, Parameters, ...)                                                           \
    void Name Parameters {                                                                                   \
        if (!env)                                                                                            \
            return;                                                                                          \
        env->Function(__VA_ARGS__);                                                                          \
        QorClearException(env);                                                                              \
    }

#define WRAP_FIELD(Result, Name, Function)                                                                   \
    WRAP_PLAIN(Result, Name, Function, Result(), (JNIEnv * env, jobject obj, jfieldID field), obj, field)

#define WRAP_STATIC_FIELD(Result, Name, Function)                                                            \
    WRAP(Result, Name, Function, Result(), (JNIEnv * env, jclass klass, jfieldID field), klass, field)

#define WRAP_CALL(Result, Name, Function)                                                                    \
    WRAP(Result, Name, Function, Result(), (JNIEnv * env, jobject obj, jmethodID method), obj, method)

#define WRAP_ID(Result, Name, Function)                                                                      \
    WRAP(Result, Name, Function, nullptr,                                                                    \
         (JNIEnv * env, jclass klass, const char *name, const char *signature), klass, name, signature)

#define WRAP_ELEMENTS(Element, GetName, GetFunction, ReleaseName, ReleaseFunction)                           \
    WRAP(Element *, GetName, GetFunction, nullptr, (JNIEnv * env, Element##Array array, jboolean * isCopy),  \
         array, isCopy)                                                                                      \
    WRAP_VOID(ReleaseName, ReleaseFunction,                                                                  \
              (JNIEnv * env, Element##Array array, Element * elements, jint mode), array, elements, mode)

// clang-format off
WRAP(jint, QorPushLocalFrame, PushLocalFrame, JNI_ERR, (JNIEnv *env, jint capacity), capacity)
WRAP_PLAIN(jobject, QorPopLocalFrame, PopLocalFrame, nullptr, (JNIEnv *env, jobject result), result)
WRAP_PLAIN(void, QorDeleteGlobalRef, DeleteGlobalRef, void(), (JNIEnv *env, jobject ref), ref)
WRAP_PLAIN(void, QorDeleteLocalRef, DeleteLocalRef, void(), (JNIEnv *env, jobject ref), ref)
WRAP(jobject, QorNewGlobalRef, NewGlobalRef, nullptr, (JNIEnv *env, jobject ref), ref)
WRAP_PLAIN(jboolean, QorIsSameObject, IsSameObject, a == b, (JNIEnv *env, jobject a, jobject b), a, b)

WRAP(jclass, QorFindClass, FindClass, nullptr, (JNIEnv *env, const char *name), name)
WRAP(jclass, QorGetSuperclass, GetSuperclass, nullptr, (JNIEnv *env, jclass klass), klass)
WRAP_ID(jmethodID, QorGetMethodID, GetMethodID)
WRAP_ID(jmethodID, QorGetStaticMethodID, GetStaticMethodID)
WRAP_ID(jfieldID, QorGetFieldID, GetFieldID)
WRAP_ID(jfieldID, QorGetStaticFieldID, GetStaticFieldID)

WRAP_CALL(jobject, QorCallObjectMethod, CallObjectMethod)
WRAP_CALL(jint, QorCallIntMethod, CallIntMethod)
WRAP_CALL(jboolean, QorCallBooleanMethod, CallBooleanMethod)
WRAP_CALL(jlong, QorCallLongMethod, CallLongMethod)
WRAP(jobject, QorCallStaticObjectMethod, CallStaticObjectMethod, nullptr,
     (JNIEnv *env, jclass klass, jmethodID method), klass, method)
WRAP_VOID(QorCallVoidMethod, CallVoidMethod, (JNIEnv *env, jobject obj, jmethodID method, jobject argument),
          obj, method, argument)

WRAP_FIELD(jobject, QorGetObjectField, GetObjectField)
WRAP_FIELD(jint, QorGetIntField, GetIntField)
WRAP_FIELD(jbyte, QorGetByteField, GetByteField)
WRAP_FIELD(jchar, QorGetCharField, GetCharField)
WRAP_FIELD(jshort, QorGetShortField, GetShortField)
WRAP_FIELD(jlong, QorGetLongField, GetLongField)
WRAP_FIELD(jfloat, QorGetFloatField, GetFloatField)
WRAP_FIELD(jdouble, QorGetDoubleField, GetDoubleField)
WRAP_FIELD(jboolean, QorGetBooleanField, GetBooleanField)

WRAP_STATIC_FIELD(jobject, QorGetStaticObjectField, GetStaticObjectField)
WRAP_STATIC_FIELD(jint, QorGetStaticIntField, GetStaticIntField)
WRAP_STATIC_FIELD(jbyte, QorGetStaticByteField, GetStaticByteField)
WRAP_STATIC_FIELD(jchar, QorGetStaticCharField, GetStaticCharField)
WRAP_STATIC_FIELD(jshort, QorGetStaticShortField, GetStaticShortField)
WRAP_STATIC_FIELD(jlong, QorGetStaticLongField, GetStaticLongField)
WRAP_STATIC_FIELD(jfloat, QorGetStaticFloatField, GetStaticFloatField)
WRAP_STATIC_FIELD(jdouble, QorGetStaticDoubleField, GetStaticDoubleField)
WRAP_STATIC_FIELD(jboolean, QorGetStaticBooleanField, GetStaticBooleanField)

WRAP(jstring, QorNewStringUTF, NewStringUTF, nullptr, (JNIEnv *env, const char *text), text)
WRAP(const char *, QorGetStringUTFChars, GetStringUTFChars, nullptr,
     (JNIEnv *env, jstring str, jboolean *isCopy), str, isCopy)
WRAP_VOID(QorReleaseStringUTFChars, ReleaseStringUTFChars, (JNIEnv *env, jstring str, const char *chars),
          str, chars)

WRAP_PLAIN(jsize, QorGetArrayLength, GetArrayLength, 0, (JNIEnv *env, jarray array), array)
WRAP(jobject, QorGetObjectArrayElement, GetObjectArrayElement, nullptr,
     (JNIEnv *env, jobjectArray array, jsize index), array, index)
WRAP(jlongArray, QorNewLongArray, NewLongArray, nullptr, (JNIEnv *env, jsize length), length)
WRAP_VOID(QorSetLongArrayRegion, SetLongArrayRegion,
          (JNIEnv *env, jlongArray array, jsize start, jsize length, const jlong *from),
          array, start, length, from)

WRAP_ELEMENTS(jboolean, QorGetBooleanArrayElements, GetBooleanArrayElements,
              QorReleaseBooleanArrayElements, ReleaseBooleanArrayElements)
WRAP_ELEMENTS(jbyte, QorGetByteArrayElements, GetByteArrayElements,
              QorReleaseByteArrayElements, ReleaseByteArrayElements)
WRAP_ELEMENTS(jchar, QorGetCharArrayElements, GetCharArrayElements,
              QorReleaseCharArrayElements, ReleaseCharArrayElements)
WRAP_ELEMENTS(jshort, QorGetShortArrayElements, GetShortArrayElements,
              QorReleaseShortArrayElements, ReleaseShortArrayElements)
WRAP_ELEMENTS(jint, QorGetIntArrayElements, GetIntArrayElements,
              QorReleaseIntArrayElements, ReleaseIntArrayElements)
WRAP_ELEMENTS(jlong, QorGetLongArrayElements, GetLongArrayElements,
              QorReleaseLongArrayElements, ReleaseLongArrayElements)
WRAP_ELEMENTS(jfloat, QorGetFloatArrayElements, GetFloatArrayElements,
              QorReleaseFloatArrayElements, ReleaseFloatArrayElements)
WRAP_ELEMENTS(jdouble, QorGetDoubleArrayElements, GetDoubleArrayElements,
              QorReleaseDoubleArrayElements, ReleaseDoubleArrayElements)
// clang-format on

jclass QorGetObjectClass(JNIEnv *env, jobject obj) {
    if (!env || QorIsSameObject(env, obj, nullptr))
        return nullptr;
    jclass klass = env->GetObjectClass(obj);
    QorClearException(env);
    return klass;
}
