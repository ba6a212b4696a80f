// JNI, with no exception left behind.
//
// Each function is named for the JNI function that it calls, takes the same arguments after the environment
// and hands back that function's result unchanged; a pending exception is cleared (and printed to the
// JVM's error stream only when the log level is above 4). Failure is read from a null or 0 result.
//
// All but one of the method calls pass no Java arguments. Worker only, as `env` is the session's.
#pragma once

#include <jni.h>

// Clears a pending exception by the same rule, for the few calls that are made on the JNI table itself.
// True when there was one.
bool QorClearException(JNIEnv *env);

// The same for calls of the Java side's own code: describes at every log level.
bool QorDescribeException(JNIEnv *env);

// Frames and references
jint QorPushLocalFrame(JNIEnv *env, jint capacity);
jobject QorPopLocalFrame(JNIEnv *env, jobject result);
void QorDeleteGlobalRef(JNIEnv *env, jobject ref);
void QorDeleteLocalRef(JNIEnv *env, jobject ref);
jobject QorNewGlobalRef(JNIEnv *env, jobject ref);
jboolean QorIsSameObject(JNIEnv *env, jobject a, jobject b);

// Classes and ids
jclass QorFindClass(JNIEnv *env, const char *name);
// Null for a null or dead reference, which JNI itself never sees.
jclass QorGetObjectClass(JNIEnv *env, jobject obj);
jclass QorGetSuperclass(JNIEnv *env, jclass klass);
jmethodID QorGetMethodID(JNIEnv *env, jclass klass, const char *name, const char *signature);
jmethodID QorGetStaticMethodID(JNIEnv *env, jclass klass, const char *name, const char *signature);
jfieldID QorGetFieldID(JNIEnv *env, jclass klass, const char *name, const char *signature);
jfieldID QorGetStaticFieldID(JNIEnv *env, jclass klass, const char *name, const char *signature);

// Calls
jobject QorCallObjectMethod(JNIEnv *env, jobject obj, jmethodID method);
jint QorCallIntMethod(JNIEnv *env, jobject obj, jmethodID method);
jboolean QorCallBooleanMethod(JNIEnv *env, jobject obj, jmethodID method);
jlong QorCallLongMethod(JNIEnv *env, jobject obj, jmethodID method);
jobject QorCallStaticObjectMethod(JNIEnv *env, jclass klass, jmethodID method);
void QorCallVoidMethod(JNIEnv *env, jobject obj, jmethodID method, jobject argument);

// Instance fields
jobject QorGetObjectField(JNIEnv *env, jobject obj, jfieldID field);
jint QorGetIntField(JNIEnv *env, jobject obj, jfieldID field);
jbyte QorGetByteField(JNIEnv *env, jobject obj, jfieldID field);
jchar QorGetCharField(JNIEnv *env, jobject obj, jfieldID field);
jshort QorGetShortField(JNIEnv *env, jobject obj, jfieldID field);
jlong QorGetLongField(JNIEnv *env, jobject obj, jfieldID field);
jfloat QorGetFloatField(JNIEnv *env, jobject obj, jfieldID field);
jdouble QorGetDoubleField(JNIEnv *env, jobject obj, jfieldID field);
jboolean QorGetBooleanField(JNIEnv *env, jobject obj, jfieldID field);

// Static fields
jobject QorGetStaticObjectField(JNIEnv *env, jclass klass, jfieldID field);
jint QorGetStaticIntField(JNIEnv *env, jclass klass, jfieldID field);
jbyte QorGetStaticByteField(JNIEnv *env, jclass klass, jfieldID field);
jchar QorGetStaticCharField(JNIEnv *env, jclass klass, jfieldID field);
jshort QorGetStaticShortField(JNIEnv *env, jclass klass, jfieldID field);
jlong QorGetStaticLongField(JNIEnv *env, jclass klass, jfieldID field);
jfloat QorGetStaticFloatField(JNIEnv *env, jclass klass, jfieldID field);
jdouble QorGetStaticDoubleField(JNIEnv *env, jclass klass, jfieldID field);
jboolean QorGetStaticBooleanField(JNIEnv *env, jclass klass, jfieldID field);

// Strings
jstring QorNewStringUTF(JNIEnv *env, const char *text);
const char *QorGetStringUTFChars(JNIEnv *env, jstring str, jboolean *isCopy);
void QorReleaseStringUTFChars(JNIEnv *env, jstring str, const char *chars);

// Arrays
jsize QorGetArrayLength(JNIEnv *env, jarray array);
jobject QorGetObjectArrayElement(JNIEnv *env, jobjectArray array, jsize index);
jlongArray QorNewLongArray(JNIEnv *env, jsize length);
void QorSetLongArrayRegion(JNIEnv *env, jlongArray array, jsize start, jsize length, const jlong *from);

// Array elements; nothing calls these.
jboolean *QorGetBooleanArrayElements(JNIEnv *env, jbooleanArray array, jboolean *isCopy);
jbyte *QorGetByteArrayElements(JNIEnv *env, jbyteArray array, jboolean *isCopy);
jchar *QorGetCharArrayElements(JNIEnv *env, jcharArray array, jboolean *isCopy);
jshort *QorGetShortArrayElements(JNIEnv *env, jshortArray array, jboolean *isCopy);
jint *QorGetIntArrayElements(JNIEnv *env, jintArray array, jboolean *isCopy);
jlong *QorGetLongArrayElements(JNIEnv *env, jlongArray array, jboolean *isCopy);
jfloat *QorGetFloatArrayElements(JNIEnv *env, jfloatArray array, jboolean *isCopy);
jdouble *QorGetDoubleArrayElements(JNIEnv *env, jdoubleArray array, jboolean *isCopy);

// Release of elements
void QorReleaseBooleanArrayElements(JNIEnv *env, jbooleanArray array, jboolean *elements, jint mode);
void QorReleaseByteArrayElements(JNIEnv *env, jbyteArray array, jbyte *elements, jint mode);
void QorReleaseCharArrayElements(JNIEnv *env, jcharArray array, jchar *elements, jint mode);
void QorReleaseShortArrayElements(JNIEnv *env, jshortArray array, jshort *elements, jint mode);
void QorReleaseIntArrayElements(JNIEnv *env, jintArray array, jint *elements, jint mode);
void QorReleaseLongArrayElements(JNIEnv *env, jlongArray array, jlong *elements, jint mode);
void QorReleaseFloatArrayElements(JNIEnv *env, jfloatArray array, jfloat *elements, jint mode);
void QorReleaseDoubleArrayElements(JNIEnv *env, jdoubleArray array, jdouble *elements, jint mode);

// A local frame for the length of a scope. A frame that could not be pushed is not popped: callers that can
// go on without one test `pushed` and log. No object of this kind may live across a siglongjmp.
struct QorLocalFrame {
    QorLocalFrame(JNIEnv *e, jint capacity) : env(e), pushed(QorPushLocalFrame(e, capacity) == 0) {}
    ~QorLocalFrame() {
        if (pushed)
            QorPopLocalFrame(env, nullptr);
    }
    QorLocalFrame(const QorLocalFrame &) = delete;
    QorLocalFrame &operator=(const QorLocalFrame &) = delete;

    JNIEnv *env;
    bool pushed;
};
