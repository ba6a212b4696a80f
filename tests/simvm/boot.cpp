#include "simvm.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>
#include <random>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

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
    if (at == MAP_FAILED)
        Fail("out of memory");
    if (poison)
        memset(at, POISON, bytes);
    return reinterpret_cast<Word>(at);
}

Word Allocate(size_t bytes) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
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

void Release(Word address, size_t bytes) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    bytes = (bytes + 15) & ~size_t(15);
    memset(reinterpret_cast<void *>(address), POISON, bytes);
    released[bytes].push_back(address);
}

// Which members lie elsewhere in which build, and the list of places by the agent's indices.

namespace {

// A member of which the agent has the place in its table.
struct Listed {
    int32_t index; // in that table
    int16_t *shifts;
    size_t place;              // in layout.h
    int32_t bytes, unit, base; // unit of the entry: 1 byte, 8 words; what it is counted from

    template <class S, class T>
    Listed(int32_t at, T S::*member, int32_t in = 1, int32_t from = 0)
        : index(at), shifts(placeShift<S>), place(PlaceInLayout(member)), bytes(sizeof(T)), unit(in),
          base(from) {}
};
using Row = Listed;
constexpr int32_t PART = offsetof(Klass, vtable);

template <class... ROWS>
std::vector<Listed> List(const ROWS &...rows) {
    return {rows...};
}

const std::vector<Listed> &AllListed() {
    static const std::vector<Listed> all = List(
        Row(2, &JavaThread::osThread), Row(4, &JavaThread::threadObj), Row(5, &JavaThread::anchorSp),
        Row(6, &JavaThread::anchorFp), Row(23, &JavaThread::anchorPc), Row(8, &JavaThread::next),
        Row(12, &JavaThread::state), Row(28, &JavaThread::safepointState), Row(74, &JavaThread::jniEnv, 8),
        Row(11, &OSThread::kernelId), Row(7, &CallWrapper::anchorSp), Row(22, &CallWrapper::anchorFp),
        Row(14, &Method::accessFlags), Row(17, &ConstMethod::nameIndex), Row(24, &ConstMethod::codeSize),
        Row(13, &KlassVtable::isInstance), Row(59, &KlassVtable::isObjArray),
        Row(58, &Klass::oopMapCache, 1, 16), Row(9, &Klass::fields, 1, PART),
        Row(10, &Klass::constants, 1, PART), Row(18, &Klass::name, 1, PART),
        Row(31, &Klass::sourceFile, 1, PART), Row(15, &CodeHeap::mapLow), Row(19, &CodeHeap::log2SegmentSize),
        Row(26, &Blob::pcDescCache), Row(27, &Blob::scopesOffset), Row(33, &Blob::linkOffset),
        Row(57, &Blob::oopMaps), Row(35, &BlobVtable::isNmethod), Row(36, &BlobVtable::isI2C),
        Row(37, &BlobVtable::isC2I), Row(38, &BlobVtable::isRuntimeStub), Row(29, &CodeCopy::size),
        Row(30, &CodeCopy::realStart), Row(44, &Space::bottom), Row(45, &Space::end), Row(46, &Space::top),
        Row(47, &CollectedHeap::young), Row(48, &CollectedHeap::old), Row(49, &CollectedHeap::perm),
        Row(51, &YoungGeneration::eden), Row(52, &YoungGeneration::from), Row(53, &YoungGeneration::to),
        Row(67, &KlassVtable::isSymbol, 8), Row(68, &KlassVtable::isKlass, 8),
        Row(69, &KlassVtable::isMethod, 8), Row(70, &KlassVtable::isConstantPool, 8),
        Row(71, &KlassVtable::isConstantPoolCache, 8), Row(73, &KlassVtable::isCompiledICHolder, 8),
        Row(171, &KlassVtable::isConstMethod, 8), Row(190, &KlassVtable::isTypeArrayKlass, 8),
        Row(191, &KlassVtable::isArrayKlass, 8), Row(192, &KlassVtable::isObjArrayKlass, 8),
        Row(193, &KlassVtable::isMethodData, 8), Row(194, &KlassVtable::isInstanceKlass, 8),
        Row(76, &KlassVtable::oopSize, 8));
    return all;
}

// What follows a word that this build lacks lies a word lower.
template <class S>
void Lacks(Word S::*member) {
    for (size_t place = Place(member); place < std::size(placeShift<S>); place++)
        placeShift<S>[place] -= 8;
}

} // namespace

