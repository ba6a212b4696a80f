// The native methods of qoragent.Agent, as the JVM calls them.

#include "RequestHandler/listening_ports.h"
#include "agent_state.h"
#include "caller.h"
#include "natives.h"
#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "startup.h"
#include "worker.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"

#include <cstdio>

extern "C" {

JNIEXPORT jint JNICALL Java_qoragent_Agent_initvar(JNIEnv *env, jobject, jint logLevel,
                                                   jint optimizationLevel, jint maxBackoff, jint maxTimeout,
                                                   jint signalChain, jstring vendor, jstring version,
                                                   jstring osName, jobject instance, jobject instanceRef,
                                                   jobject objectArray, jobject intArray, jstring webserver,
                                                   jobject, jstring logFile, jstring jvmId,
                                                   jint lockInfoLevel, jint dbQuery, jint sqlLength,
                                                   jint localsQuota, jint depthQueried, jint depthRecorded) {
    const QorStartArguments arguments = {
        logLevel, optimizationLevel, maxBackoff,  maxTimeout,  signalChain, vendor,       version,
        osName,   instance,          instanceRef, objectArray, intArray,    webserver,    logFile,
        jvmId,    lockInfoLevel,     dbQuery,     sqlLength,   localsQuota, depthQueried, depthRecorded,
    };
    return QorStart(env, &arguments);
}

JNIEXPORT jstring JNICALL Java_qoragent_Agent_startFailure(JNIEnv *env, jobject) {
    return startFailure ? QorNewStringUTF(env, startFailure) : nullptr;
}

JNIEXPORT void JNICALL Java_qoragent_Agent_setRelayPort(JNIEnv *, jobject, jint port) {
    relayPort = port;
}

JNIEXPORT jboolean JNICALL Java_qoragent_Agent_workerLives(JNIEnv *, jobject) {
    return QorWorkerLives();
}

JNIEXPORT jstring JNICALL Java_qoragent_Agent_dataFromNative(JNIEnv *env, jobject, jstring request) {
    return QorDataFromNative(env, request);
}

JNIEXPORT jint JNICALL Java_qoragent_Agent_setLogLevel(JNIEnv *, jobject, jint level) {
    qorloglevel = level;
    QORLOG(LOG_ERROR, "QorAgent Error: Changed qorloglevel to %d", level);
    return 0;
}

JNIEXPORT jint JNICALL Java_qoragent_Agent_setOptLevel(JNIEnv *, jobject, jint level) {
    QorSetOptLevel(level);
    return 0;
}

JNIEXPORT jstring JNICALL Java_qoragent_Agent_addvips(JNIEnv *env, jobject) {
    char text[ADDRESS_TEXT_SIZE];
    addvips(text, sizeof text);
    return QorNewStringUTF(env, text);
}

JNIEXPORT jstring JNICALL Java_qoragent_Agent_getCpuData(JNIEnv *env, jobject) {
    char text[CPU_INFO_SIZE];
    getCpuInfo(text, sizeof text);
    return QorNewStringUTF(env, text);
}

JNIEXPORT jstring JNICALL Java_qoragent_Agent_getProcessContextSwitchCount(JNIEnv *env, jobject) {
    uint32_t count = 0;
    QorGetProcessContextSwitch(&count);
    char text[16];
    snprintf(text, sizeof text, "%u", count);
    return QorNewStringUTF(env, text);
}

JNIEXPORT jlong JNICALL Java_qoragent_Agent_getAgentWorkerThreadId(JNIEnv *, jobject) {
    return gbiAgentWorkerThreadId;
}

JNIEXPORT jlong JNICALL Java_qoragent_Agent_getOpenFileDescriptorInProcess(JNIEnv *, jobject) {
    return QorGetOpenFileDescriptorInProcess();
}

JNIEXPORT jint JNICALL Java_qoragent_Agent_getTotalFileDescriptorInProcess(JNIEnv *, jobject) {
    return 0; // not available on this platform
}

JNIEXPORT jlong JNICALL Java_qoragent_Agent_getCurrentThreadOsId(JNIEnv *, jobject) {
    return qor_current_thread_id();
}

JNIEXPORT jlong JNICALL Java_qoragent_Agent_getTotalReadCharPerThread(JNIEnv *, jobject, jint threadId) {
    int64_t count = 0;
    QorGetTotalReadCharPerThread(threadId, &count);
    return count;
}

JNIEXPORT jlong JNICALL Java_qoragent_Agent_getTotalWriteCharPerThread(JNIEnv *, jobject, jint threadId) {
    int64_t count = 0;
    QorGetTotalWriteCharPerThread(threadId, &count);
    return count;
}

JNIEXPORT jint JNICALL Java_qoragent_Agent_loadJavaAgent(JNIEnv *env, jobject, jstring options) {
    return QorLoadJavaAgent(env, options);
}

JNIEXPORT jobjectArray JNICALL Java_qoragent_Agent_getThreadObjects(JNIEnv *env, jobject) {
    return QorGetThreadObjects(env);
}

} // extern "C"
