#include "roots.h"
#include "layout_roots.h"

namespace simvm {

std::deque<Root> stagedRoots;

namespace {

constexpr Word WILD = 0x123456789ab0; // aligned, and nothing is there
constexpr Word CHAIN_MARK = ~Word(0); // where another monitor has its object
ChainEnd chainEnd;

void Put(Word place, char letter, const char *name, Object *object) {
    stagedRoots.push_back({letter, name, object, 0, place});
    As<Word>(place) = object->address;
}
void Put(Word place, char letter, const char *name, Word oop) {
    stagedRoots.push_back({letter, name, nullptr, oop, place});
    As<Word>(place) = oop;
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
    const Word ENDS[] = {ring.front(), ring.back(), WILD};
    for (int i = 0; i < operations; i++)
        As<VmOperation>(ring[i]).next = i + 1 < operations ? ring[i + 1] : ENDS[int(chainEnd)];
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

// Klasses by name or as the VM's own kinds.
Word KlassOf(const char *name) {
    return name[0] == '[' ? ArrayClass(name)->klass : DefineClass(name, "java/lang/Object")->klass;
}

void StageUniverse() {
    struct Known {
        const char *name, *klass;
        VtableKind kind;
    };
    static const Known KLASSES[] = {{"_bool_arr_klass", "[Z", VTABLE_COUNT},
                                    {"_byte_arr_klass", "[B", VTABLE_COUNT},
                                    {"_char_arr_klass", "[C", VTABLE_COUNT},
                                    {"_int_arr_klass", "[I", VTABLE_COUNT},
                                    {"_short_arr_klass", "[S", VTABLE_COUNT},
                                    {"_long_arr_klass", "[J", VTABLE_COUNT},
                                    {"_single_arr_klass", "[F", VTABLE_COUNT},
                                    {"_double_arr_klass", "[D", VTABLE_COUNT},
                                    {"_symbol_klass", nullptr, VT_SYMBOL},
                                    {"_method_klass", nullptr, VT_METHOD},
                                    {"_klass_klass", nullptr, VT_KLASS_KLASS},
                                    {"_arr_klass_klass", nullptr, VT_ARRAY_KLASS_KLASS},
                                    {"_obj_arr_klass_klass", nullptr, VT_OBJ_ARRAY_KLASS_KLASS},
                                    {"_type_arr_klass_klass", nullptr, VT_TYPE_ARRAY_KLASS_KLASS},
                                    {"_instance_klass_klass", nullptr, VT_INSTANCE_KLASS_KLASS},
                                    {"_constant_pool_klass", nullptr, VT_POOL},
                                    {"_constant_pool_cache_klass", nullptr, VT_POOL_CACHE},
                                    {"_compiledicholder_klass", nullptr, VT_IC_HOLDER},
                                    {"_system_obj_array_klass", "[Ljava/lang/Object;", VTABLE_COUNT}};
    Word at = reinterpret_cast<Word>(vm.statics.universe);
    for (const Known &known : KLASSES) {
        Put(at, 'z', known.name, known.klass ? KlassOf(known.klass) : vm.kindKlass[known.kind]);
        at += 8;
    }
    auto put = [&](const char *name, auto what) { Put(at, 'z', name, what), at += 8; };
    put("_main_thread_group", NewObject("java/lang/ThreadGroup"));
    put("_system_thread_group", NewObject("java/lang/ThreadGroup"));
    put("_the_empty_short_array", NewArray("[S", 0));
    put("_the_empty_int_array", NewArray("[I", 0));
    put("_the_empty_system_obj_array", NewArray("[Ljava/lang/Object;", 0));
    put("_the_empty_class_klass_array", NewArray("[Ljava/lang/Class;", 0));
    put("_finalizer_register_method",
        DefineMethod("java/lang/ref/Finalizer", "register", "(Ljava/lang/Object;)V", {})->oop);
    As<Word>(at) = POISON_WORD; // _reflect_invoke_method is in another place
    at += 8;
    put("_loader_addclass_method",
        DefineMethod("java/lang/ClassLoader", "addClass", "(Ljava/lang/Class;)V", {})->oop);
    put("_out_of_memory_error_instance", NewObject("java/lang/OutOfMemoryError"));
    put("_null_ptr_exception_instance", NewObject("java/lang/NullPointerException"));
    put("_arithmetic_exception_instance", NewObject("java/lang/ArithmeticException"));
    put("_vm_exception", NewObject("java/lang/VirtualMachineError"));
    put("_reflect_invoke_method",
        DefineMethod("java/lang/reflect/Method", "invoke", "(Ljava/lang/Object;)V", {})->oop);
}

void StageKnownClasses() {
    static const std::pair<const char *, const char *> KLASSES[] = {
        {"_object_klass", "java/lang/Object"},
        {"_string_klass", "java/lang/String"},
        {"_class_klass", "java/lang/Class"},
        {"_cloneable_klass", "java/lang/Cloneable"},
        {"_classloader_klass", "java/lang/ClassLoader"},
        {"_serializable_klass", "java/io/Serializable"},
        {"_throwable_klass", "java/lang/Throwable"},
        {"_error_klass", "java/lang/Error"},
        {"_threaddeath_klass", "java/lang/ThreadDeath"},
        {"_exception_klass", "java/lang/Exception"},
        {"_runtime_exception_klass", "java/lang/RuntimeException"},
        {"_classnotfoundexception_klass", "java/lang/ClassNotFoundException"},
        {"_noclassdeffounderror_klass", "java/lang/NoClassDefFoundError"},
        {"_classcastexception_klass", "java/lang/ClassCastException"},
        {"_arraystoreexception_klass", "java/lang/ArrayStoreException"},
        {"_outofmemoryerror_klass", "java/lang/OutOfMemoryError"},
        {"_stackoverflowerror_klass", "java/lang/StackOverflowError"},
        {"_protectiondomain_klass", "java/security/ProtectionDomain"},
        {"_accesscontrolcontext_klass", "java/security/AccessControlContext"},
        {"_reference_klass", "java/lang/ref/Reference"},
        {"_soft_reference_klass", "java/lang/ref/SoftReference"},
        {"_weak_reference_klass", "java/lang/ref/WeakReference"},
        {"_final_reference_klass", "java/lang/ref/FinalReference"},
        {"_phantom_reference_klass", "java/lang/ref/PhantomReference"},
        {"_finalizer_klass", "java/lang/ref/Finalizer"},
        {"_thread_klass", "java/lang/Thread"},
        {"_threadgroup_klass", "java/lang/ThreadGroup"},
        {"_properties_klass", "java/util/Properties"},
        {"_reflect_method_klass", "java/lang/reflect/Method"},
        {"_reflect_constructor_klass", "java/lang/reflect/Constructor"},
        {"_stringbuffer_klass", "java/lang/StringBuffer"},
        {"_vector_klass", "java/util/Vector"},
        {"_hashtable_klass", "java/util/Hashtable"},
        {"_boolean_klass", "java/lang/Boolean"},
        {"_char_klass", "java/lang/Character"},
        {"_float_klass", "java/lang/Float"},
        {"_double_klass", "java/lang/Double"},
        {"_byte_klass", "java/lang/Byte"},
        {"_short_klass", "java/lang/Short"},
        {"_int_klass", "java/lang/Integer"},
        {"_long_klass", "java/lang/Long"}};
    static const char *const MIRRORS[] = {"_int_mirror",  "_float_mirror", "_double_mirror",
                                          "_byte_mirror", "_bool_mirror",  "_char_mirror",
                                          "_long_mirror", "_short_mirror", "_void_mirror"};
    Word at = reinterpret_cast<Word>(vm.statics.knownKlasses);
    for (auto &[name, klass] : KLASSES)
        Put(at, 'B', name, KlassOf(klass)), at += 8;
    at = reinterpret_cast<Word>(vm.statics.mirrors);
    for (const char *name : MIRRORS)
        Put(at, 'C', name, NewObject("java/lang/Class")), at += 8;
    Put(reinterpret_cast<Word>(vm.statics.systemLoader), 'A', "#_java_system_loader",
        NewObject("java/lang/ClassLoader"));
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
    StageUniverse();
    StageKnownClasses();
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
