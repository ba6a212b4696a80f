#include "FailingCalls.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <fmt/format.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <utility>

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

Shared *Share() {
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    return static_cast<Shared *>(memory);
}

Shared *const shared = Share();
std::atomic<int64_t> blocks, complaints, references;

// True when the place was new to the table.
bool Note(uintptr_t place) {
    for (uintptr_t i = place;; i++) {
        uintptr_t found = 0;
        if (shared->failed[i % PLACES].compare_exchange_strong(found, place))
            return true;
        if (found == place)
            return false;
    }
}

// Whether the call of that name, made by the caller of the function that asks, fails.
__attribute__((noinline)) bool Fails(const char *call) {
    if (!shared || !shared->armed) // none yet for what the process starts with
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
    if (!callers[0] || !shared->armed.exchange(0))
        return false;
    if (!Note(place | 1)) {
        shared->armed = 1;
        return false;
    }
    shared->call = call;
    memcpy(shared->callers, callers, sizeof callers);
    return true;
}

long Failed(int error, long result) {
    errno = error;
    return result;
}

} // namespace

// What all these calls take and return are machine words: on x86-64 System V at most six integers or
// pointers, in registers that know no kinds. The agent's calls of clone have four arguments.
static_assert(__x86_64__);
using Word = long;
#define WORDS Word a, Word b, Word c, Word d, Word e, Word f
#define CALL(name, result, error)                                                                            \
    extern "C" Word __real_##name(WORDS);                                                                    \
    extern "C" Word __wrap_##name(WORDS) {                                                                   \
        return Fails(#name) ? Failed(error, result) : __real_##name(a, b, c, d, e, f);                       \
    }
#define ALLOCATION(name)                                                                                     \
    extern "C" Word __real_##name(WORDS);                                                                    \
    extern "C" Word __wrap_##name(WORDS) {                                                                   \
        const Word block = Fails(#name) ? Failed(ENOMEM, 0) : __real_##name(a, b, c, d, e, f);               \
        blocks += block != 0;                                                                                \
        return block;                                                                                        \
    }

// The calls, one a line: the linker's list is made of them.
ALLOCATION(malloc)
ALLOCATION(calloc)
ALLOCATION(strdup)
ALLOCATION(strndup)
CALL(mmap, -1, ENOMEM)
CALL(mprotect, -1, ENOMEM)
CALL(open, -1, EMFILE)
CALL(pipe2, -1, EMFILE)
CALL(socket, -1, EMFILE)
CALL(fcntl, -1, EMFILE)
CALL(fopen, 0, EMFILE)
CALL(fdopen, 0, ENOMEM)
CALL(popen, 0, EMFILE)
CALL(opendir, 0, EMFILE)
CALL(read, -1, EIO)
CALL(pread, -1, EIO)
CALL(write, -1, EIO)
CALL(pwrite, -1, ENOSPC)
CALL(ftruncate, -1, EIO)
CALL(readlink, -1, EACCES)
CALL(poll, -1, ENOMEM)
CALL(pthread_create, EAGAIN, EAGAIN)
CALL(fork, -1, EAGAIN)
CALL(clone, -1, EAGAIN)
CALL(process_vm_readv, -1, EPERM)
CALL(getaddrinfo, EAI_MEMORY, ENOMEM)