void ArrangePlaces() {
    int build = atoi(vm.options.version.substr(vm.options.version.find('_') + 1).c_str());
    if (build < 8) {
        Lacks(&Klass::since08);
        Lacks(&YoungGeneration::since08);
    }
    if (build < 10)
        Lacks(&KlassVtable::since10);
    if (!vm.options.shuffle)
        return;
    std::mt19937 random(vm.options.shuffle);
    std::map<std::pair<int16_t *, int32_t>, std::vector<size_t>> alike; // places by structure and size
    for (const Listed &row : AllListed())
        alike[{row.shifts, row.bytes}].push_back(row.place);
    for (auto &[kind, places] : alike) {
        std::vector<size_t> others = places;
        std::shuffle(others.begin(), others.end(), random);
        for (size_t i = 0; i < places.size(); i++)
            kind.first[places[i]] += int(others[i]) - int(places[i]);
    }
}

void TellPlaces(uint32_t out[200]) {
    for (const Listed &row : AllListed())
        out[row.index] = (row.place + row.shifts[row.place] - row.base) / row.unit;
}

// Boot: statics, virtual tables, and the order in which the rest is laid out.

Vm vm;
void ArrangePlaces();   // places.cpp
void LayOutHeap();      // heap_layout.cpp
void DefineVmClasses(); // classes.cpp
void BootCode();        // code.cpp

