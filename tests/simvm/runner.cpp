#include "scenes.h"
#include "simvm.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace simvm {

namespace {

thread_local Runner *current;
std::vector<Runner *> runners; // under safepointLock
std::mutex safepointLock;
std::condition_variable safepointOver;

// From C back into Java code; not while a collection runs.
void BackToJava(Runner *runner) {
    for (;;) {
        runner->inJava = true;
        if (!__atomic_load_n(&safepointAsked, __ATOMIC_SEQ_CST))
            return;
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
    if (runner->script->rest == Rest::CALL)
        return runner->call();
    for (bool rests = true; rests && !__atomic_load_n(&runner->control.leave, __ATOMIC_ACQUIRE);)
        switch (runner->script->rest) {
        case Rest::PIPE:
            rests = read(runner->pipe[0], &byte, 1) < 0 && errno == EINTR;
            break;
        case Rest::ACCEPT:
            rests = accept4(runner->listener, nullptr, nullptr, SOCK_CLOEXEC) < 0 && errno == EINTR;
            break;
        case Rest::SLEEP:
            nanosleep(&slice, nullptr);
            break;
        default:
            syscall(SYS_futex, &runner->control.leave, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
        }
}

// Through the call stub, with the anchor in force kept in the wrapper meanwhile.
void EnterJava(Runner *runner, Word entry) {
    Word thread = runner->info->address;
    CallWrapper wrapper;
    memset(&wrapper, POISON, sizeof wrapper);
    auto at = reinterpret_cast<Word>(&wrapper);
    wrapper.thread = thread;
    At(at, &CallWrapper::anchorSp) = At(thread, &JavaThread::anchorSp) & ~Word(3);
    At(at, &CallWrapper::anchorFp) = At(thread, &JavaThread::anchorFp);
    wrapper.anchorPc = At(thread, &JavaThread::anchorPc);
    BackToJava(runner);
    At(thread, &JavaThread::state) = IN_JAVA;
    At(thread, &JavaThread::anchorSp) = 0;
    CallJava(entry, at, thread, &runner->control);
    OutOfJava(runner);
    At(thread, &JavaThread::anchorFp) = At(at, &CallWrapper::anchorFp);
    At(thread, &JavaThread::anchorPc) = wrapper.anchorPc;
    At(thread, &JavaThread::anchorSp) = At(at, &CallWrapper::anchorSp);
    At(thread, &JavaThread::state) = IN_NATIVE;
}

void RunScript(Runner *runner) {
    if (runner->first)
        runner->first();
    current = runner;
    runner->stackHigh = reinterpret_cast<Word>(__builtin_frame_address(0));
    OutOfJava(runner);
    {
        std::lock_guard<std::mutex> held(safepointLock);
        runners.push_back(runner);
    }
    LinkThread(runner->info);
    At(runner->info->address, &JavaThread::safepointState) = runner->script->safepointState;
    SetStates(runner->info, IN_VM, OS_RUNNABLE);
    if (runner->script->rest == Rest::SPIN || runner->script->rest == Rest::CALLS)
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
    for (ThreadInfo *thread : vm.threads) {
        Redirect(thread->address, thread->address + sizeof(JavaThread), moved);
        Redirect(thread->handles, thread->handles + sizeof(HandleBlock), moved);
    }
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

// The to space becomes the from space.
void SwapSurvivors() {
    std::swap(vm.from, vm.to);
    std::swap(vm.from.letter, vm.to.letter);
    if (vm.options.collector == Collector::PARALLEL) {
        At(*vm.statics.psYoung, &ParallelGeneration::from) = vm.from.structure;
        At(*vm.statics.psYoung, &ParallelGeneration::to) = vm.to.structure;
        return;
    }
    Word young = At(vm.heap, &CollectedHeap::young);
    At(young, &YoungGeneration::from) = vm.from.structure;
    At(young, &YoungGeneration::to) = vm.to.structure;
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

extern "C" void SimvmRest(Word thread, Script *script) {
    Runner *runner = current;
    OutOfJava(runner);
    const std::map<Rest, OsState> blocks = {
        {Rest::SLEEP, OS_SLEEPING}, {Rest::WAIT, OS_OBJECT_WAIT}, {Rest::MONITOR, OS_MONITOR_WAIT}};
    const auto found = blocks.find(script->rest);
    At(runner->info->osThread, &OSThread::state) = found == blocks.end() ? OS_RUNNABLE : found->second;
    At(thread, &JavaThread::state) = found == blocks.end() ? IN_NATIVE : BLOCKED;
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

Runner *Start(const std::string &name, Script *script, std::function<void()> call,
              std::function<void()> first) {
    auto *runner = new Runner{NewThread(name), script, {}, std::move(call), std::move(first), {}};
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

void RunHere(const std::string &name, Script *script, std::function<void()> call) {
    Runner runner{NewThread(name), script, {}, std::move(call), {}, {}};
    RunScript(&runner);
    FreeThread(runner.info);
}

void Collect(const std::function<void()> &held, const std::vector<std::string> &moving) {
    std::lock_guard<std::recursive_mutex> description(vm.lock);
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
    CollectionFigures figures = vm.collections;
    (moving.empty() ? figures.minor : figures.major)++;
    (moving.empty() ? figures.minorTime : figures.majorTime) += 1000;
    SetCollections(figures);
    At(vm.heap, &CollectedHeap::collecting) = 0;
    __atomic_store_n(&safepointAsked, 0, __ATOMIC_SEQ_CST);
    lock.unlock();
    safepointOver.notify_all();
}

} // namespace simvm