extern "C" Word __real_realloc(Word block, Word size);
extern "C" Word __wrap_realloc(Word block, Word size) {
    const Word grown = Fails("realloc") ? Failed(ENOMEM, 0) : __real_realloc(block, size);
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

extern "C" Word __real_syscall(Word number, WORDS);
extern "C" Word __wrap_syscall(Word number, WORDS) {
    const bool mayFail =
        number != SYS_gettid && number != SYS_getpid && number != SYS_exit && number != SYS_exit_group;
    return mayFail && Fails("syscall") ? Failed(EAGAIN, -1) : __real_syscall(number, a, b, c, d, e, f);
}

namespace {

jvmtiInterface_1 realJvmti, failingJvmti;
JNINativeInterface_ realJni, failingJni;

using Call = Word (*)(WORDS);

template <size_t N>
Word Jvmti(WORDS) {
    if (Fails("JVMTI"))
        return JVMTI_ERROR_OUT_OF_MEMORY;
    return reinterpret_cast<Call *>(&realJvmti)[N](a, b, c, d, e, f);
}

template <size_t... N>
void FailJvmti(std::index_sequence<N...>) {
    ((reinterpret_cast<Call *>(&failingJvmti)[N] = Jvmti<N>), ...);
}

// References are made without an exception, or not.
template <auto Entry, Word FAILURE, bool THROWS>
Word Jni(WORDS) {
    if (!Fails("JNI"))
        return reinterpret_cast<Call &>(realJni.*Entry)(a, b, c, d, e, f);
    if (THROWS) {
        auto *env = reinterpret_cast<JNIEnv *>(a);
        jclass error = realJni.FindClass(env, "java/lang/OutOfMemoryError");
        realJni.ThrowNew(env, error, "made to fail");
        realJni.DeleteLocalRef(env, error);
    }
    return FAILURE;
}

Word NewCountedRef(WORDS) {
    const Word made = Jni<&JNINativeInterface_::NewGlobalRef, 0, false>(a, b, c, d, e, f);
    references += made != 0;
    return made;
}

void JNICALL DeleteCountedRef(JNIEnv *env, jobject reference) {
    references -= reference != nullptr;
    realJni.DeleteGlobalRef(env, reference);
}

template <Word FAILURE, auto... Entries>
void FailJni() {
    ((reinterpret_cast<Call &>(failingJni.*Entries) = Jni<Entries, FAILURE, true>), ...);
}

} // namespace

void WrapJvmti(jvmtiEnv *env) {
    if (env->functions == &failingJvmti)
        return;
    failingJvmti = realJvmti = *env->functions;
    FailJvmti(std::make_index_sequence<sizeof(jvmtiInterface_1) / sizeof(Call)>());
    failingJvmti.Deallocate = realJvmti.Deallocate;
    failingJvmti.GetVersionNumber = realJvmti.GetVersionNumber;
    env->functions = &failingJvmti;
}

void WrapJni(JNIEnv *env) {
    using T = JNINativeInterface_;
    if (!env || env->functions == &failingJni)
        return;
    failingJni = realJni = *env->functions;
    FailJni<0, &T::FindClass, &T::GetMethodID, &T::GetStaticMethodID, &T::GetFieldID, &T::GetStaticFieldID,
            &T::NewStringUTF, &T::GetStringUTFChars, &T::NewObjectV, &T::NewObjectArray, &T::NewLongArray,
            &T::NewByteArray, &T::CallObjectMethodV, &T::CallStaticObjectMethodV>();
    FailJni<JNI_ENOMEM, &T::PushLocalFrame>();
    reinterpret_cast<Call &>(failingJni.NewLocalRef) = Jni<&T::NewLocalRef, 0, false>;
    reinterpret_cast<Call &>(failingJni.NewGlobalRef) = NewCountedRef;
    failingJni.DeleteGlobalRef = DeleteCountedRef;
    env->functions = &failingJni;
}

void ArmFailingCall() {
    void *frame;
    backtrace(&frame, 1); // loads what it needs
    shared->call = nullptr;
    shared->armed = 1;
}

std::string DisarmFailingCall() {
    shared->armed = 0;
    std::string place = shared->call ? shared->call : "";
    for (uintptr_t caller : shared->callers)
        if (shared->call)
            place += fmt::format(" {:#x}", caller);
    return place;
}

int64_t Complaints() {
    return complaints;
}

int64_t GlobalReferences() {
    return references;
}

int64_t AllocatedBlocks() {
    return blocks;
}
