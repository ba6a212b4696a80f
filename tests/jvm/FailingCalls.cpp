#include "FailingCalls.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <execinfo.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

extern "C" char __executable_start, etext;

namespace {

constexpr int CALLERS = 5, OWN_FRAMES = 2, PLACES = 1 << 14;

// In memory that copies of the process share.
struct Shared {
    std::atomic<int> armed;
    std::atomic<uintptr_t> failed[PLACES]; // a hash table
    const char *call;
    uintptr_t callers[CALLERS];
};
std::atomic<Shared *> shared;
std::atomic<int64_t> blocks, complaints;

// True when the place was new to the table.
bool Note(uintptr_t place) {
    for (uintptr_t i = place;; i++) {
        uintptr_t found = 0;
        if (shared.load()->failed[i % PLACES].compare_exchange_strong(found, place))
            return true;
        if (found == place)
            return false;
    }
}

// Whether the call of that name, made by the caller of the function that asks, fails.
__attribute__((noinline)) bool Fails(const char *call) {
    Shared *state = shared;
    if (!state || !state->armed)
        return false;
    void *frames[OWN_FRAMES + CALLERS] = {};
    backtrace(frames, OWN_FRAMES + CALLERS);
    const auto start = reinterpret_cast<uintptr_t>(&__executable_start);
    uintptr_t callers[CALLERS] = {}, place = reinterpret_cast<uintptr_t>(call);
    for (int i = 0; i < CALLERS; i++) {
        callers[i] = reinterpret_cast<uintptr_t>(frames[OWN_FRAMES + i]);
        if (callers[i] < start || callers[i] > reinterpret_cast<uintptr_t>(&etext))
            callers[i] = 0; // of the JVM
        else
            callers[i] -= start;
        place = place * 1000003 + callers[i];
    }
    if (!callers[0] || !state->armed.exchange(0))
        return false;
    if (!Note(place | 1)) {
        state->armed = 1;
        return false;
    }
    state->call = call;
    memcpy(state->callers, callers, sizeof callers);
    return true;
}

template <typename Result>
Result Failed(int error, Result result) {
    errno = error;
    return result;
}

} // namespace

#define CALL(Result, name, parameters, arguments, result, error)                                             \
    extern "C" Result __real_##name parameters;                                                              \
    extern "C" Result __wrap_##name parameters {                                                             \
        return Fails(#name) ? Failed<Result>(error, result) : __real_##name arguments;                       \
    }
#define ALLOCATION(name, parameters, arguments)                                                              \
    extern "C" void *__real_##name parameters;                                                               \
    extern "C" void *__wrap_##name parameters {                                                              \
        void *block = Fails(#name) ? Failed<void *>(ENOMEM, nullptr) : __real_##name arguments;              \
        blocks += block != nullptr;                                                                          \
        return block;                                                                                        \
    }

// The calls, one a line: the linker's list is made of them.
// clang-format off
ALLOCATION(malloc, (size_t size), (size))
ALLOCATION(calloc, (size_t count, size_t size), (count, size))
ALLOCATION(strdup, (const char *text), (text))
ALLOCATION(strndup, (const char *text, size_t size), (text, size))
CALL(void *, mmap, (void *at, size_t size, int rights, int flags, int fd, off_t offset), (at, size, rights, flags, fd, offset), MAP_FAILED, ENOMEM)
CALL(int, mprotect, (void *at, size_t size, int rights), (at, size, rights), -1, ENOMEM)
CALL(int, open, (const char *path, int flags, mode_t mode), (path, flags, mode), -1, EMFILE)
CALL(int, pipe2, (int *fds, int flags), (fds, flags), -1, EMFILE)
CALL(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1, EMFILE)
CALL(int, fcntl, (int fd, int command, long argument), (fd, command, argument), -1, EMFILE)
CALL(FILE *, fopen, (const char *path, const char *mode), (path, mode), nullptr, EMFILE)
CALL(FILE *, fdopen, (int fd, const char *mode), (fd, mode), nullptr, ENOMEM)
CALL(FILE *, popen, (const char *command, const char *mode), (command, mode), nullptr, EMFILE)
CALL(DIR *, opendir, (const char *path), (path), nullptr, EMFILE)
CALL(ssize_t, read, (int fd, void *out, size_t size), (fd, out, size), -1, EIO)
CALL(ssize_t, pread, (int fd, void *out, size_t size, off_t at), (fd, out, size, at), -1, EIO)
CALL(ssize_t, write, (int fd, const void *data, size_t size), (fd, data, size), -1, EIO)
CALL(ssize_t, pwrite, (int fd, const void *data, size_t size, off_t at), (fd, data, size, at), -1, ENOSPC)
CALL(int, ftruncate, (int fd, off_t size), (fd, size), -1, EIO)
CALL(ssize_t, readlink, (const char *path, char *out, size_t size), (path, out, size), -1, EACCES)
CALL(int, poll, (pollfd *fds, nfds_t count, int msec), (fds, count, msec), -1, ENOMEM)
CALL(int, pthread_create, (pthread_t *out, const pthread_attr_t *attributes, void *(*run)(void *), void *argument), (out, attributes, run, argument), EAGAIN, EAGAIN)
CALL(pid_t, fork, (), (), -1, EAGAIN)
CALL(int, clone, (int (*run)(void *), void *stack, int flags, void *argument), (run, stack, flags, argument), -1, EAGAIN)
CALL(ssize_t, process_vm_readv, (pid_t pid, const iovec *local, unsigned long locals, const iovec *remote, unsigned long remotes, unsigned long flags), (pid, local, locals, remote, remotes, flags), -1, EPERM)
CALL(int, getaddrinfo, (const char *node, const char *service, const addrinfo *hints, addrinfo **out), (node, service, hints, out), EAI_MEMORY, ENOMEM)
// clang-format on

