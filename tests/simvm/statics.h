// The VM's static variables under the names that its library has for them. The library is built of
// statics.cpp alone, twice: as server/libjvm.so and as client/libjvm.so. A program opens one of the two and
// gets the addresses of its statics through simvm_statics.
#pragma once

#include "layout.h"

namespace simvm {

constexpr int VTABLE_WORDS = 2 + 64;

// X(member, symbol, words, visibility). What is hidden is found in .symtab only, as in the real library.
#define SIMVM_STATICS(X)                                                                                     \
    X(threadList, "_ZN7Threads12_thread_listE", 1, hidden)                                                   \
    X(callStubReturn, "_ZN12StubRoutines25_call_stub_return_addressE", 1, default)                           \
    X(eetopOffset, "_ZN16java_lang_Thread13_eetop_offsetE", 1, default)                                      \
    X(interpreterCode, "_ZN19AbstractInterpreter5_codeE", 1, hidden)                                         \
    X(codeHeap, "_ZN9CodeCache5_heapE", 1, default)                                                          \
    X(gcLockCount, "_ZN9GC_locker11_lock_countE", 1, default)                                                \
    X(collectedHeap, "_ZN8Universe14_collectedHeapE", 1, default)                                            \
    X(vmThread, "_ZN8VMThread10_vm_threadE", 1, default)                                                     \
    X(vmQueue, "_ZN8VMThread9_vm_queueE", 1, hidden)                                                         \
    X(monitorBlocks, "_ZN18ObjectSynchronizer10gBlockListE", 1, hidden)                                      \
    X(universe, "_ZN8Universe18_boolArrayKlassObjE", 64, default)                                            \
    X(knownKlasses, "_ZN16SystemDictionary13_object_klassE", 64, hidden)                                     \
    X(mirrors, "_ZN16SystemDictionary11_int_mirrorE", 16, default)                                           \
    X(systemLoader, "_ZN16SystemDictionary19_java_system_loaderE", 1, hidden)                                \
    X(systemLoaderLock, "_ZN16SystemDictionary23_system_loader_lock_objE", 1, hidden)                        \
    X(threadProfiler, "_ZN12FlatProfiler15thread_profilerE", 16, default)                                    \
    X(vmSymbols, "_ZN9vmSymbols8_symbolsE", 191, hidden)                                                     \
    X(globalHandles, "_ZN10JNIHandles15_global_handlesE", 1, default)                                        \
    X(dictionary, "_ZN16SystemDictionary11_dictionaryE", 1, hidden)                                          \
    X(placeholders, "_ZN16SystemDictionary13_placeholdersE", 1, default)                                     \
    X(loaderConstraints, "_ZN16SystemDictionary19_loader_constraintsE", 1, hidden)                           \
    X(maxPermSize, "MaxPermSize", 1, hidden)                                                                 \
    X(maxHeapSize, "MaxHeapSize", 1, default)                                                                \
    X(classLoadTime, "_ZN11ClassLoader22_perf_accumulated_timeE", 1, hidden)                                 \
    X(compilationTime, "_ZN13CompileBroker23_perf_total_compilationE", 1, default)                           \
    X(useParallel, "UseParallelGC", 1, hidden)                                                               \
    X(useConcurrent, "UseConcMarkSweepGC", 1, default)                                                       \
    X(psYoung, "_ZN20ParallelScavengeHeap10_young_genE", 1, hidden)                                          \
    X(psOld, "_ZN20ParallelScavengeHeap8_old_genE", 1, default)                                              \
    X(psPerm, "_ZN20ParallelScavengeHeap9_perm_genE", 1, hidden)                                             \
    X(psMajorCollections, "_ZN11PSMarkSweep18_total_invocationsE", 1, default)                               \
    X(psMajorTime, "_ZN11PSMarkSweep17_accumulated_timeE", 2, hidden)                                        \
    X(psMinorTime, "_ZN10PSScavenge17_accumulated_timeE", 2, default)                                        \
    X(newRatio, "NewRatio", 1, hidden)                                                                       \
    X(survivorRatio, "SurvivorRatio", 1, default)                                                            \
    X(maxNewSize, "MaxNewSize", 1, hidden)                                                                   \
    X(isICHolder, "_ZNK21compiledICHolderKlass23oop_is_compiledICHolderEv", 1, hidden)                       \
    X(isInstanceKlassKlass, "_ZNK18instanceKlassKlass12oop_is_klassEv", 1, default)                          \
    X(isKlassKlass, "_ZNK10klassKlass12oop_is_klassEv", 1, hidden)
// Of the server library alone, and of the client alone.
#define SIMVM_SERVER_STATICS(X) X(stackRegisters, "_ZN10SharedInfo6stack0E", 1, default)
#define SIMVM_CLIENT_STATICS(X) X(runtimeBlobs, "_ZN8Runtime16_blobsE", 40, hidden)

// Virtual tables: X(kind, symbol, visibility). Blobs' come after klasses'.
#define SIMVM_VTABLES(X)                                                                                     \
    X(VT_KLASS, "_ZTV5Klass", hidden)                                                                        \
    X(VT_SYMBOL, "_ZTV11symbolKlass", hidden)                                                                \
    X(VT_METHOD, "_ZTV11methodKlass", default)                                                               \
    X(VT_CONST_METHOD, "_ZTV16constMethodKlass", hidden)                                                     \
    X(VT_ARRAY, "_ZTV10arrayKlass", default)                                                                 \
    X(VT_POOL, "_ZTV17constantPoolKlass", hidden)                                                            \
    X(VT_POOL_CACHE, "_ZTV22constantPoolCacheKlass", default)                                                \
    X(VT_TYPE_ARRAY, "_ZTV14typeArrayKlass", hidden)                                                         \
    X(VT_OBJ_ARRAY, "_ZTV13objArrayKlass", default)                                                          \
    X(VT_INSTANCE, "_ZTV13instanceKlass", hidden)                                                            \
    X(VT_INSTANCE_REF, "_ZTV16instanceRefKlass", default)                                                    \
    X(VT_IC_HOLDER, "_ZTV21compiledICHolderKlass", hidden)                                                   \
    X(VT_KLASS_KLASS, "_ZTV10klassKlass", default)                                                           \
    X(VT_INSTANCE_KLASS_KLASS, "_ZTV18instanceKlassKlass", default)                                          \
    X(VT_ARRAY_KLASS_KLASS, "_ZTV15arrayKlassKlass", hidden)                                                 \
    X(VT_OBJ_ARRAY_KLASS_KLASS, "_ZTV18objArrayKlassKlass", default)                                         \
    X(VT_TYPE_ARRAY_KLASS_KLASS, "_ZTV19typeArrayKlassKlass", hidden)                                        \
    X(VT_METHOD_DATA, "_ZTV15methodDataKlass", hidden)                                                       \
    X(VT_BUFFER_BLOB, "_ZTV10BufferBlob", hidden)                                                            \
    X(VT_NMETHOD, "_ZTV7nmethod", default)                                                                   \
    X(VT_RUNTIME_STUB, "_ZTV11RuntimeStub", hidden)                                                          \
    X(VT_I2C, "_ZTV10I2CAdapter", hidden)                                                                    \
    X(VT_C2I, "_ZTV10C2IAdapter", default)                                                                   \
    X(VT_OSR, "_ZTV10OSRAdapter", hidden)

#define SIMVM_VTABLE_NAME(kind, symbol, visibility) kind,
enum VtableKind { SIMVM_VTABLES(SIMVM_VTABLE_NAME) VTABLE_COUNT };
#undef SIMVM_VTABLE_NAME

struct Statics {
    bool server;
#define SIMVM_MEMBER(member, symbol, words, visibility) Word *member;
    SIMVM_STATICS(SIMVM_MEMBER)
    SIMVM_SERVER_STATICS(SIMVM_MEMBER)
    SIMVM_CLIENT_STATICS(SIMVM_MEMBER)
#undef SIMVM_MEMBER
    Word *vtables[VTABLE_COUNT];
    // The library's functions, for the tables: a predicate's answers, one that sizes an object, one that
    // nobody calls.
    Word isOther, isOwn[VTABLE_COUNT], oopSize, unasked;
    int64_t (**sizeOf)(Word oop); // who answers oopSize, in words
};

} // namespace simvm
