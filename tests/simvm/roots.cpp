#include "layout.h"
#include "scenes.h"
#include "simvm.h"

#include <sstream>

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
    return NewObject("roots/Held");
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
        Put(lock + offsetof(Monitor, object), 'l', "OOP", Fresh());
    }
    return chunk;
}

Word NewPrivileged(Word klass) {
    Word element = Allocate(sizeof(PrivilegedElement));
    Put(element + offsetof(PrivilegedElement, klass), 'j', "_klass", klass);
    As<PrivilegedElement>(element).context = Fresh()->address;
    return element;
}

void StageThread(ThreadInfo *thread) {
    Word own = thread->handles, at = thread->address;
    As<HandleBlock>(own).next = Chain({NewHandles(32), NewHandles(16), NewHandles(0)}, &HandleBlock::next);
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
        Put(at + Place(member), 'a', name, Fresh());
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
    At(thread, &JavaThread::activeHandles) = NewHandles(2);
    As<HandleBlock>(At(thread, &JavaThread::activeHandles)).next = 0;
    At(thread, &JavaThread::handleArea) = NewHandleArea();
    Put(thread + Place(&JavaThread::pendingException), 'b', "_pending_exception", Fresh());
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
            Put(monitor + offsetof(ObjectMonitor, object), 's', "_object", Fresh());
    }
    return block;
}

// A klass by its name, or by its kind's letter in a dump.
Word KlassOf(const std::string &name) {
    for (auto &[klass, letter] : KindLetters())
        if (name.size() == 1 && letter == name[0])
            return klass;
    return name[0] == '[' ? ArrayClass(name)->klass : DefineClass(name, "java/lang/Object")->klass;
}

// Words of known things, one after the other: a name, and a klass, with + an object or an empty array of it,
// with @ a method. The name - is a word that nobody reads.
void PutAll(Word at, char letter, const char *text) {
    std::istringstream words(text);
    for (std::string name, what; words >> name; at += 8) {
        if (name == "-") {
            As<Word>(at) = POISON_WORD;
            continue;
        }
        words >> what;
        const std::string of = what.substr(1);
        const size_t dot = of.find('.'), bracket = of.find('(');
        if (what[0] == '+')
            Put(at, letter, name, of[0] == '[' ? NewArray(of, 0) : NewObject(of));
        else if (what[0] == '@')
            Put(at, letter, name,
                DefineMethod(of.substr(0, dot), of.substr(dot + 1, bracket - dot - 1), of.substr(bracket), {})
                    ->oop);
        else
            Put(at, letter, name, KlassOf(what));
    }
}

