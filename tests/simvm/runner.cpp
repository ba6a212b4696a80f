#include "scenes.h"

#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <time.h>

namespace simvm {

namespace {

thread_local Runner *current;
std::vector<Runner *> runners; // under safepointLock
std::mutex safepointLock;
std::condition_variable safepointOver;

// From C back into Java code; not while a collection runs.
void BackToJava(Runner *runner) {
    for (runner->inJava = true; __atomic_load_n(&safepointAsked, __ATOMIC_SEQ_CST); runner->inJava = true) {
        runner->inJava = false;
        std::unique_lock<std::mutex> lock(safepointLock);
        safepointOver.wait(lock, [] { return !safepointAsked; });
    }
}
void OutOfJava(Runner *runner) {
    runner->stackLow = reinterpret_cast<Word>(__builtin_frame_address(0));
    runner->inJava = false;
}

void WaitAtRest(Runner *runner) {
    char byte;
    const timespec slice = {0, 20'000'000};
    const Rest rest = runner->script->rest;
    if (rest == Rest::CALL)
        return runner->call();
    bool rests = true;
    while (rests && !__atomic_load_n(&runner->control.leave, __ATOMIC_ACQUIRE))
        if (rest == Rest::PIPE)
            rests = read(runner->pipe[0], &byte, 1) < 0 && errno == EINTR;
        else if (rest == Rest::ACCEPT)
            rests = accept4(runner->listener, nullptr, nullptr, SOCK_CLOEXEC) < 0 && errno == EINTR;
        else if (rest == Rest::SLEEP)
            nanosleep(&slice, nullptr);
        else
            syscall(SYS_futex, &runner->control.leave, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
}

// Through the call stub, with the anchor in force kept in the wrapper meanwhile.
void EnterJava(Runner *runner, Word entry) {
    const Word thread = runner->info->address;
    Word &sp = At(thread, &JavaThread::anchorSp), &fp = At(thread, &JavaThread::anchorFp),
         &pc = At(thread, &JavaThread::anchorPc);
    CallWrapper wrapper;
    memset(&wrapper, POISON, sizeof wrapper);
    wrapper.thread = thread;
    wrapper.anchorSp = sp & ~Word(3);
    wrapper.anchorFp = fp;
    wrapper.anchorPc = pc;
    BackToJava(runner);
    At(thread, &JavaThread::state) = IN_JAVA;
    sp = 0;
    reinterpret_cast<void (*)(Word, CallWrapper *, Word, Control *)>(callStub)(entry, &wrapper, thread,
                                                                               &runner->control);
    OutOfJava(runner);
    fp = wrapper.anchorFp;
    pc = wrapper.anchorPc;
    sp = wrapper.anchorSp;
    At(thread, &JavaThread::state) = IN_NATIVE;
}

void RunScript(Runner *runner) {
    current = runner;
    runner->stackHigh = reinterpret_cast<Word>(__builtin_frame_address(0));
    OutOfJava(runner);
    safepointLock.lock();
    runners.push_back(runner);
    safepointLock.unlock();
    LinkThread(runner->info);
    At(runner->info->address, &JavaThread::safepointState) = runner->script->safepointState;
    SetStates(runner->info, IN_VM, OS_RUNNABLE);
    if (Loops(runner->script->rest))
        runner->resting = 1;
    EnterJava(runner, runner->script->entry);
    SetStates(runner->info, IN_VM, OS_ZOMBIE);
    UnlinkThread(runner->info);
    std::lock_guard<std::mutex> held(safepointLock);
    runners.erase(std::find(runners.begin(), runners.end(), runner));
}

// ---- the collector
// -----------------------------------------------------------------------------------------

// Every word from `low` to `high` that is the old address of an object.
void Redirect(Word low, Word high, const std::unordered_map<Word, Word> &moved) {
    for (Word at = (low + 7) & ~Word(7); at + 8 <= high; at += 8)
        if (auto found = moved.find(As<Word>(at)); found != moved.end())
            As<Word>(at) = found->second;
}

void RedirectAll(const std::unordered_map<Word, Word> &moved) {
    for (const Object &object : vm.objects)
        if (object.address)
            Redirect(object.address + sizeof(Oop), object.address + object.bytes, moved);
    for (auto &[name, type] : vm.classes)
        Redirect(type.klass + sizeof(Klass), type.klass + 8 * WordsOf(type.klass), moved);
    for (const ThreadInfo *thread : vm.threads)
        Redirect(thread->address, thread->address + sizeof(JavaThread), moved);
    for (auto &[low, end] : OopTables())
        Redirect(low, end, moved);
    for (Runner *runner : runners)
        Redirect(runner->stackLow, runner->stackHigh, moved);
}

void Empty(HeapSpace *space) {
    memset(&As<char>(space->sizes), 0, (space->top - space->bottom) / 2);
    memset(&As<char>(space->bottom), POISON, space->top - space->bottom);
    SetTop(space, space->bottom);
}

template <class GENERATION>
void WriteSurvivors(Word young) {
    At(young, &GENERATION::from) = vm.from.structure;
    At(young, &GENERATION::to) = vm.to.structure;
}

// The to space becomes the from space.
void SwapSurvivors() {
    std::swap(vm.from, vm.to);
    std::swap(vm.from.letter, vm.to.letter);
    if (vm.options.collector == Collector::PARALLEL)
        WriteSurvivors<ParallelGeneration>(*vm.statics.psYoung);
    else
        WriteSurvivors<YoungGeneration>(At(vm.heap, &CollectedHeap::young));
}

void MoveYoung() {
    std::unordered_map<Word, Word> moved;
    for (Object &object : vm.objects) {
        if (!object.address || (object.space != 'E' && object.space != 'F'))
            continue;
        bool fits = vm.to.top + object.bytes <= vm.to.end;
        Word place = AllocateObject(fits ? &vm.to : &vm.old, object.bytes);
        memcpy(&As<char>(place), &As<char>(object.address), object.bytes);
        moved[object.address] = place;
        object.address = place;
        object.space = fits ? 'F' : vm.old.letter;
    }
    RedirectAll(moved);
    WriteRoots();
    Empty(&vm.eden);
    Empty(&vm.from);
    SwapSurvivors();
}

// The class becomes another object of perm. Not where perm is wide.
void MoveKlass(Class *type) {
    Word old = type->klass, bytes = 8 * WordsOf(old), place = AllocateObject(&vm.perm, bytes);
    memcpy(&As<char>(place), &As<char>(old), bytes);
    type->klass = place;
    const std::unordered_map<Word, Word> moved = {{old, place}};
    for (const HeapSpace *space : {&vm.perm, &vm.old, &vm.eden, &vm.from})
        Redirect(space->bottom, space->top, moved);
    for (Object &object : vm.objects)
        if (object.klass == old)
            object.klass = place;
    for (Root &root : stagedRoots)
        if (root.oop == old)
            root.oop = place;
    RedirectAll(moved);
    SizeAt(vm.perm, old) = 0;
    memset(&As<char>(old), POISON, bytes);
}

} // namespace

extern "C" void SimvmRest(Word thread) {
    Runner *runner = current;
    OutOfJava(runner);
    const std::map<Rest, OsState> blocks = {
        {Rest::SLEEP, OS_SLEEPING}, {Rest::WAIT, OS_OBJECT_WAIT}, {Rest::MONITOR, OS_MONITOR_WAIT}};
    const auto found = blocks.find(runner->script->rest);
    const bool blocked = found != blocks.end();
    At(runner->info->osThread, &OSThread::state) = blocked ? found->second : OS_RUNNABLE;
    At(thread, &JavaThread::state) = blocked ? BLOCKED : IN_NATIVE;
    runner->resting = 1;
    WaitAtRest(runner);
    At(runner->info->osThread, &OSThread::state) = OS_RUNNABLE;
    BackToJava(runner);
}

extern "C" void SimvmEnter(Word, Word entry) {
    OutOfJava(current);
    EnterJava(current, entry);
    BackToJava(current);
}

extern "C" void SimvmSafepoint(Word thread) {
    OutOfJava(current);
    At(thread, &JavaThread::state) = BLOCKED;
    BackToJava(current);
}

Runner *Start(const std::string &name, Script *script, std::function<void()> call) {
    auto *runner = new Runner{NewThread(name), script, {}, std::move(call), {}};
    int32_t port;
    if (script->rest == Rest::PIPE && pipe2(runner->pipe, O_CLOEXEC))
        Fail("no pipe");
    if (script->rest == Rest::ACCEPT)
        runner->listener = ListeningSocket(&port);
    runner->thread = std::thread(RunScript, runner);
    while (!runner->resting)
        usleep(200);
    return runner;
}

void Leave(Runner *runner) {
    __atomic_store_n(&runner->control.leave, 1, __ATOMIC_RELEASE);
    syscall(SYS_futex, &runner->control.leave, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    if (runner->listener >= 0)
        shutdown(runner->listener, SHUT_RDWR);
    if (runner->pipe[1] >= 0 && write(runner->pipe[1], "", 1) != 1)
        Fail("no write to a pipe");
    runner->thread.join();
    for (int32_t descriptor : {runner->pipe[0], runner->pipe[1], runner->listener})
        if (descriptor >= 0)
            close(descriptor);
    FreeThread(runner->info);
    delete runner;
}

void RunAsMain(const std::function<void()> &call) {
    Script script = NativeScript();
    Runner runner{NewThread("main"), &script, {}, call, {}};
    RunScript(&runner);
    FreeThread(runner.info);
}

void Collect(const std::function<void()> &held, const std::vector<std::string> &moving) {
    const Locked description(vm.lock);
    At(vm.heap, &CollectedHeap::collecting) = 1;
    __atomic_store_n(&safepointAsked, 1, __ATOMIC_SEQ_CST);
    std::unique_lock<std::mutex> lock(safepointLock);
    for (Runner *runner : runners)
        while (runner->inJava)
            usleep(50);
    if (held)
        held();
    for (const std::string &name : moving)
        MoveKlass(FindClass(name));
    MoveYoung();
    auto [minor, major, minorTime, majorTime] = vm.collections;
    (moving.empty() ? minor : major)++;
    SetCollections({minor, major, minorTime, majorTime});
    At(vm.heap, &CollectedHeap::collecting) = 0;
    __atomic_store_n(&safepointAsked, 0, __ATOMIC_SEQ_CST);
    lock.unlock();
    safepointOver.notify_all();
}

} // namespace simvm
