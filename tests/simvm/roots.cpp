#include "layout.h"
#include "scenes.h"

namespace simvm {

std::deque<Root> stagedRoots;

namespace {

constexpr Word WILD = 0x123456789ab0; // aligned, and nothing is there
constexpr Word CHAIN_MARK = ~Word(0); // where another monitor has its object
ChainEnd chainEnd;

void Put(Word place, char letter, const char *name) {
    stagedRoots.push_back({letter, name, New("roots/Held"), place});
    As<Word>(place) = stagedRoots.back().object->address;
}

// The member of a structure refers to one.
template <class S, class T>
void PutIn(Word structure, T S::*member, char letter, const char *name) {
    Put(structure + Place(member), letter, name);
}

// Links structures in their order; the last one's link is as the chain's end.
template <class S>
Word Chain(const std::vector<Word> &all, Word S::*link) {
    const Word ENDS[] = {0, all.front(), WILD};
    for (size_t i = 0; i < all.size(); i++)
        As<S>(all[i]).*link = i + 1 < all.size() ? all[i + 1] : ENDS[int(chainEnd)];
    return all.front();
}

// ---- handles
// -----------------------------------------------------------------------------------------------

Word NewHandles(int32_t count) {
    Word block = Allocate(sizeof(HandleBlock));
    As<HandleBlock>(block).top = count;
    for (int32_t i = 0; i < count; i++)
        Put(block + 8 * i, 'd', "*OOP");
    return block;
}

Word NewHandleArea() {
    std::vector<Word> chunks;
    Word used = 0;
    for (auto &[room, handles] : {std::pair<int64_t, int>{64, 8}, {160, 20}, {64, 5}}) {
        Word chunk = Allocate(sizeof(HandleChunk) + room);
        As<HandleChunk>(chunk).bytes = room;
        for (int i = 0; i < handles; i++)
            Put(chunk + sizeof(HandleChunk) + 8 * i, 'f', "chunk_oop");
        used = chunk + sizeof(HandleChunk) + 8 * handles;
        chunks.push_back(chunk);
    }
    Word area = Allocate(sizeof(HandleArea));
    As<HandleArea>(area).first = Chain(chunks, &HandleChunk::next);
    As<HandleArea>(area).last = chunks.back();
    As<HandleArea>(area).used = used;
    return area;
}

Word NewMonitorChunk(int32_t locks) {
    Word chunk = Allocate(sizeof(MonitorChunk) + locks * sizeof(Monitor));
    As<MonitorChunk>(chunk).words = 2 + 2 * locks;
    for (int32_t i = 0; i < locks; i++) {
        Word lock = chunk + sizeof(MonitorChunk) + i * sizeof(Monitor);
        As<Monitor>(lock).displacedHeader = i % 2 ? UNMARKED : 0;
        PutIn(lock, &Monitor::object, 'l', "OOP");
    }
    return chunk;
}

Word NewPrivileged() {
    Word element = Allocate(sizeof(PrivilegedElement));
    PutIn(element, &PrivilegedElement::klass, 'j', "_klass");
    return element;
}

void StageThread(ThreadInfo *thread) {
    const Word at = thread->address;
    As<JavaThread>(at).activeHandles =
        Chain({NewHandles(32), NewHandles(16), NewHandles(0)}, &HandleBlock::next);
    As<JavaThread>(at).handleArea = NewHandleArea();
    As<JavaThread>(at).monitorChunks = Chain({NewMonitorChunk(3), NewMonitorChunk(1)}, &MonitorChunk::next);
    As<JavaThread>(at).privilegedStack = Chain({NewPrivileged(), NewPrivileged()}, &PrivilegedElement::next);
    for (auto &[member, name] :
         {std::pair<Word JavaThread::*, const char *>{&JavaThread::pendingException, "_pending_exception"},
          {&JavaThread::vmResult, "_vm_result"},
          {&JavaThread::vmResult2, "_vm_result_2"},
          {&JavaThread::exceptionOop, "_exception_oop"},
          {&JavaThread::asyncException, "_pending_async_exception"}})
        PutIn(at, member, 'a', name);
}

// ---- the VM's own
// ------------------------------------------------------------------------------------------

// A ring that a request for each operation goes round.
Word NewRing(int operations) {
    std::vector<Word> ring;
    for (int i = 0; i < operations; i++)
        ring.push_back(Allocate(sizeof(VmOperation)));
    const Word first = Chain(ring, &VmOperation::next);
    return As<VmOperation>(ring.back()).next = first;
}

void StageVmThread() {
    Word thread = Allocate(sizeof(JavaThread)), queue = Allocate(sizeof(VmQueue));
    As<HandleBlock>(As<JavaThread>(thread).activeHandles = NewHandles(2)).next = 0;
    As<JavaThread>(thread).handleArea = NewHandleArea();
    PutIn(thread, &JavaThread::pendingException, 'b', "_pending_exception");
    As<VmQueue>(queue).queues[0] = NewRing(1);
    As<VmQueue>(queue).queues[1] = NewRing(3);
    *vm.statics.vmThread = thread;
    *vm.statics.vmQueue = queue;
}

Word NewMonitorBlock() {
    constexpr int IN_A_BLOCK = 64, USED = 7;
    Word block = Allocate(IN_A_BLOCK * sizeof(ObjectMonitor));
    As<ObjectMonitor>(block).object = CHAIN_MARK;
    for (int i = 1; i < IN_A_BLOCK; i++) {
        Word monitor = block + i * sizeof(ObjectMonitor);
        As<ObjectMonitor>(monitor).object = 0;
        if (i % USED == 0)
            PutIn(monitor, &ObjectMonitor::object, 's', "_object");
    }
    return block;
}

// What is known by itself: so many words. Their names in a dump are left out.
void PutKnown(Word *words, char letter, int count) {
    for (int i = 0; i < count; i++)
        Put(reinterpret_cast<Word>(words + i), letter, "");
}

void StageKnown() {
    constexpr int UNREAD = 26; // a word of the universe
    PutKnown(vm.statics.universe, 'z', UNREAD);
    vm.statics.universe[UNREAD] = POISON_WORD;
    PutKnown(vm.statics.universe + UNREAD + 1, 'z', 6);
    PutKnown(vm.statics.knownKlasses, 'B', 41);
    PutKnown(vm.statics.mirrors, 'C', 9);
    PutKnown(vm.statics.systemLoader, 'A', 1);
    PutKnown(vm.statics.vmSymbols, 't', 191);
}

// ---- dictionaries
// ------------------------------------------------------------------------------------------

// A table whose only full bucket is the last one.
Word NewTableOf(int32_t buckets, Word entry) {
    Word table = Allocate(sizeof(VmTable)), array = Allocate(8 * buckets);
    memset(&As<char>(array), 0, 8 * buckets);
    As<Word>(array + 8 * (buckets - 1)) = entry;
    As<VmTable>(table).size = buckets;
    As<VmTable>(table).buckets = array;
    return table;
}

Word NewDictionaryEntry() {
    Word entry = Allocate(sizeof(DictionaryEntry)), domain = Allocate(sizeof(DomainEntry));
    PutIn(entry, &DictionaryEntry::loader, 'G', "_loader");
    PutIn(entry, &DictionaryEntry::klass, 'G', "_klass$dictionaryentry");
    As<DictionaryEntry>(entry).domains = domain;
    As<DomainEntry>(domain).next = 0;
    PutIn(domain, &DomainEntry::domain, 'L', "_protection_domain");
    return entry;
}

Word NewPlaceholder() {
    Word entry = Allocate(sizeof(PlaceholderEntry));
    As<PlaceholderEntry>(entry).next = 0;
    PutIn(entry, &PlaceholderEntry::loader, 'H', "_loader");
    PutIn(entry, &PlaceholderEntry::klass, 'H', "_klass$placeholderentry");
    return entry;
}

Word NewConstraint(int32_t loaders) {
    Word entry = Allocate(sizeof(ConstraintEntry)), array = Allocate(8 * (loaders + 3));
    PutIn(entry, &ConstraintEntry::klass, 'I', "_klass$loaderconstraintentry");
    As<ConstraintEntry>(entry).loaderCount = loaders;
    As<ConstraintEntry>(entry).loaders = array;
    for (int32_t i = 0; i < loaders; i++)
        Put(array + 8 * i, 'I', "_loaders");
    return entry;
}

void StageDictionaries() {
    *vm.statics.dictionary =
        NewTableOf(13, Chain({NewDictionaryEntry(), NewDictionaryEntry(), NewDictionaryEntry()},
                             &DictionaryEntry::next));
    *vm.statics.placeholders = NewTableOf(5, NewPlaceholder());
    *vm.statics.loaderConstraints =
        NewTableOf(3, Chain({NewConstraint(2), NewConstraint(3)}, &ConstraintEntry::next));
}

} // namespace

void StageRoots(ThreadInfo *thread, ChainEnd end) {
    const Locked held(vm.lock);
    chainEnd = end;
    StageThread(thread);
    StageVmThread();
    *vm.statics.monitorBlocks = Chain({NewMonitorBlock(), NewMonitorBlock()}, &ObjectMonitorBlock::next);
    StageKnown();
    *vm.statics.globalHandles = Chain({NewHandles(32), NewHandles(3)}, &HandleBlock::next);
    StageDictionaries();
}

void WriteRoots() {
    for (const Root &root : stagedRoots)
        As<Word>(root.place) = root.object->address;
}

std::vector<Root> AllRoots() {
    const Locked held(vm.lock);
    std::vector<Root> all(stagedRoots.begin(), stagedRoots.end());
    for (const ThreadInfo *thread : vm.threads)
        all.push_back({'a', "_threadObj", thread->object, 0});
    return all;
}

} // namespace simvm
