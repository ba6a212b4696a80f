// What the measurements need below Java: the bare JVMTI stack walk, and the JVM's own thread print over its
// attach socket.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <jni.h>
#include <jvmti.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

int64_t nanos() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

jlong fail(JNIEnv *env, const std::string &text) {
    env->ThrowNew(env->FindClass("java/lang/IllegalStateException"), text.c_str());
    return -1;
}

int connectTo(const char *path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

} // namespace

// Nanoseconds that one GetAllStackTraces call takes; its results are given back outside the time.
extern "C" JNIEXPORT jlong JNICALL Java_qoragent_bench_Native_getAllStackTraces(JNIEnv *env, jclass,
                                                                                jint maxFrames) {
    static jvmtiEnv *jvmti;
    JavaVM *vm;
    if (!jvmti && (env->GetJavaVM(&vm) != JNI_OK ||
                   vm->GetEnv(reinterpret_cast<void **>(&jvmti), JVMTI_VERSION_1_1) != JNI_OK))
        return fail(env, "no JVMTI environment");
    jvmtiStackInfo *stacks = nullptr;
    jint count = 0;
    if (env->PushLocalFrame(4096) != 0)
        return -1;
    const int64_t start = nanos();
    const jvmtiError error = jvmti->GetAllStackTraces(maxFrames, &stacks, &count);
    const int64_t end = nanos();
    env->PopLocalFrame(nullptr);
    if (error != JVMTI_ERROR_NONE)
        return fail(env, "GetAllStackTraces: error " + std::to_string(error));
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(stacks));
    return end - start;
}

// Bytes of the thread print that the JVM at the attach socket sends.
extern "C" JNIEXPORT jlong JNICALL Java_qoragent_bench_Native_threadPrint(JNIEnv *env, jclass, jstring path) {
    const char *chars = env->GetStringUTFChars(path, nullptr);
    if (!chars)
        return -1;
    const int fd = connectTo(chars);
    env->ReleaseStringUTFChars(path, chars);
    if (fd < 0)
        return fail(env, std::string("attach socket: ") + strerror(errno));
    static const char REQUEST[] = "1\0threaddump\0\0\0"; // protocol, command, three empty arguments
    jlong total = write(fd, REQUEST, sizeof REQUEST) == sizeof REQUEST ? 0 : -1;
    char part[65536];
    for (ssize_t n; total >= 0 && (n = read(fd, part, sizeof part)) > 0;)
        total += n;
    close(fd);
    return total > 0 ? total : fail(env, "the attach socket gave no thread print");
}

// Makes this JVM open its attach socket; its file .attach_pidN must be there.
extern "C" JNIEXPORT void JNICALL Java_qoragent_bench_Native_signalAttach(JNIEnv *, jclass) {
    kill(getpid(), SIGQUIT);
}

namespace {

decltype(jvmtiInterface_1_::GetThreadCpuTime) jvmsClock;

jvmtiError JNICALL coarseClock(jvmtiEnv *env, jthread thread, jlong *nanos) {
    const jvmtiError error = jvmsClock(env, thread, nanos);
    *nanos -= *nanos % 10000000;
    return error;
}

jvmtiError JNICALL noClock(jvmtiEnv *, jthread, jlong *) {
    return JVMTI_ERROR_INTERNAL;
}

} // namespace

// All environments of a JVM share one table of functions.
extern "C" JNIEXPORT void JNICALL Java_qoragent_bench_Native_setClock(JNIEnv *env, jclass, jint kind) {
    JavaVM *vm;
    jvmtiEnv *jvmti;
    if (env->GetJavaVM(&vm) != JNI_OK ||
        vm->GetEnv(reinterpret_cast<void **>(&jvmti), JVMTI_VERSION_1_1) != JNI_OK)
        return;
    auto *table = const_cast<jvmtiInterface_1_ *>(jvmti->functions);
    if (!jvmsClock)
        jvmsClock = table->GetThreadCpuTime;
    table->GetThreadCpuTime = kind == 1 ? coarseClock : kind == 2 ? noClock : jvmsClock;
    jvmti->DisposeEnvironment();
}
