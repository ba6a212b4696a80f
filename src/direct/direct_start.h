// The start of the direct road: what it is handed by the thread inside `initvar`, and its readers made ready.
#pragma once

#include "platforms/release.h"

#include <atomic>
#include <cstdint>
#include <jni.h>

// Of the thread inside `initvar`: its environment, null outside it; the JNI version that it was told, and its
// system thread id. By them this road makes sure that the JVM is what its version says. Start-up sets them.
extern JNIEnv *jni_env;
extern int32_t callerJniVersion, callerThreadId;

// Marker classes of the application server and the sample objects: references of `initvar`'s own frame, null
// outside it. Start-up sets them.
extern jclass serverKlass1, serverKlass2;
extern jobject qor_ins, qor_ins_ref, qor_objArr, qor_intArr;

// What such a reference, or the environment, is to the readers.
uint64_t QorAddressOf(const void *pointer);

extern int32_t maxstates; // thread state rows

// 1 from the end of a start on this road, when its readers may be asked; else 0.
extern std::atomic<int32_t> direct_ready;

// Selects the build's row of offsets, which a negative one doesn't have. A version text can be forged, and
// another JVM has its fields elsewhere, so the JVM's own word comes first, before anything is read by the
// row: false, and no row is selected, when it doesn't agree. Initialisation thread.
bool QorSelectBuild(int32_t build);

// Takes those symbols out of the missing ones, as `findsymbols` reports them, without which the JVM's
// collector can be read. The build must be known. Initialisation thread.
void QorForgiveUnneeded(uint32_t (&words)[SYMBOL_WORDS]);

// Makes the readers ready, waiting for a collection. False, with the reason logged, when the row doesn't fit
// the JVM or its heap can't be made out. Initialisation thread.
bool QorStartReaders();

// What samples need besides, with the readers ready: holds, compiled code, the application server's port.
// `direct_ready` is set at the end. Initialisation thread.
void QorPrepareSamples();

// Drops what samples have kept of connections and drivers. Worker, at its end, or the start that finds it
// gone.
void QorDropDirectSamples();
