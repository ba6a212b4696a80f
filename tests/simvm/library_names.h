// The names of the VM's library. Included once for each use, with macros for what is wanted of a row: static
// variables of so many words, some of one of the two libraries alone, and virtual tables. A kind of klass or
// blob answers its own predicate and those of its bases; bases end at Klass. The letter is that of the kind's
// objects in a dump; of instances and arrays it depends on their class.
#ifndef STATIC
#define STATIC(...)
#endif
#ifndef SERVER_STATIC
#define SERVER_STATIC STATIC
#define CLIENT_STATIC STATIC
#endif
#ifndef KIND
#define KIND(...)
#endif
#define KLASS_KIND(length, name, base, letter)                                                               \
    KIND(name, base, #length #name "Klass", KlassVtable::name, letter)
#define BLOB_KIND(length, name) KIND(name, Klass, #length #name, BlobVtable::name, 0)

STATIC(threadList, 1, "_ZN7Threads12_thread_listE")
STATIC(callStubReturn, 1, "_ZN12StubRoutines25_call_stub_return_addressE")
STATIC(eetopOffset, 1, "_ZN16java_lang_Thread13_eetop_offsetE")
STATIC(interpreterCode, 1, "_ZN19AbstractInterpreter5_codeE")
STATIC(codeHeap, 1, "_ZN9CodeCache5_heapE")
STATIC(gcLockCount, 1, "_ZN9GC_locker11_lock_countE")
STATIC(collectedHeap, 1, "_ZN8Universe14_collectedHeapE")
STATIC(vmThread, 1, "_ZN8VMThread10_vm_threadE")
STATIC(vmQueue, 1, "_ZN8VMThread9_vm_queueE")
STATIC(monitorBlocks, 1, "_ZN18ObjectSynchronizer10gBlockListE")
STATIC(universe, 64, "_ZN8Universe18_boolArrayKlassObjE")
STATIC(knownKlasses, 64, "_ZN16SystemDictionary13_object_klassE")
STATIC(mirrors, 16, "_ZN16SystemDictionary11_int_mirrorE")
STATIC(systemLoader, 1, "_ZN16SystemDictionary19_java_system_loaderE")
STATIC(systemLoaderLock, 1, "_ZN16SystemDictionary23_system_loader_lock_objE")
STATIC(threadProfiler, 16, "_ZN12FlatProfiler15thread_profilerE")
STATIC(vmSymbols, 191, "_ZN9vmSymbols8_symbolsE")
STATIC(globalHandles, 1, "_ZN10JNIHandles15_global_handlesE")
STATIC(dictionary, 1, "_ZN16SystemDictionary11_dictionaryE")
STATIC(placeholders, 1, "_ZN16SystemDictionary13_placeholdersE")
STATIC(loaderConstraints, 1, "_ZN16SystemDictionary19_loader_constraintsE")
STATIC(maxPermSize, 1, "MaxPermSize")
STATIC(maxHeapSize, 1, "MaxHeapSize")
STATIC(classLoadTime, 1, "_ZN11ClassLoader22_perf_accumulated_timeE")
STATIC(compilationTime, 1, "_ZN13CompileBroker23_perf_total_compilationE")
STATIC(useParallel, 1, "UseParallelGC")
STATIC(useConcurrent, 1, "UseConcMarkSweepGC")
STATIC(psYoung, 1, "_ZN20ParallelScavengeHeap10_young_genE")
STATIC(psOld, 1, "_ZN20ParallelScavengeHeap8_old_genE")
STATIC(psPerm, 1, "_ZN20ParallelScavengeHeap9_perm_genE")
STATIC(psMajorCollections, 1, "_ZN11PSMarkSweep18_total_invocationsE")
STATIC(psMajorTime, 2, "_ZN11PSMarkSweep17_accumulated_timeE")
STATIC(psMinorTime, 2, "_ZN10PSScavenge17_accumulated_timeE")
STATIC(newRatio, 1, "NewRatio")
STATIC(survivorRatio, 1, "SurvivorRatio")
STATIC(maxNewSize, 1, "MaxNewSize")
STATIC(isICHolder, 1, "_ZNK21compiledICHolderKlass23oop_is_compiledICHolderEv")
STATIC(isInstanceKlassKlass, 1, "_ZNK18instanceKlassKlass12oop_is_klassEv")
STATIC(isKlassKlass, 1, "_ZNK10klassKlass12oop_is_klassEv")
SERVER_STATIC(stackRegisters, 1, "_ZN10SharedInfo6stack0E")
CLIENT_STATIC(runtimeBlobs, 40, "_ZN8Runtime16_blobsE")

KIND(Klass, Klass, "5Klass", KlassVtable::oopSize, 0)
KLASS_KIND(11, symbol, Klass, '1')
KLASS_KIND(11, method, Klass, '2')
KLASS_KIND(16, constMethod, Klass, 'F')
KLASS_KIND(10, array, Klass, 0)
KLASS_KIND(17, constantPool, Klass, '3')
KLASS_KIND(22, constantPoolCache, Klass, '4')
KLASS_KIND(14, typeArray, array, 0)
KLASS_KIND(13, objArray, array, 0)
KLASS_KIND(13, instance, Klass, 0)
KLASS_KIND(16, instanceRef, instance, 0)
KLASS_KIND(21, compiledICHolder, Klass, '*')
KLASS_KIND(10, klass, Klass, 'A')
KLASS_KIND(18, instanceKlass, klass, 'B')
KLASS_KIND(15, arrayKlass, klass, 'C')
KLASS_KIND(18, objArrayKlass, arrayKlass, 'D')
KLASS_KIND(19, typeArrayKlass, arrayKlass, 'E')
KLASS_KIND(15, methodData, Klass, 'H')
BLOB_KIND(10, BufferBlob)
BLOB_KIND(7, nmethod)
BLOB_KIND(11, RuntimeStub)
BLOB_KIND(10, I2CAdapter)
BLOB_KIND(10, C2IAdapter)
BLOB_KIND(10, OSRAdapter)

#undef STATIC
#undef KIND
