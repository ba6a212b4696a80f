#include "simvm.h"

#include <cstdio>
#include <dlfcn.h>
#include <sys/mman.h>

namespace simvm {

namespace {

std::map<size_t, std::vector<Word>> released; // by size

} // namespace

void Fail(const char *what) {
    fprintf(stderr, "simvm: %s\n", what);
    abort();
}

Word Map(size_t bytes, bool poison, int protection) {
    void *at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE | protection,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (poison)
        memset(at, POISON, bytes);
    return Word(at);
}

Word Allocate(size_t bytes) {
    const Locked held(vm.lock);
    bytes = (bytes + 15) & ~size_t(15);
    if (!released[bytes].empty()) {
        Word at = released[bytes].back();
        released[bytes].pop_back();
        return at;
    }
    static Word next, end;
    if (next + bytes > end) {
        next = Map(4 << 20, true);
        end = next + (4 << 20);
    }
    next += bytes;
    return next - bytes;
}

// Boot: which members lie elsewhere in this build, statics, virtual tables, and the order in which the rest
// is laid out.

Vm vm;
void LayOutHeap();      // heap.cpp
void DefineVmClasses(); // classes.cpp
void BootCode();        // code.cpp

namespace {

// What follows a word that this build lacks lies a word lower.
template <class S>
void Lacks(Word S::*member) {
    for (size_t place = Place(member); place < std::size(placeShift<S>); place++)
        placeShift<S>[place] -= 8;
}

void ArrangePlaces() {
    const int build = stoi(vm.options.version.substr(vm.options.version.find('_') + 1));
    if (build < 8) {
        Lacks(&Klass::since08);
        Lacks(&YoungGeneration::since08);
    }
    if (build < 10)
        Lacks(&KlassVtable::since10);
}

void FillVtables() {
    const std::pair<VtableKind, size_t> rows[] = {
#define KIND(name, base, symbol, predicate, letter) {VT_##base, Place(&predicate)},
#include "library_names.h"
    };
    for (int kind = 0; kind < VTABLE_COUNT; kind++) {
        Word *table = vm.statics.vtables[kind], head = HeadOf(VtableKind(kind));
        table[0] = 0;
        std::fill(table + 1, table + STATIC_WORDS, POISON_WORD); // nobody may call what is there
        const bool isBlob = kind >= VT_BufferBlob;
        const size_t from = isBlob ? 0 : Place(&KlassVtable::instance),
                     end = isBlob ? sizeof(BlobVtable) : sizeof(KlassVtable);
        std::fill(&As<Word>(head + from), &As<Word>(head + end), vm.statics.isOther);
        if (!isBlob)
            At(head, &KlassVtable::oopSize) = vm.statics.oopSize;
        for (int of = kind; of != VT_Klass; of = rows[of].first)
            As<Word>(head + rows[of].second) = vm.statics.isOwn[of];
    }
}

} // namespace

Word HeadOf(VtableKind kind) {
    return Word(vm.statics.vtables[kind]) + VTABLE_HEAD;
}

void Boot(const Options &options) {
    vm.options = options;
    const char *const path =
        options.isClient ? SIMVM_FOLDER "/client/libjvm.so" : SIMVM_FOLDER "/server/libjvm.so";
    void *library = dlopen(path, RTLD_NOW);
    reinterpret_cast<void (*)(Statics *)>(dlsym(library, "simvm_statics"))(&vm.statics);
    ArrangePlaces();
    FillVtables();
    *vm.statics.sizeOf = WordsOf;
    if (vm.statics.stackRegisters)
        *vm.statics.stackRegisters = 176;
    LayOutHeap();
    DefineVmClasses();
    BootCode();
}

// JavaThreads, the VM's list of them, and the JNI environments inside.

namespace {

// Poisons it; the next allocation of that size gets it.
void Release(Word address, size_t bytes) {
    const Locked held(vm.lock);
    bytes = (bytes + 15) & ~size_t(15);
    memset(reinterpret_cast<void *>(address), POISON, bytes);
    released[bytes].push_back(address);
}

// The list as memory, from the description; whole at each moment.
void WriteList() {
    Word next = 0;
    for (auto at = vm.threads.rbegin(); at != vm.threads.rend(); next = (*at++)->address)
        (*at)->Java().next = next;
    __atomic_store_n(vm.statics.threadList, next, __ATOMIC_RELEASE);
}

} // namespace

ThreadInfo *NewThread(const std::string &name) {
    const Locked held(vm.lock);
    Object *object = New("java/lang/Thread", {{"name", NewChars(name)}});
    auto *thread = new ThreadInfo{name, Allocate(sizeof(JavaThread)), Allocate(sizeof(OSThread)), object};
    Set(object, "eetop", thread->address);
    memset(&As<char>(thread->address), 0, sizeof(JavaThread));
    thread->Java().osThread = thread->osThread;
    SetStates(thread, IN_VM, OS_INITIALIZED);
    EnvOf(thread);
    return thread;
}

void SetStates(ThreadInfo *thread, ThreadState state, OsState osState) {
    thread->Os().state = osState;
    thread->Java().state = state;
}

void LinkThread(ThreadInfo *thread) {
    const Locked held(vm.lock);
    thread->kernelId = gettid();
    thread->Os().kernelId = thread->kernelId;
    thread->Os().pthreadId = Word(pthread_self());
    thread->Java().threadObj = thread->object->address;
    vm.threads.insert(vm.threads.begin(), thread);
    WriteList();
}

ThreadInfo *Self() {
    const Locked held(vm.lock);
    for (ThreadInfo *thread : vm.threads)
        if (thread->kernelId == gettid())
            return thread;
    Fail("the calling thread isn't the VM's");
}

void UnlinkThread(ThreadInfo *thread) {
    const Locked held(vm.lock);
    vm.threads.erase(std::find(vm.threads.begin(), vm.threads.end(), thread));
    WriteList();
}

void FreeThread(ThreadInfo *thread) {
    Forget(Get(thread->object, "name").object);
    Forget(thread->object);
    Release(thread->address, sizeof(JavaThread));
    Release(thread->osThread, sizeof(OSThread));
    delete thread;
}

} // namespace simvm
