#include "DumpCallbacks.h"

#include "ClassRecords.h"
#include "LocalNames.h"
#include "ObjectTags.h"

#include <cerrno>

int64_t qorNamelessLocals;

namespace {

// The referrer for which the last header of a kind was written. They outlive a dump: one whose first referrer
// has the number of the last one before gets no header for it.
int64_t lastFieldReferrer, lastStaticReferrer, lastArrayReferrer;

bool inObjects; // the walk has left the roots

constexpr int64_t LARGEST_CLASS_NUMBER = FIRST_OBJECT_NUMBER - 1;
constexpr int64_t LARGEST_PLAIN_CLASS = FIRST_CLASS_NUMBER - 1;

// Both ends of a reference, out of their tags.
struct Reference {
    int64_t object, objectClass, referrer, referrerClass;
    int32_t referrerSize;
};

// Gives an object a number unless it has one of this run.
inline void TagObject(jlong *tag, jlong size) {
    if (*tag && !QorTagIsStale(*tag, igbCurrentRun))
        return;
    if (iHeapObjectStartNum > LARGEST_NUMBER) {
        fp.error = EOVERFLOW; // the numbers have run out: this heap has no dump
        return;
    }
    *tag = QorMakeTag(iHeapObjectStartNum++, size, igbCurrentRun);
}

inline jint GoOn() {
    return __builtin_expect(fp.error, 0) ? JVMTI_VISIT_ABORT : JVMTI_VISIT_OBJECTS;
}

// "referrer|size|class" after what is at `p`, and the end of the line.
inline char *PutReferrer(char *p, const Reference &ref, int64_t classNumber) {
    p = QorPutSigned(p, ref.referrer);
    p = QorPutChar(p, '|');
    p = QorPutHex(p, static_cast<uint32_t>(ref.referrerSize));
    p = QorPutChar(p, '|');
    p = QorPutSigned(p, classNumber);
    return QorPutChar(p, '\n');
}

// A line of a kind with nothing but a number.
template <size_t Before, size_t After>
inline void WriteNumber(const char (&before)[Before], int64_t number, const char (&after)[After]) {
    char *p = QorDumpReserve(&fp, DUMP_LEAST_BUFFER);
    p = QorPutText(p, before);
    p = QorPutSigned(p, number);
    QorDumpCommit(&fp, QorPutText(p, after));
}

inline void WriteField(const Reference &ref, jint index) {
    if (ref.referrer != lastFieldReferrer) {
        lastFieldReferrer = ref.referrer;
        char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "A8");
        QorDumpCommit(&fp, PutReferrer(p, ref, ref.referrerClass));
    }
    char *p = QorPutChar(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), 'R');
    p = QorPutChar(QorPutSigned(p, ref.object), '|');
    p = QorPutChar(QorPutSigned(p, ref.objectClass), '|');
    p = QorPutSigned(p, ref.objectClass);
    if (ref.objectClass > LARGEST_PLAIN_CLASS)
        p = QorPutSigned(QorPutChar(p, 'a'), index);
    QorDumpCommit(&fp, QorPutChar(p, '\n'));
}

void WriteStaticField(const Reference &ref, jint index) {
    if (ref.referrer != lastStaticReferrer) {
        lastStaticReferrer = ref.referrer;
        SetClassVisited(ref.referrer);
        char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "B0a");
        QorDumpCommit(&fp, PutReferrer(p, ref, ref.referrer));
    }
    char *p = QorPutChar(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), 'R');
    p = QorPutChar(QorPutSigned(p, ref.object), '|');
    p = QorPutChar(QorPutSigned(p, ref.objectClass), '|');
    p = QorPutChar(QorPutSigned(p, ref.referrer), 'a');
    p = QorPutSigned(p, index);
    QorDumpCommit(&fp, QorPutChar(p, '\n'));
}

void StartArray(const Reference &ref) {
    QorFinishArrayHeader();
    lastArrayReferrer = ref.referrer;
    char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "A[");
    QorDumpCommit(&fp, p);
    // In one piece, so that the count is never half in the buffer and half in the file.
    p = QorDumpReserve(&fp, DUMP_LEAST_BUFFER);
    gbiFpPos = QorGetCurrentPos(&fp);
    igbfpSet = 1;
    igbArrayElementlength = 0;
    p = QorPutText(p, "0000000000|");
    QorDumpCommit(&fp, PutReferrer(p, ref, ref.referrerClass));
}

inline void WriteElement(const Reference &ref) {
    if (ref.referrer != lastArrayReferrer)
        StartArray(ref);
    igbArrayElementlength++;
    char *p = QorPutChar(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), 'R');
    p = QorPutSigned(p, ref.object);
    QorDumpCommit(&fp, QorPutChar(p, '\n'));
}

// The end of a local's record: its thread, and the method that has it.
void WriteLocal(char *p, jlong threadId, jmethodID method) {
    p = QorPutText(p, "Thread-");
    p = QorPutSigned(p, static_cast<int32_t>(threadId));
    QorDumpCommit(&fp, QorPutChar(p, '_'));
    int32_t length = 0;
    const char *name = QorFindLocalName(method, &length);
    if (name)
        QorDumpText(&fp, name, length);
    else
        qorNamelessLocals++;
    p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "|\n");
    QorDumpCommit(&fp, p);
}

