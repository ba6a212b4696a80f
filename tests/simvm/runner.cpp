#include "scenes.h"

#include <condition_variable>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <thread>

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
    runner->stackLow = Word(__builtin_frame_address(0));
    runner->inJava = false;
}

// Through the call stub, with the anchor in force kept in the wrapper meanwhile.
void EnterJava(Runner *runner, Word entry) {
    JavaThread &java = runner->info->Java();
    CallWrapper wrapper;
    memset(&wrapper, POISON, sizeof wrapper);
    wrapper.anchorSp = java.anchorSp & ~Word(3);
    wrapper.anchorFp = java.anchorFp;
    BackToJava(runner);
    java.state = IN_JAVA;
    java.anchorSp = 0;
    reinterpret_cast<void (*)(Word, CallWrapper *, Word, Control *)>(callStub)(
        entry, &wrapper, runner->info->address, &runner->control);
    OutOfJava(runner);
    java.anchorFp = wrapper.anchorFp;
    java.anchorSp = wrapper.anchorSp;
    java.state = IN_NATIVE;
}

void RunScript(Runner *runner) {
    current = runner;
    runner->stackHigh = Word(__builtin_frame_address(0));
    OutOfJava(runner);
    safepointLock.lock();
    runners.push_back(runner);
    safepointLock.unlock();
    LinkThread(runner->info);
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
        Redirect(object.address + sizeof(Oop), object.address + object.bytes, moved);
    for (auto &[name, type] : vm.classes)
        Redirect(type.klass + sizeof(Klass), type.klass + 8 * WordsOf(type.klass), moved);
    for (const ThreadInfo *thread : vm.threads)
        Redirect(thread->address, thread->address + sizeof(JavaThread), moved);
    Redirect(cacheLow, cacheNext, moved);
    for (Runner *runner : runners)
        Redirect(runner->stackLow, runner->stackHigh, moved);
}

void Empty(HeapSpace *space) {
    memset(&As<char>(space->sizes), 0, (space->top - space->bottom) / 2);
    memset(&As<char>(space->bottom), POISON, space->top - space->bottom);
    SetTop(space, space->bottom);
}

void MoveYoung() {
    std::unordered_map<Word, Word> moved;
    for (Object &object : vm.objects) {
        if (object.space != 'E' && object.space != 'F')
            continue;
        bool fits = vm.to.top + object.bytes <= vm.to.end;
        Word place = AllocateObject(fits ? &vm.to : &vm.old, object.bytes);
        memcpy(&As<char>(place), &As<char>(object.address), object.bytes);
        moved[object.address] = place;
        object.address = place;
        object.space = fits ? 'F' : vm.old.letter;
    }
    RedirectAll(moved);
    Empty(&vm.eden);
    Empty(&vm.from);
    std::swap(vm.from, vm.to); // the to space becomes the from space
    std::swap(vm.from.letter, vm.to.letter);
    std::swap(vm.survivors[0], vm.survivors[1]);
}

} // namespace

extern "C" void SimvmRest(Word) {
    OutOfJava(current);
    const Rest rest = current->script->rest;
    const OsState state = RESTS[int(rest)].state;
    SetStates(current->info, state == OS_RUNNABLE ? IN_NATIVE : BLOCKED, state);
    current->resting = 1;
    if (rest == Rest::CALL)
        current->call();
    while (rest != Rest::CALL && !__atomic_load_n(&current->control.leave, __ATOMIC_ACQUIRE))
        syscall(SYS_futex, &current->control.leave, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    current->info->Os().state = OS_RUNNABLE;
    BackToJava(current);
}

extern "C" void SimvmEnter(Word, Word entry) {
    OutOfJava(current);
    EnterJava(current, entry);
    BackToJava(current);
}

extern "C" void SimvmSafepoint(Word thread) {
    OutOfJava(current);
    As<JavaThread>(thread).state = BLOCKED;
    BackToJava(current);
}

Runner *Start(const std::string &name, Script *script, std::function<void()> call) {
    auto *runner = new Runner{NewThread(name), script, {}, std::move(call), {}};
    runner->thread = std::thread(RunScript, runner);
    while (!runner->resting)
        usleep(200);
    return runner;
}

void Leave(Runner *runner) {
    __atomic_store_n(&runner->control.leave, 1, __ATOMIC_RELEASE);
    syscall(SYS_futex, &runner->control.leave, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    runner->thread.join();
    FreeThread(runner->info);
    delete runner;
}

void RunAsMain(const std::function<void()> &call) {
    Script script = NativeScript();
    Runner runner{NewThread("main"), &script, {}, call, {}};
    RunScript(&runner);
    FreeThread(runner.info);
}

void Collect(const std::function<void()> &held) {
    const Locked description(vm.lock);
    vm.heap->collecting = 1;
    __atomic_store_n(&safepointAsked, 1, __ATOMIC_SEQ_CST);
    std::unique_lock<std::mutex> lock(safepointLock);
    for (Runner *runner : runners)
        while (runner->inJava)
            usleep(50);
    if (held)
        held();
    MoveYoung();
    CollectionFigures figures = vm.collections;
    figures.minor++;
    SetCollections(figures);
    vm.heap->collecting = 0;
    __atomic_store_n(&safepointAsked, 0, __ATOMIC_SEQ_CST);
    lock.unlock();
    safepointOver.notify_all();
}

} // namespace simvm
