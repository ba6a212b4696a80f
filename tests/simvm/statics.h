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

// Virtual tables: X(kind, base, symbol, visibility, predicate, letter). A kind answers its own predicate and
// those of its bases; bases end at KLASS, which has none. Blobs' kinds come after klasses'. The
// letter is that of the kind's objects in a dump; of instances and arrays it depends on their class. A symbol
// is without its prefix; K and B are the two tables' layouts.
#define SIMVM_VTABLES(X)                                                                                     \
    X(KLASS, KLASS, "5Klass", hidden, K::since10, 0)                                                         \
    X(SYMBOL, KLASS, "11symbolKlass", hidden, K::isSymbol, '1')                                              \
    X(METHOD, KLASS, "11methodKlass", default, K::isMethod, '2')                                             \
    X(CONST_METHOD, KLASS, "16constMethodKlass", hidden, K::isConstMethod, 'F')                              \
    X(ARRAY, KLASS, "10arrayKlass", default, K::isArray, 0)                                                  \
    X(POOL, KLASS, "17constantPoolKlass", hidden, K::isConstantPool, '3')                                    \
    X(POOL_CACHE, KLASS, "22constantPoolCacheKlass", default, K::isConstantPoolCache, '4')                   \
    X(TYPE_ARRAY, ARRAY, "14typeArrayKlass", hidden, K::isTypeArray, 0)                                      \
    X(OBJ_ARRAY, ARRAY, "13objArrayKlass", default, K::isObjArray, 0)                                        \
    X(INSTANCE, KLASS, "13instanceKlass", hidden, K::isInstance, 0)                                          \
    X(INSTANCE_REF, INSTANCE, "16instanceRefKlass", default, K::isInstanceRef, 0)                            \
    X(IC_HOLDER, KLASS, "21compiledICHolderKlass", hidden, K::isCompiledICHolder, '*')                       \
    X(KLASS_KLASS, KLASS, "10klassKlass", default, K::isKlass, 'A')                                          \
    X(INSTANCE_KLASS_KLASS, KLASS_KLASS, "18instanceKlassKlass", default, K::isInstanceKlass, 'B')           \
    X(ARRAY_KLASS_KLASS, KLASS_KLASS, "15arrayKlassKlass", hidden, K::isArrayKlass, 'C')                     \
    X(OBJ_ARRAY_KLASS_KLASS, ARRAY_KLASS_KLASS, "18objArrayKlassKlass", default, K::isObjArrayKlass, 'D')    \
    X(TYPE_ARRAY_KLASS_KLASS, ARRAY_KLASS_KLASS, "19typeArrayKlassKlass", hidden, K::isTypeArrayKlass, 'E')  \
    X(METHOD_DATA, KLASS, "15methodDataKlass", hidden, K::isMethodData, 'H')                                 \
    X(BUFFER_BLOB, KLASS, "10BufferBlob", hidden, B::isBuffer, 0)                                            \
    X(NMETHOD, KLASS, "7nmethod", default, B::isNmethod, 0)                                                  \
    X(RUNTIME_STUB, KLASS, "11RuntimeStub", hidden, B::isRuntimeStub, 0)                                     \
    X(I2C, KLASS, "10I2CAdapter", hidden, B::isI2C, 0)                                                       \
    X(C2I, KLASS, "10C2IAdapter", default, B::isC2I, 0)                                                      \
    X(OSR, KLASS, "10OSRAdapter", hidden, B::isOsrAdapter, 0)

#define SIMVM_VTABLE_NAME(kind, ...) VT_##kind,
enum VtableKind { SIMVM_VTABLES(SIMVM_VTABLE_NAME) VTABLE_COUNT };
#undef SIMVM_VTABLE_NAME
#define SIMVM_LETTER(kind, base, symbol, visibility, predicate, letter) letter,
constexpr char KIND_LETTERS[] = {SIMVM_VTABLES(SIMVM_LETTER)};
#undef SIMVM_LETTER

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