namespace {

using Predicate = Word KlassVtable::*;
struct OwnPredicate {
    VtableKind kind, of; // whose function it inherits, or its own
    Predicate predicate;
};

// Kinds of objects, and each kind of klass for them: both the array's predicates and its own.
std::vector<OwnPredicate> OwnPredicates() {
    using V = KlassVtable;
    std::vector<OwnPredicate> all = {{VT_INSTANCE_REF, VT_INSTANCE, &V::isInstance},
                                     {VT_TYPE_ARRAY, VT_ARRAY, &V::isArray},
                                     {VT_OBJ_ARRAY, VT_ARRAY, &V::isArray},
                                     {VT_OBJ_ARRAY_KLASS_KLASS, VT_ARRAY_KLASS_KLASS, &V::isArrayKlass},
                                     {VT_TYPE_ARRAY_KLASS_KLASS, VT_ARRAY_KLASS_KLASS, &V::isArrayKlass}};
    auto own = [&](VtableKind kind, Predicate predicate) { all.push_back({kind, kind, predicate}); };
    own(VT_INSTANCE, &V::isInstance), own(VT_INSTANCE_REF, &V::isInstanceRef), own(VT_ARRAY, &V::isArray);
    own(VT_TYPE_ARRAY, &V::isTypeArray), own(VT_OBJ_ARRAY, &V::isObjArray), own(VT_SYMBOL, &V::isSymbol);
    own(VT_METHOD, &V::isMethod), own(VT_CONST_METHOD, &V::isConstMethod), own(VT_POOL, &V::isConstantPool);
    own(VT_METHOD_DATA, &V::isMethodData), own(VT_POOL_CACHE, &V::isConstantPoolCache);
    own(VT_IC_HOLDER, &V::isCompiledICHolder), own(VT_INSTANCE_KLASS_KLASS, &V::isInstanceKlass);
    own(VT_ARRAY_KLASS_KLASS, &V::isArrayKlass), own(VT_OBJ_ARRAY_KLASS_KLASS, &V::isObjArrayKlass);
    own(VT_TYPE_ARRAY_KLASS_KLASS, &V::isTypeArrayKlass);
    for (VtableKind kind : {VT_KLASS_KLASS, VT_INSTANCE_KLASS_KLASS, VT_ARRAY_KLASS_KLASS,
                            VT_OBJ_ARRAY_KLASS_KLASS, VT_TYPE_ARRAY_KLASS_KLASS})
        all.push_back({kind, VT_KLASS_KLASS, &V::isKlass});
    return all;
}
const std::pair<VtableKind, Word BlobVtable::*> BLOB_PREDICATES[] = {
    {VT_BUFFER_BLOB, &BlobVtable::isBuffer},
    {VT_NMETHOD, &BlobVtable::isNmethod},
    {VT_RUNTIME_STUB, &BlobVtable::isRuntimeStub},
    {VT_I2C, &BlobVtable::isI2C},
    {VT_C2I, &BlobVtable::isC2I},
    {VT_OSR, &BlobVtable::isOsrAdapter}};

Word HeadOf(VtableKind kind) {
    return reinterpret_cast<Word>(vm.statics.vtables[kind]) + VTABLE_HEAD;
}

void FillVtables() {
    for (int kind = 0; kind < VTABLE_COUNT; kind++) {
        Word *table = vm.statics.vtables[kind];
        Word head = HeadOf(VtableKind(kind));
        table[0] = 0;
        for (int word = 1; word < VTABLE_WORDS; word++)
            table[word] = vm.statics.unasked;
        if (kind >= VT_BUFFER_BLOB) {
            for (size_t at = 0; at < sizeof(BlobVtable); at += 8)
                As<Word>(head + at) = vm.statics.isOther;
            continue;
        }
        for (size_t at = offsetof(KlassVtable, isInstance); at < sizeof(KlassVtable); at += 8)
            As<Word>(head + at + placeShift<KlassVtable>[at]) = vm.statics.isOther;
        At(head, &KlassVtable::oopSize) = vm.statics.oopSize;
    }
    for (const OwnPredicate &own : OwnPredicates())
        At(HeadOf(own.kind), own.predicate) = vm.statics.isOwn[own.of];
    for (auto &[kind, predicate] : BLOB_PREDICATES)
        At(HeadOf(kind), predicate) = vm.statics.isOwn[kind];
}

} // namespace

void Boot(const Options &options) {
    vm.options = options;
    if (options.library.empty())
        vm.options.library =
            std::string(SIMVM_FOLDER) + (options.isClient ? "/client" : "/server") + "/libjvm.so";
    void *library = dlopen(vm.options.library.c_str(), RTLD_NOW);
    if (!library)
        Fail(dlerror());
    reinterpret_cast<void (*)(Statics *)>(dlsym(library, "simvm_statics"))(&vm.statics);
    ArrangePlaces();
    FillVtables();
    *vm.statics.sizeOf = WordsOf;
    for (Word *none :
         {vm.statics.threadList, vm.statics.vmThread, vm.statics.vmQueue, vm.statics.monitorBlocks,
          vm.statics.systemLoader, vm.statics.globalHandles, vm.statics.dictionary, vm.statics.placeholders,
          vm.statics.loaderConstraints, vm.statics.systemLoaderLock})
        *none = 0;
    if (vm.statics.stackRegisters)
        *vm.statics.stackRegisters = 176;
    LayOutHeap();
    DefineVmClasses();
    BootCode();
}

// JavaThreads, the VM's list of them, and the JNI environments inside.

namespace {

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
    thread->address = Allocate(sizeof(JavaThread));
    Set(thread->object, "eetop", thread->address);
    thread->osThread = Allocate(sizeof(OSThread));
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
    Release(thread->address, sizeof(JavaThread));
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
