// The walk's callbacks: each reference and each array of primitives becomes a record of the dump.
//
// They run inside the JVM while it is paused, on a thread that is not the dump's own. So they call neither
// JNI nor JVMTI, take no lock, allocate nothing and write no log. Each answers that the walk goes on, until
// the file has failed.
#pragma once

#include "DumpState.h"

jint JNICALL cbQorHeapReference(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                jlong classTag, jlong referrerClassTag, jlong size, jlong *tagPtr,
                                jlong *referrerTagPtr, jint length, void *userData);
jint JNICALL cbQorPrimArrayData(jlong classTag, jlong size, jlong *tagPtr, jint count,
                                jvmtiPrimitiveType type, const void *elements, void *userData);
// Not installed.
jint JNICALL cbQorPrimFieldData(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                jlong classTag, jlong *tagPtr, jvalue value, jvmtiPrimitiveType type,
                                void *userData);

// Writes the count of the array header that waits for it, if one does.
void QorFinishArrayHeader();

// Clears what the callbacks remember of the walk. Before each walk.
void QorStartDumpWalk();

// Local variables whose method had no name in the table, in this dump.
extern int64_t qorNamelessLocals;