void WriteStackLocal(const Reference &ref, const jvmtiHeapReferenceInfoStackLocal &local,
                     const jlong *referrerTag) {
    char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "Sa");
    p = QorPutChar(QorPutSigned(p, ref.object), '|');
    if (referrerTag && *referrerTag > 0)
        p = QorPutChar(QorPutSigned(p, ref.referrer), '|');
    WriteLocal(p, local.thread_id, local.method);
}

void WriteJniLocal(const Reference &ref, const jvmtiHeapReferenceInfoJniLocal &local) {
    char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "Sc");
    p = QorPutChar(QorPutSigned(p, ref.object), '|');
    WriteLocal(p, local.thread_id, local.method);
}

// Roots, which are few.
void WriteRoot(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info, const Reference &ref,
               jlong tag, const jlong *referrerTag) {
    const bool isLocal = kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL || kind == JVMTI_HEAP_REFERENCE_JNI_LOCAL;
    if (isLocal && !info)
        return;
    // After the roots come the locals of virtual threads. The line of a class would be there for an
    // object of it.
    if (isLocal && ref.object <= LARGEST_CLASS_NUMBER && !inObjects)
        kind = JVMTI_HEAP_REFERENCE_SYSTEM_CLASS;
    switch (kind) {
    case JVMTI_HEAP_REFERENCE_JNI_GLOBAL:
        if (tag <= LARGEST_CLASS_NUMBER)
            WriteNumber("Sca", ref.object, "|\n");
        else
            WriteNumber("Sc", ref.object, "|\n");
        break;
    case JVMTI_HEAP_REFERENCE_SYSTEM_CLASS:
        WriteNumber("SBa", ref.object, "|\n");
        break;
    case JVMTI_HEAP_REFERENCE_MONITOR:
        WriteNumber("Ss", ref.object, "||\n");
        break;
    case JVMTI_HEAP_REFERENCE_STACK_LOCAL:
        WriteStackLocal(ref, info->stack_local, referrerTag);
        break;
    case JVMTI_HEAP_REFERENCE_JNI_LOCAL:
        WriteJniLocal(ref, info->jni_local);
        break;
    case JVMTI_HEAP_REFERENCE_THREAD:
        WriteNumber("Sf", ref.object, "||\n");
        break;
    case JVMTI_HEAP_REFERENCE_OTHER:
        WriteNumber("SA", ref.object, "||\n");
        break;
    default:
        break;
    }
}

} // namespace

jint JNICALL cbQorHeapReference(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                jlong classTag, jlong referrerClassTag, jlong size, jlong *tagPtr,
                                jlong *referrerTagPtr, jint, void *) {
    TagObject(tagPtr, size); // first: in an object that refers to itself both pointers are one
    Reference ref = {QorTagNumber(*tagPtr), QorTagNumber(classTag), 0, QorTagNumber(referrerClassTag), 0};
    if (referrerTagPtr)
        QorGetJObjectProp(*referrerTagPtr, &ref.referrer, &ref.referrerSize);
    switch (kind) {
    case JVMTI_HEAP_REFERENCE_CLASS:
        inObjects = true; // the first reference of each object
        WriteNumber("SBa", ref.object, "|\n");
        break;
    case JVMTI_HEAP_REFERENCE_FIELD:
        if (info)
            WriteField(ref, info->field.index);
        break;
    case JVMTI_HEAP_REFERENCE_ARRAY_ELEMENT:
        WriteElement(ref);
        break;
    case JVMTI_HEAP_REFERENCE_STATIC_FIELD:
        if (info)
            WriteStaticField(ref, info->field.index);
        break;
    default:
        WriteRoot(kind, info, ref, *tagPtr, referrerTagPtr);
        break;
    }
    return GoOn();
}

jint JNICALL cbQorPrimArrayData(jlong classTag, jlong size, jlong *tagPtr, jint count, jvmtiPrimitiveType,
                                const void *, void *) {
    TagObject(tagPtr, size);
    int64_t object = 0;
    int32_t objectSize = 0;
    QorGetJObjectProp(*tagPtr, &object, &objectSize);
    char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "A[");
    p = QorPutChar(QorPutHex(p, static_cast<uint32_t>(count)), '|');
    p = QorPutChar(QorPutSigned(p, object), '|');
    p = QorPutChar(QorPutHex(p, static_cast<uint32_t>(objectSize)), '|');
    p = QorPutSigned(p, QorTagNumber(classTag));
    QorDumpCommit(&fp, QorPutChar(p, '\n'));
    return GoOn();
}

jint JNICALL cbQorPrimFieldData(jvmtiHeapReferenceKind, const jvmtiHeapReferenceInfo *, jlong, jlong *,
                                jvalue, jvmtiPrimitiveType, void *) {
    return JVMTI_VISIT_OBJECTS;
}

void QorStartDumpWalk() {
    igbfpSet = 0;
    qorNamelessLocals = 0;
    inObjects = false;
}

void QorFinishArrayHeader() {
    if (!igbfpSet || igbArrayElementlength < 1)
        return;
    igbfpSet = 0;
    QorDumpPatchCount(&fp, gbiFpPos, static_cast<uint32_t>(igbArrayElementlength));
}
