// JavaThreads, the VM's list of them, and the JNI environments inside.
#include "simvm.h"

#include <algorithm>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace simvm {

namespace {

size_t ThreadBytes() {
    return sizeof(JavaThread) + vm.options.moved;
}

Word NewHandleBlock() {
    Word block = Allocate(sizeof(HandleBlock));
    As<HandleBlock>(block).top = 0;
    As<HandleBlock>(block).next = 0;
    return block;
}

// The list as memory, from the description.
void WriteList() {
    Word *link = vm.statics.threadList;
    for (ThreadInfo *thread : vm.threads) {
        __atomic_store_n(link, thread->address, __ATOMIC_RELEASE);
        link = &At(thread->address, &JavaThread::next);
    }
    __atomic_store_n(link, 0, __ATOMIC_RELEASE);
}

} // namespace

ThreadInfo *NewThread(const std::string &name) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    auto *thread = new ThreadInfo;
    thread->name = name;
    thread->object = NewObject("java/lang/Thread");
    Object *chars = NewChars(name);
    Set(thread->object, "name", chars);
    Set(thread->object, "group", vm.threadGroup);
    thread->objects = {thread->object, chars};
    thread->address = Allocate(ThreadBytes(), Guarded::THREAD);
    Set(thread->object, "eetop", thread->address);
    thread->osThread = Allocate(sizeof(OSThread), Guarded::OS_THREAD);
    thread->handles = NewHandleBlock();
    for (Word JavaThread::*member :
         {&JavaThread::pendingException, &JavaThread::handleArea, &JavaThread::next, &JavaThread::anchorSp,
          &JavaThread::anchorPc, &JavaThread::anchorFlags, &JavaThread::anchorFp, &JavaThread::vmResult,
          &JavaThread::vmResult2, &JavaThread::monitorChunks, &JavaThread::asyncException,
          &JavaThread::safepointState, &JavaThread::exceptionOop, &JavaThread::privilegedStack})
        At(thread->address, member) = 0;
    At(thread->address, &JavaThread::activeHandles) = thread->handles;
    At(thread->address, &JavaThread::osThread) = thread->osThread;
    At(thread->address, &JavaThread::threadObj) = thread->object->address;
    SetStates(thread, IN_VM, OS_INITIALIZED);
    EnvOf(thread);
    return thread;
}

void SetStates(ThreadInfo *thread, ThreadState state, OsState osState) {
    At(thread->osThread, &OSThread::state) = osState;
    At(thread->address, &JavaThread::state) = state;
}

void LinkThread(ThreadInfo *thread) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    thread->kernelId = int32_t(syscall(SYS_gettid));
    At(thread->osThread, &OSThread::kernelId) = thread->kernelId;
    At(thread->osThread, &OSThread::pthreadId) = Word(pthread_self());
    At(thread->address, &JavaThread::threadObj) = thread->object->address; // it may have moved meanwhile
    At(thread->address, &JavaThread::next) = vm.threads.empty() ? 0 : vm.threads.front()->address;
    vm.threads.insert(vm.threads.begin(), thread);
    __atomic_store_n(vm.statics.threadList, thread->address, __ATOMIC_RELEASE);
}

void UnlinkThread(ThreadInfo *thread) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    vm.threads.erase(std::find(vm.threads.begin(), vm.threads.end(), thread));
    WriteList();
}

void FreeThread(ThreadInfo *thread) {
    for (Object *object : thread->objects)
        Forget(object);
    Release(thread->address, ThreadBytes());
    Release(thread->osThread, sizeof(OSThread));
    Release(thread->handles, sizeof(HandleBlock));
    delete thread;
}

jobject NewHandle(ThreadInfo *thread, Object *object) {
    auto &block = As<HandleBlock>(thread->handles);
    if (block.top == 32)
        Fail("a thread has too many handles");
    block.handles[block.top] = object->address;
    return reinterpret_cast<jobject>(&block.handles[block.top++]);
}

} // namespace simvm