extern "C" void *__real_realloc(void *block, size_t size);
extern "C" void *__wrap_realloc(void *block, size_t size) {
    void *grown = Fails("realloc") ? Failed<void *>(ENOMEM, nullptr) : __real_realloc(block, size);
    blocks += !block && grown;
    return grown;
}

extern "C" void __real_perror(const char *text);
extern "C" void __wrap_perror(const char *text) {
    complaints++;
    __real_perror(text);
}

extern "C" void __real_free(void *block);
extern "C" void __wrap_free(void *block) {
    blocks -= block != nullptr;
    __real_free(block);
}

extern "C" long __real_syscall(long number, long a, long b, long c, long d, long e, long f);
extern "C" long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
    const bool mayFail =
        number != SYS_gettid && number != SYS_getpid && number != SYS_exit && number != SYS_exit_group;
    return mayFail && Fails("syscall") ? Failed<long>(EAGAIN, -1) : __real_syscall(number, a, b, c, d, e, f);
}

namespace {

jvmtiInterface_1 realJvmti, failingJvmti;
JNINativeInterface_ realJni, failingJni;

template <auto Entry>
struct Jvmti;
template <typename... Arguments, jvmtiError (JNICALL *jvmtiInterface_1::*Entry)(jvmtiEnv *, Arguments...)>
struct Jvmti<Entry> {
    static jvmtiError JNICALL Call(jvmtiEnv *env, Arguments... arguments) {
        return Fails("JVMTI") ? JVMTI_ERROR_OUT_OF_MEMORY : (realJvmti.*Entry)(env, arguments...);
    }
};

template <auto Entry>
struct Jni;
template <typename Result, typename... Arguments,
          Result (JNICALL *JNINativeInterface_::*Entry)(JNIEnv *, Arguments...)>
struct Jni<Entry> {
    static Result JNICALL Call(JNIEnv *env, Arguments... arguments) {
        if (!Fails("JNI"))
            return (realJni.*Entry)(env, arguments...);
        jclass error = realJni.FindClass(env, "java/lang/OutOfMemoryError");
        realJni.ThrowNew(env, error, "made to fail");
        realJni.DeleteLocalRef(env, error);
        if constexpr (std::is_pointer_v<Result>)
            return nullptr;
        else
            return JNI_ENOMEM;
    }
};

template <auto... Entries>
void ReplaceJvmti() {
    ((failingJvmti.*Entries = Jvmti<Entries>::Call), ...);
}

template <auto... Entries>
void ReplaceJni() {
    ((failingJni.*Entries = Jni<Entries>::Call), ...);
}

} // namespace

void WrapJvmti(jvmtiEnv *env) {
    using T = jvmtiInterface_1;
    if (!env || env->functions == &failingJvmti)
        return;
    failingJvmti = realJvmti = *env->functions;
    ReplaceJvmti<&T::GetClassSignature, &T::GetObjectsWithTags, &T::GetObjectMonitorUsage,
                 &T::GetObjectHashCode, &T::SetTag, &T::GetTag, &T::IterateThroughHeap, &T::FollowReferences,
                 &T::IsMethodNative, &T::GetThreadState, &T::GetThreadInfo, &T::GetSourceFileName,
                 &T::GetOwnedMonitorStackDepthInfo, &T::GetLoadedClasses, &T::GetMethodName,
                 &T::GetMethodDeclaringClass, &T::GetLineNumberTable, &T::GetFieldName, &T::GetFieldModifiers,
                 &T::GetErrorName, &T::GetCurrentContendedMonitor, &T::GetClassStatus, &T::GetClassFields,
                 &T::GetAllStackTraces, &T::GetThreadListStackTraces, &T::GetAllThreads, &T::GetThreadCpuTime,
                 &T::GetFrameCount, &T::GetStackTrace>();
    env->functions = &failingJvmti;
}

void WrapJni(JNIEnv *env) {
    using T = JNINativeInterface_;
    if (!env || env->functions == &failingJni)
        return;
    failingJni = realJni = *env->functions;
    ReplaceJni<&T::FindClass, &T::GetMethodID, &T::GetStaticMethodID, &T::GetFieldID, &T::GetStaticFieldID,
               &T::NewStringUTF, &T::GetStringUTFChars, &T::NewGlobalRef, &T::NewLocalRef, &T::NewObjectV,
               &T::NewObjectArray, &T::NewLongArray, &T::NewByteArray, &T::PushLocalFrame,
               &T::CallObjectMethodV, &T::CallStaticObjectMethodV>();
    env->functions = &failingJni;
}

void ArmFailingCall() {
    if (!shared) {
        void *memory =
            __real_mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared = static_cast<Shared *>(memory);
        void *frame;
        backtrace(&frame, 1); // loads what it needs
    }
    shared.load()->call = nullptr;
    shared.load()->armed = 1;
}

std::string DisarmFailingCall() {
    const Shared *state = shared;
    shared.load()->armed = 0;
    if (!state->call)
        return "";
    std::string place = state->call;
    for (uintptr_t caller : state->callers) {
        char text[32];
        snprintf(text, sizeof text, " %#lx", caller ? caller - 1 : 0);
        place += text;
    }
    return place;
}

int64_t Complaints() {
    return complaints;
}

int64_t AllocatedBlocks() {
    return blocks;
}
