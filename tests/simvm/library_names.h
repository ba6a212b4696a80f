// The names of the VM's library. Included once for each use, with macros for what is wanted of a row: static
// variables, some of one of the two libraries alone, and virtual tables. A kind of klass or
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

STATIC(threadList, "_ZN7Threads12_thread_listE")
STATIC(callStubReturn, "_ZN12StubRoutines25_call_stub_return_addressE")
STATIC(eetopOffset, "_ZN16java_lang_Thread13_eetop_offsetE")
STATIC(interpreterCode, "_ZN19AbstractInterpreter5_codeE")
STATIC(codeHeap, "_ZN9CodeCache5_heapE")
STATIC(gcLockCount, "_ZN9GC_locker11_lock_countE")
STATIC(collectedHeap, "_ZN8Universe14_collectedHeapE")
STATIC(vmThread, "_ZN8VMThread10_vm_threadE")
STATIC(vmQueue, "_ZN8VMThread9_vm_queueE")
STATIC(monitorBlocks, "_ZN18ObjectSynchronizer10gBlockListE")
STATIC(universe, "_ZN8Universe18_boolArrayKlassObjE")
STATIC(knownKlasses, "_ZN16SystemDictionary13_object_klassE")
STATIC(mirrors, "_ZN16SystemDictionary11_int_mirrorE")
STATIC(systemLoader, "_ZN16SystemDictionary19_java_system_loaderE")
STATIC(systemLoaderLock, "_ZN16SystemDictionary23_system_loader_lock_objE")
STATIC(threadProfiler, "_ZN12FlatProfiler15thread_profilerE")
STATIC(vmSymbols, "_ZN9vmSymbols8_symbolsE")
STATIC(globalHandles, "_ZN10JNIHandles15_global_handlesE")
STATIC(dictionary, "_ZN16SystemDictionary11_dictionaryE")
STATIC(placeholders, "_ZN16SystemDictionary13_placeholdersE")
STATIC(loaderConstraints, "_ZN16SystemDictionary19_loader_constraintsE")
STATIC(maxPermSize, "MaxPermSize")
STATIC(maxHeapSize, "MaxHeapSize")
STATIC(classLoadTime, "_ZN11ClassLoader22_perf_accumulated_timeE")
STATIC(compilationTime, "_ZN13CompileBroker23_perf_total_compilationE")
STATIC(useParallel, "UseParallelGC")
STATIC(useConcurrent, "UseConcMarkSweepGC")
STATIC(psYoung, "_ZN20ParallelScavengeHeap10_young_genE")
STATIC(psOld, "_ZN20ParallelScavengeHeap8_old_genE")
STATIC(psPerm, "_ZN20ParallelScavengeHeap9_perm_genE")
STATIC(psMajorCollections, "_ZN11PSMarkSweep18_total_invocationsE")
STATIC(psMajorTime, "_ZN11PSMarkSweep17_accumulated_timeE")
STATIC(psMinorTime, "_ZN10PSScavenge17_accumulated_timeE")
STATIC(newRatio, "NewRatio")
STATIC(survivorRatio, "SurvivorRatio")
STATIC(maxNewSize, "MaxNewSize")
STATIC(isICHolder, "_ZNK21compiledICHolderKlass23oop_is_compiledICHolderEv")
STATIC(isInstanceKlassKlass, "_ZNK18instanceKlassKlass12oop_is_klassEv")
STATIC(isKlassKlass, "_ZNK10klassKlass12oop_is_klassEv")
SERVER_STATIC(stackRegisters, "_ZN10SharedInfo6stack0E")
CLIENT_STATIC(runtimeBlobs, "_ZN8Runtime16_blobsE")

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
