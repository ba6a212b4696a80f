// The reference graph added up: how many objects of which kind, and their size. The walk of the text dump
// without its file. No request asks for it.
#pragma once

#include <cstdint>
#include <jvmti.h>

struct QorHeapSummary {
    int32_t index; // always 1
    char name[16]; // always "System"
    // Objects that hold a reference (instances, arrays of objects), arrays of primitives, loaded classes.
    int64_t primitiveArrays, objectArrays, instances, classes;
    // KiB: of primitive arrays, of what the elements of object arrays refer to, of the primitive fields of
    // instances, of the class objects.
    int64_t primitiveArrayKb, objectArrayKb, instanceKb, classKb;
};

// Adds up the heap, which stops the JVM like a dump. 0, or -1 when the JVM refuses the walk. Worker.
int32_t QorShowHeap(QorHeapSummary *summary); // nothing calls it

// The walk's callbacks; `summary` adds up bytes until the walk is over.
jint JNICALL cbQorShowHeapReference(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                    jlong classTag, jlong referrerClassTag, jlong size, jlong *tagPtr,
                                    jlong *referrerTagPtr, jint length, void *summary);
jint JNICALL cbQorShowHeapPrimArrayData(jlong classTag, jlong size, jlong *tagPtr, jint count,
                                        jvmtiPrimitiveType type, const void *elements, void *summary);
jint JNICALL cbQorShowHeapPrimFieldData(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                        jlong classTag, jlong *tagPtr, jvalue value, jvmtiPrimitiveType type,
                                        void *summary);