const char UNIVERSE[] = R"(
_bool_arr_klass [Z _byte_arr_klass [B _char_arr_klass [C _int_arr_klass [I _short_arr_klass [S _long_arr_klass [J
_single_arr_klass [F _double_arr_klass [D _symbol_klass 1 _method_klass 2 _klass_klass A _arr_klass_klass C
_obj_arr_klass_klass D _type_arr_klass_klass E _instance_klass_klass B _constant_pool_klass 3
_constant_pool_cache_klass 4 _compiledicholder_klass * _system_obj_array_klass [Ljava/lang/Object;
_main_thread_group +java/lang/ThreadGroup _system_thread_group +java/lang/ThreadGroup
_the_empty_short_array +[S _the_empty_int_array +[I _the_empty_system_obj_array +[Ljava/lang/Object;
_the_empty_class_klass_array +[Ljava/lang/Class;
_finalizer_register_method @java/lang/ref/Finalizer.register(Ljava/lang/Object;)V -
_loader_addclass_method @java/lang/ClassLoader.addClass(Ljava/lang/Class;)V
_out_of_memory_error_instance +java/lang/OutOfMemoryError
_null_ptr_exception_instance +java/lang/NullPointerException
_arithmetic_exception_instance +java/lang/ArithmeticException _vm_exception +java/lang/VirtualMachineError
_reflect_invoke_method @java/lang/reflect/Method.invoke(Ljava/lang/Object;)V
)";
const char KNOWN_CLASSES[] = R"(
_object_klass java/lang/Object _string_klass java/lang/String _class_klass java/lang/Class
_cloneable_klass java/lang/Cloneable _classloader_klass java/lang/ClassLoader
_serializable_klass java/io/Serializable _throwable_klass java/lang/Throwable _error_klass java/lang/Error
_threaddeath_klass java/lang/ThreadDeath _exception_klass java/lang/Exception
_runtime_exception_klass java/lang/RuntimeException
_classnotfoundexception_klass java/lang/ClassNotFoundException
_noclassdeffounderror_klass java/lang/NoClassDefFoundError
_classcastexception_klass java/lang/ClassCastException _arraystoreexception_klass java/lang/ArrayStoreException
_outofmemoryerror_klass java/lang/OutOfMemoryError _stackoverflowerror_klass java/lang/StackOverflowError
_protectiondomain_klass java/security/ProtectionDomain
_accesscontrolcontext_klass java/security/AccessControlContext _reference_klass java/lang/ref/Reference
_soft_reference_klass java/lang/ref/SoftReference _weak_reference_klass java/lang/ref/WeakReference
_final_reference_klass java/lang/ref/FinalReference _phantom_reference_klass java/lang/ref/PhantomReference
_finalizer_klass java/lang/ref/Finalizer _thread_klass java/lang/Thread _threadgroup_klass java/lang/ThreadGroup
_properties_klass java/util/Properties _reflect_method_klass java/lang/reflect/Method
_reflect_constructor_klass java/lang/reflect/Constructor _stringbuffer_klass java/lang/StringBuffer
_vector_klass java/util/Vector _hashtable_klass java/util/Hashtable _boolean_klass java/lang/Boolean
_char_klass java/lang/Character _float_klass java/lang/Float _double_klass java/lang/Double
_byte_klass java/lang/Byte _short_klass java/lang/Short _int_klass java/lang/Integer _long_klass java/lang/Long
)";
const char MIRRORS[] = R"(
_int_mirror +java/lang/Class _float_mirror +java/lang/Class _double_mirror +java/lang/Class
_byte_mirror +java/lang/Class _bool_mirror +java/lang/Class _char_mirror +java/lang/Class
_long_mirror +java/lang/Class _short_mirror +java/lang/Class _void_mirror +java/lang/Class
)";

void StageKnown() {
    const auto at = [](Word *place) { return reinterpret_cast<Word>(place); };
    PutAll(at(vm.statics.universe), 'z', UNIVERSE);
    PutAll(at(vm.statics.knownKlasses), 'B', KNOWN_CLASSES);
    PutAll(at(vm.statics.mirrors), 'C', MIRRORS);
    PutAll(at(vm.statics.systemLoader), 'A', "#_java_system_loader +java/lang/ClassLoader");
    for (int i = 0; i < 191; i++)
        Put(at(vm.statics.vmSymbols + i), 't', "*SYMBOL", Intern("known" + std::to_string(i)));
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
    Put(entry + offsetof(DictionaryEntry, loader), 'G', "_loader", NewObject("java/lang/ClassLoader"));
    Put(entry + offsetof(DictionaryEntry, klass), 'G', "_klass$dictionaryentry", KlassOf(klass));
    As<DictionaryEntry>(entry).domains = domain;
    As<DomainEntry>(domain).next = 0;
    Put(domain + offsetof(DomainEntry, domain), 'L', "_protection_domain", Fresh());
    return entry;
}

Word NewPlaceholder() {
    Word entry = Allocate(sizeof(PlaceholderEntry));
    As<PlaceholderEntry>(entry).next = 0;
    Put(entry + offsetof(PlaceholderEntry, loader), 'H', "_loader", NewObject("java/lang/ClassLoader"));
    Put(entry + offsetof(PlaceholderEntry, klass), 'H', "_klass$placeholderentry", Intern("yet/ToCome"));
    return entry;
}

Word NewConstraint(int32_t loaders) {
    Word entry = Allocate(sizeof(ConstraintEntry)), array = Allocate(8 * (loaders + 3));
    Put(entry + offsetof(ConstraintEntry, klass), 'I', "_klass$loaderconstraintentry", KlassOf("roots/Held"));
    As<ConstraintEntry>(entry).loaderCount = loaders;
    As<ConstraintEntry>(entry).loaders = array;
    for (int32_t i = 0; i < loaders; i++)
        Put(array + 8 * i, 'I', "_loaders", NewObject("java/lang/ClassLoader"));
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
    std::lock_guard<std::recursive_mutex> held(vm.lock);
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
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    std::vector<Root> all(stagedRoots.begin(), stagedRoots.end());
    for (const ThreadInfo *thread : vm.threads) {
        all.push_back({'a', "_threadObj", thread->object, 0, 0});
        const HandleBlock &block = As<HandleBlock>(thread->handles);
        for (int32_t i = 0; i < block.top; i++)
            all.push_back({'d', "*OOP", nullptr, block.handles[i], 0});
    }
    return all;
}

} // namespace simvm
