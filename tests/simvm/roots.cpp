#include "layout.h"
#include "scenes.h"

namespace simvm {

std::deque<Root> stagedRoots;

namespace {

constexpr Word WILD = 0x123456789ab0; // aligned, and nothing is there
constexpr Word CHAIN_MARK = ~Word(0); // where another monitor has its object
ChainEnd chainEnd;

void Put(Word place, char letter, const std::string &name, Object *object, Word oop = 0) {
    stagedRoots.push_back({letter, name, object, oop, place});
    As<Word>(place) = stagedRoots.back().Address();
}
void Put(Word place, char letter, const std::string &name, Word oop) {
    Put(place, letter, name, nullptr, oop);
}

Object *Fresh() {
    return New("roots/Held");
}

// The member of a structure refers to it.
template <class S, class T>
void PutIn(Word structure, T S::*member, char letter, const char *name, Object *object, Word oop = 0) {
    Put(structure + Place(member), letter, name, object, oop);
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
        Put(block + 8 * i, 'd', "*OOP", Fresh());
    return block;
}

Word NewHandleArea() {
    std::vector<Word> chunks;
    Word used = 0;
    for (auto &[room, handles] : {std::pair<int64_t, int>{64, 8}, {160, 20}, {64, 5}}) {
        Word chunk = Allocate(sizeof(HandleChunk) + room);
        As<HandleChunk>(chunk).bytes = room;
        for (int i = 0; i < handles; i++)
            Put(chunk + sizeof(HandleChunk) + 8 * i, 'f', "chunk_oop", Fresh());
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
        PutIn(lock, &Monitor::object, 'l', "OOP", Fresh());
    }
    return chunk;
}

Word NewPrivileged(Word klass) {
    Word element = Allocate(sizeof(PrivilegedElement));
    PutIn(element, &PrivilegedElement::klass, 'j', "_klass", nullptr, klass);
    As<PrivilegedElement>(element).context = Fresh()->address;
    return element;
}

void StageThread(ThreadInfo *thread) {
    const Word at = thread->address;
    At(at, &JavaThread::activeHandles) =
        Chain({NewHandles(32), NewHandles(16), NewHandles(0)}, &HandleBlock::next);
    At(at, &JavaThread::handleArea) = NewHandleArea();
    At(at, &JavaThread::monitorChunks) = Chain({NewMonitorChunk(3), NewMonitorChunk(1)}, &MonitorChunk::next);
    At(at, &JavaThread::privilegedStack) = Chain({NewPrivileged(FindClass("java/lang/Thread")->klass),
                                                  NewPrivileged(FindClass("java/lang/String")->klass)},
                                                 &PrivilegedElement::next);
    for (auto &[member, name] :
         {std::pair<Word JavaThread::*, const char *>{&JavaThread::pendingException, "_pending_exception"},
          {&JavaThread::vmResult, "_vm_result"},
          {&JavaThread::vmResult2, "_vm_result_2"},
          {&JavaThread::exceptionOop, "_exception_oop"},
          {&JavaThread::asyncException, "_pending_async_exception"}})
        PutIn(at, member, 'a', name, Fresh());
}

// ---- the VM's own
// ------------------------------------------------------------------------------------------

// A ring that a request for each operation goes round; CYCLE: one that doesn't lead back to its head.
Word NewRing(int operations) {
    std::vector<Word> ring;
    for (int i = 0; i < operations; i++)
        ring.push_back(Allocate(sizeof(VmOperation)));
    Chain(ring, &VmOperation::next);
    if (chainEnd != ChainEnd::WILD)
        As<VmOperation>(ring.back()).next = chainEnd == ChainEnd::NONE ? ring.front() : ring.back();
    return ring.front();
}

void StageVmThread() {
    Word thread = Allocate(sizeof(JavaThread)), queue = Allocate(sizeof(VmQueue));
    As<HandleBlock>(At(thread, &JavaThread::activeHandles) = NewHandles(2)).next = 0;
    At(thread, &JavaThread::handleArea) = NewHandleArea();
    PutIn(thread, &JavaThread::pendingException, 'b', "_pending_exception", Fresh());
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
            PutIn(monitor, &ObjectMonitor::object, 's', "_object", Fresh());
    }
    return block;
}

// A klass by its name, or by its kind's letter in a dump.
Word KlassOf(const std::string &name) {
    for (auto &[klass, letter] : KindLetters())
        if (name.size() == 1 && letter == name[0])
            return klass;
    return name[0] == '[' ? ArrayClass(name)->klass : DefineClass(name)->klass;
}

// Words of known things, one after the other: the root's name, between _ and what `ends` has, and a klass,
// with
// + an object or an empty array of it, with @ a method. A class without package is of java/lang. - is a word
// that nobody reads.
void PutAll(Word *words, char letter, const char *text, const char *ends = "") {
    std::istringstream in(text);
    auto at = reinterpret_cast<Word>(words);
    for (std::string name, what; in >> name; at += 8) {
        if (name == "-") {
            As<Word>(at) = POISON_WORD;
            continue;
        }
        in >> what;
        const char sign = strchr("+@", what[0]) ? what[0] : 0;
        std::string of = what.substr(sign != 0);
        if (of.size() > 1 && of.substr(0, of.find('.')).find('/') == of.npos && of[0] != '[')
            of = "java/lang/" + of;
        const size_t dot = of.find('.'), bracket = of.find('(');
        name = name[0] == '#' ? name : "_" + name + ends;
        if (sign == '+')
            Put(at, letter, name, of[0] == '[' ? NewArray(of, {}) : New(of));
        else if (sign == '@')
            Put(at, letter, name,
                DefineMethod(of.substr(0, dot), of.substr(dot + 1, bracket - dot - 1), of.substr(bracket), {})
                    ->oop);
        else
            Put(at, letter, name, KlassOf(of));
    }
}

const char UNIVERSE[] = R"(
bool_arr_klass [Z byte_arr_klass [B char_arr_klass [C int_arr_klass [I short_arr_klass [S long_arr_klass [J
single_arr_klass [F double_arr_klass [D symbol_klass 1 method_klass 2 klass_klass A arr_klass_klass C
obj_arr_klass_klass D type_arr_klass_klass E instance_klass_klass B constant_pool_klass 3
constant_pool_cache_klass 4 compiledicholder_klass * system_obj_array_klass [Ljava/lang/Object;
main_thread_group +ThreadGroup system_thread_group +ThreadGroup the_empty_short_array +[S the_empty_int_array +[I
the_empty_system_obj_array +[Ljava/lang/Object; the_empty_class_klass_array +[Ljava/lang/Class;
finalizer_register_method @java/lang/ref/Finalizer.register(Ljava/lang/Object;)V -
loader_addclass_method @ClassLoader.addClass(Ljava/lang/Class;)V
out_of_memory_error_instance +OutOfMemoryError null_ptr_exception_instance +NullPointerException
arithmetic_exception_instance +ArithmeticException vm_exception +VirtualMachineError
reflect_invoke_method @java/lang/reflect/Method.invoke(Ljava/lang/Object;)V
)";
const char KNOWN_CLASSES[] = R"(
object Object string String class Class cloneable Cloneable classloader ClassLoader serializable java/io/Serializable
throwable Throwable error Error threaddeath ThreadDeath exception Exception runtime_exception RuntimeException
classnotfoundexception ClassNotFoundException noclassdeffounderror NoClassDefFoundError
classcastexception ClassCastException arraystoreexception ArrayStoreException outofmemoryerror OutOfMemoryError
stackoverflowerror StackOverflowError protectiondomain java/security/ProtectionDomain
accesscontrolcontext java/security/AccessControlContext reference java/lang/ref/Reference
soft_reference java/lang/ref/SoftReference weak_reference java/lang/ref/WeakReference
final_reference java/lang/ref/FinalReference phantom_reference java/lang/ref/PhantomReference
finalizer java/lang/ref/Finalizer thread Thread threadgroup ThreadGroup properties java/util/Properties
reflect_method java/lang/reflect/Method reflect_constructor java/lang/reflect/Constructor stringbuffer StringBuffer
vector java/util/Vector hashtable java/util/Hashtable boolean Boolean char Character float Float double Double byte Byte
short Short int Integer long Long
)";
const char MIRRORS[] = "int +Class float +Class double +Class byte +Class bool +Class char +Class long "
                       "+Class short +Class void +Class";

void StageKnown() {
    PutAll(vm.statics.universe, 'z', UNIVERSE);
    PutAll(vm.statics.knownKlasses, 'B', KNOWN_CLASSES, "_klass");
    PutAll(vm.statics.mirrors, 'C', MIRRORS, "_mirror");
    PutAll(vm.statics.systemLoader, 'A', "#_java_system_loader +ClassLoader");
    for (int i = 0; i < 191; i++)
        Put(reinterpret_cast<Word>(vm.statics.vmSymbols + i), 't', "*SYMBOL",
            Intern("known" + std::to_string(i)));
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

Word NewDictionaryEntry(const char *klass) {
    Word entry = Allocate(sizeof(DictionaryEntry)), domain = Allocate(sizeof(DomainEntry));
    PutIn(entry, &DictionaryEntry::loader, 'G', "_loader", New("java/lang/ClassLoader"));
    PutIn(entry, &DictionaryEntry::klass, 'G', "_klass$dictionaryentry", nullptr, KlassOf(klass));
    As<DictionaryEntry>(entry).domains = domain;
    As<DomainEntry>(domain).next = 0;
    PutIn(domain, &DomainEntry::domain, 'L', "_protection_domain", Fresh());
    return entry;
}

Word NewPlaceholder() {
    Word entry = Allocate(sizeof(PlaceholderEntry));
    As<PlaceholderEntry>(entry).next = 0;
    PutIn(entry, &PlaceholderEntry::loader, 'H', "_loader", New("java/lang/ClassLoader"));
    PutIn(entry, &PlaceholderEntry::klass, 'H', "_klass$placeholderentry", nullptr, Intern("yet/ToCome"));
    return entry;
}

Word NewConstraint(int32_t loaders) {
    Word entry = Allocate(sizeof(ConstraintEntry)), array = Allocate(8 * (loaders + 3));
    PutIn(entry, &ConstraintEntry::klass, 'I', "_klass$loaderconstraintentry", nullptr,
          KlassOf("roots/Held"));
    As<ConstraintEntry>(entry).loaderCount = loaders;
    As<ConstraintEntry>(entry).loaders = array;
    for (int32_t i = 0; i < loaders; i++)
        Put(array + 8 * i, 'I', "_loaders", New("java/lang/ClassLoader"));
    return entry;
}

void StageDictionaries() {
    std::vector<Word> entries, constraints = {NewConstraint(2), NewConstraint(3)};
    for (const char *klass : {"roots/Held", "java/lang/Thread", "java/lang/String"})
        entries.push_back(NewDictionaryEntry(klass));
    *vm.statics.dictionary = NewTableOf(13, Chain(entries, &DictionaryEntry::next));
    *vm.statics.placeholders = NewTableOf(5, NewPlaceholder());
    *vm.statics.loaderConstraints = NewTableOf(3, Chain(constraints, &ConstraintEntry::next));
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
        As<Word>(root.place) = root.Address();
}

std::vector<Root> AllRoots() {
    const Locked held(vm.lock);
    std::vector<Root> all(stagedRoots.begin(), stagedRoots.end());
    for (const ThreadInfo *thread : vm.threads)
        all.push_back({'a', "_threadObj", thread->object, 0, 0});
    return all;
}

} // namespace simvm
