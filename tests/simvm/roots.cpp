#include "layout.h"
#include "scenes.h"

namespace simvm {

namespace {

std::vector<Root> stagedRoots;
constexpr Word WILD = 0x123456789ab0; // aligned, and nothing is there
ChainEnd chainEnd;

// The word refers to an object.
void Put(Word &word, char letter, const char *name) {
    stagedRoots.push_back({letter, name, New("roots/Held")});
    word = stagedRoots.back().object->address;
}

void PutAll(Word *words, int64_t count, char letter, const char *name = "") {
    for (int64_t i = 0; i < count; i++)
        Put(words[i], letter, name);
}

// Links structures in their order; the last one's link is as the chain's end.
template <class S>
Word Chain(const std::vector<S *> &all, Word S::*link) {
    const Word ENDS[] = {0, Word(all.front()), WILD};
    for (size_t i = 0; i < all.size(); i++)
        all[i]->*link = i + 1 < all.size() ? Word(all[i + 1]) : ENDS[int(chainEnd)];
    return Word(all.front());
}

HandleBlock *NewHandles(int32_t count) {
    auto *block = Make<HandleBlock>();
    block->top = count;
    block->next = 0;
    PutAll(block->handles, count, 'd', "*OOP");
    return block;
}

Word NewHandleArea() {
    std::vector<HandleChunk *> chunks;
    auto *area = Make<HandleArea>();
    for (auto &[room, handles] : {std::pair<int64_t, int>{64, 8}, {160, 20}, {64, 5}}) {
        auto *chunk = Make<HandleChunk>(room);
        auto *const first = reinterpret_cast<Word *>(chunk + 1);
        chunk->bytes = room;
        PutAll(first, handles, 'f', "chunk_oop");
        area->used = Word(first + handles);
        chunks.push_back(chunk);
    }
    area->first = Chain(chunks, &HandleChunk::next);
    area->last = Word(chunks.back());
    return Word(area);
}

MonitorChunk *NewMonitorChunk(int32_t locks) {
    auto *chunk = Make<MonitorChunk>(locks * sizeof(Monitor));
    chunk->words = 2 + 2 * locks;
    for (int32_t i = 0; i < locks; i++)
        Put(reinterpret_cast<Monitor *>(chunk + 1)[i].object, 'l', "OOP");
    return chunk;
}

PrivilegedElement *NewPrivileged() {
    auto *element = Make<PrivilegedElement>();
    Put(element->klass, 'j', "_klass");
    return element;
}

void StageThread(JavaThread &java) {
    java.activeHandles = Chain({NewHandles(32), NewHandles(16), NewHandles(0)}, &HandleBlock::next);
    java.handleArea = NewHandleArea();
    java.monitorChunks = Chain({NewMonitorChunk(3), NewMonitorChunk(1)}, &MonitorChunk::next);
    java.privilegedStack = Chain({NewPrivileged(), NewPrivileged()}, &PrivilegedElement::next);
    Put(java.pendingException, 'a', "_pending_exception");
    Put(java.vmResult, 'a', "_vm_result");
    Put(java.vmResult2, 'a', "_vm_result_2");
    Put(java.exceptionOop, 'a', "_exception_oop");
    Put(java.asyncException, 'a', "_pending_async_exception");
}

// A ring that a request for each operation goes round.
Word NewRing(int operations) {
    std::vector<VmOperation *> ring(operations);
    for (VmOperation *&operation : ring)
        operation = Make<VmOperation>();
    Chain(ring, &VmOperation::next);
    return ring.back()->next = Word(ring.front());
}

void StageVmThread() {
    auto *thread = Make<JavaThread>();
    auto *queue = Make<VmQueue>();
    thread->activeHandles = Word(NewHandles(2));
    thread->handleArea = NewHandleArea();
    Put(thread->pendingException, 'b', "_pending_exception");
    queue->queues[0] = NewRing(1);
    queue->queues[1] = NewRing(3);
    *vm.statics.vmThread = Word(thread);
    *vm.statics.vmQueue = Word(queue);
}

ObjectMonitor *NewMonitorBlock() {
    constexpr int IN_A_BLOCK = 64, USED = 7;
    auto *block = Make<ObjectMonitor>((IN_A_BLOCK - 1) * sizeof(ObjectMonitor));
    block->object = ~Word(0); // where another monitor has its object
    for (int i = 1; i < IN_A_BLOCK; i++)
        if (i % USED == 0)
            Put(block[i].object, 's', "_object");
        else
            block[i].object = 0;
    return block;
}

// What is known by itself. Its names in a dump are left out.
void StageKnown() {
    constexpr int UNREAD = 26; // a word of the universe
    PutAll(vm.statics.universe, UNREAD, 'z');
    vm.statics.universe[UNREAD] = POISON_WORD;
    PutAll(vm.statics.universe + UNREAD + 1, 6, 'z');
    PutAll(vm.statics.knownKlasses, 41, 'B');
    PutAll(vm.statics.mirrors, 9, 'C');
    PutAll(vm.statics.systemLoader, 1, 'A');
    PutAll(vm.statics.vmSymbols, 191, 't');
}

// A table whose only full bucket is the last one.
Word NewTableOf(int32_t buckets, Word entry) {
    auto *table = Make<VmTable>();
    const Word array = Allocate(8 * buckets);
    memset(&As<char>(array), 0, 8 * buckets);
    As<Word>(array + 8 * (buckets - 1)) = entry;
    table->size = buckets;
    table->buckets = array;
    return Word(table);
}

DictionaryEntry *NewDictionaryEntry() {
    auto *entry = Make<DictionaryEntry>();
    auto *domain = Make<DomainEntry>();
    Put(entry->loader, 'G', "_loader");
    Put(entry->klass, 'G', "_klass$dictionaryentry");
    Put(domain->domain, 'L', "_protection_domain");
    entry->domains = Word(domain);
    domain->next = 0;
    return entry;
}

Word NewPlaceholder() {
    auto *entry = Make<PlaceholderEntry>();
    Put(entry->loader, 'H', "_loader");
    Put(entry->klass, 'H', "_klass$placeholderentry");
    entry->next = 0;
    return Word(entry);
}

ConstraintEntry *NewConstraint(int32_t loaders) {
    auto *entry = Make<ConstraintEntry>();
    Put(entry->klass, 'I', "_klass$loaderconstraintentry");
    entry->loaderCount = loaders;
    entry->loaders = Allocate(8 * (loaders + 3));
    PutAll(&As<Word>(entry->loaders), loaders, 'I', "_loaders");
    return entry;
}

} // namespace

void StageRoots(ThreadInfo *thread, ChainEnd end) {
    const Locked held(vm.lock);
    chainEnd = end;
    StageThread(thread->Java());
    StageVmThread();
    *vm.statics.monitorBlocks = Chain({NewMonitorBlock(), NewMonitorBlock()}, &ObjectMonitor::next);
    StageKnown();
    *vm.statics.globalHandles = Chain({NewHandles(32), NewHandles(3)}, &HandleBlock::next);
    *vm.statics.dictionary =
        NewTableOf(13, Chain({NewDictionaryEntry(), NewDictionaryEntry(), NewDictionaryEntry()},
                             &DictionaryEntry::next));
    *vm.statics.placeholders = NewTableOf(5, NewPlaceholder());
    *vm.statics.loaderConstraints =
        NewTableOf(3, Chain({NewConstraint(2), NewConstraint(3)}, &ConstraintEntry::next));
}

std::vector<Root> AllRoots() {
    const Locked held(vm.lock);
    std::vector<Root> all = stagedRoots;
    for (const ThreadInfo *thread : vm.threads)
        all.push_back({'a', "_threadObj", thread->object});
    return all;
}

} // namespace simvm
