#include "HeapSummary.h"

#include "ClassRecords.h"
#include "ObjectTags.h"
#include "jvmti/ClassMirrors.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "qorlog.h"

#include <initializer_list>

namespace {

constexpr jint FRAME_CAPACITY = 16;
constexpr int64_t BYTES_PER_KIB = 1024;

// The last referrer counted of each kind: the JVM reports the references of one object in a row.
int64_t lastInstance, lastArray;

void TagObject(jlong *tag, jlong size) {
    if ((!*tag || QorTagIsStale(*tag, igbCurrentRun)) && iHeapObjectStartNum <= LARGEST_NUMBER)
        *tag = QorMakeTag(iHeapObjectStartNum++, size, igbCurrentRun);
}

void CountOnce(int64_t referrer, int64_t *last, int64_t *count) {
    if (referrer == *last)
        return;
    *last = referrer;
    ++*count;
}

int64_t Width(jvmtiPrimitiveType type) {
    switch (type) {
    case JVMTI_PRIMITIVE_TYPE_BOOLEAN:
    case JVMTI_PRIMITIVE_TYPE_BYTE:
        return 1;
    case JVMTI_PRIMITIVE_TYPE_CHAR:
    case JVMTI_PRIMITIVE_TYPE_SHORT:
        return 2;
    case JVMTI_PRIMITIVE_TYPE_INT:
    case JVMTI_PRIMITIVE_TYPE_FLOAT:
        return 4;
    default:
        return 8;
    }
}

void AddClasses(QorHeapSummary *summary) {
    summary->classes = igbTagClassCount;
    for (int64_t i = 0; i < igbTagClassCount; i++) {
        int64_t number = 0;
        int32_t size = 0;
        QorGetJObjectProp(objTagClass[i].tag, &number, &size);
        summary->classKb += size;
    }
}

int32_t Walk(QorHeapSummary *summary) {
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_reference_callback = cbQorShowHeapReference;
    callbacks.array_primitive_value_callback = cbQorShowHeapPrimArrayData;
    callbacks.primitive_field_callback = cbQorShowHeapPrimFieldData;
    jobject held = QorHoldMirrorFields(gbDumpEnv);
    const jvmtiError error = gbDumpEnv->FollowReferences(0, nullptr, nullptr, &callbacks, summary);
    QorClearException(jvmtijni_env);
    QorDeleteLocalRef(jvmtijni_env, held);
    if (error == JVMTI_ERROR_NONE)
        return 0;
    QORLOG(LOG_ERROR, "QorShowHeap followreferences failed %d", error);
    return -1;
}

} // namespace

int32_t QorShowHeap(QorHeapSummary *summary) {
    *summary = {1, "System", 0, 0, 0, 0, 0, 0, 0, 0};
    QorLocalFrame frame(jvmtijni_env, FRAME_CAPACITY);
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR);
        return -1;
    }
    gbDumpEnv = QorOpenTagEnvironment();
    if (!gbDumpEnv)
        return -1;
    lastInstance = lastArray = 0;
    iHeapObjectStartNum = FIRST_OBJECT_NUMBER;
    tag_all_classes();
    const int32_t result = Walk(summary);
    AddClasses(summary);
    for (int64_t *size :
         {&summary->primitiveArrayKb, &summary->objectArrayKb, &summary->instanceKb, &summary->classKb})
        *size /= BYTES_PER_KIB;
    QorFreeClassList();
    QorCloseTagEnvironment(gbDumpEnv);
    gbDumpEnv = nullptr;
    return result;
}

jint JNICALL cbQorShowHeapReference(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *, jlong, jlong,
                                    jlong size, jlong *tagPtr, jlong *referrerTagPtr, jint, void *userData) {
    auto *summary = static_cast<QorHeapSummary *>(userData);
    TagObject(tagPtr, size);
    const int64_t referrer = referrerTagPtr ? QorTagNumber(*referrerTagPtr) : 0;
    if (kind == JVMTI_HEAP_REFERENCE_FIELD) {
        CountOnce(referrer, &lastInstance, &summary->instances);
    } else if (kind == JVMTI_HEAP_REFERENCE_ARRAY_ELEMENT) {
        CountOnce(referrer, &lastArray, &summary->objectArrays);
        summary->objectArrayKb += size;
    }
    return JVMTI_VISIT_OBJECTS;
}

jint JNICALL cbQorShowHeapPrimArrayData(jlong, jlong size, jlong *tagPtr, jint, jvmtiPrimitiveType,
                                        const void *, void *userData) {
    auto *summary = static_cast<QorHeapSummary *>(userData);
    TagObject(tagPtr, size);
    summary->primitiveArrays++;
    summary->primitiveArrayKb += size;
    return JVMTI_VISIT_OBJECTS;
}

jint JNICALL cbQorShowHeapPrimFieldData(jvmtiHeapReferenceKind, const jvmtiHeapReferenceInfo *, jlong,
                                        jlong *, jvalue, jvmtiPrimitiveType type, void *userData) {
    static_cast<QorHeapSummary *>(userData)->instanceKb += Width(type);
    return JVMTI_VISIT_OBJECTS;
}
