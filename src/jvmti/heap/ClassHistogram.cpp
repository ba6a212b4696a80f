#include "ClassHistogram.h"

#include "ForkedHistogram.h"
#include "ForkedWalk.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "jvmti/threads/MethodTable.h"
#include "qorStrUtils.h"
#include "qorcost.h"
#include "qorlog.h"

#include <cstdlib>
#include <sys/time.h>
#include <utility>

int32_t gbiclassCount;
const char *qorNoHistogram;
int64_t qorHistogramAge;

namespace {

constexpr char NO_NAME[] = "NULL", NOT_READ[] = "";

const char *ReadName(jvmtiEnv *env, jclass klass) {
    char *signature = nullptr;
    const jvmtiError error = env->GetClassSignature(klass, &signature, nullptr);
    QorClearException(jvmtijni_env);
    if (error != JVMTI_ERROR_NONE || !signature) {
        QORLOG(LOG_ERROR, "Qor Agent Error:Faild to Get Class Signature %d", error);
        return NO_NAME;
    }
    char cut[NAME_SIZE];
    QorCopyName(cut, signature);
    env->Deallocate(reinterpret_cast<unsigned char *>(signature));
    const char *name = strdup(cut);
    return name ? name : NO_NAME;
}

// Makes an entry of each class, up to the first that can't be tagged. The rest have a text for a name too:
// rows are shown of them.
void TagClasses(jvmtiEnv *env, const jclass *classes, QorClassCountEntry *entries) {
    for (int32_t i = 0; i < gbiclassCount; i++)
        entries[i].name = NOT_READ;
    for (int32_t i = 0; i < gbiclassCount; i++) {
        if (!classes[i])
            continue;
        const jvmtiError error = env->SetTag(classes[i], i + 1);
        QorClearException(jvmtijni_env);
        if (error != JVMTI_ERROR_NONE)
            return;
        entries[i].name = ReadName(env, classes[i]);
    }
}

bool CountHeap(jvmtiEnv *env, QorClassCountEntry *entries) {
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_iteration_callback = cbObjectCounter;
    timeval start, end;
    gettimeofday(&start, nullptr);
    const int64_t stop = QorStopStarts();
    const jvmtiError error =
        env->IterateThroughHeap(JVMTI_HEAP_FILTER_CLASS_UNTAGGED, nullptr, &callbacks, entries);
    QorStopEnded(STOP_HEAP, stop);
    QorClearException(jvmtijni_env);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "QorAgent Error: Failed to IterateThroughHeap ");
        return false;
    }
    gettimeofday(&end, nullptr);
    QorDumpTime(start.tv_sec, start.tv_usec, end.tv_sec, end.tv_usec,
                "Class Histogram traversal for IterateThroughHeap");
    return true;
}

// The loaded classes, local references of the open frame; null after a failure.
jclass *LoadedClasses(jvmtiEnv *env, jint *count) {
    jclass *classes = nullptr;
    const jvmtiError error = env->GetLoadedClasses(count, &classes);
    if (error == JVMTI_ERROR_NONE) {
        QorExpectLocalRefs(*count); // before any other JNI call: the JVM's checks count at each
        return classes;
    }
    QorClearException(jvmtijni_env);
    if (error == JVMTI_ERROR_NULL_POINTER)
        QORLOG(LOG_ERROR, " Count or Class Pointer for the Loaded classes is NULL");
    QORLOG(LOG_ERROR, "Failed to Get Loaded Classes");
    return nullptr;
}

// Null after a failure.
QorClassCountEntry *CountClasses(jvmtiEnv *env, QorHistogramPass pass) {
    jint loaded = 0;
    jclass *classes = LoadedClasses(env, &loaded);
    if (!classes)
        return nullptr;
    auto *entries = static_cast<QorClassCountEntry *>(
        calloc(static_cast<size_t>(loaded > 0 ? loaded : 1), sizeof(QorClassCountEntry)));
    bool counted = false;
    if (entries) {
        gbiclassCount = loaded;
        TagClasses(env, classes, entries);
        counted = pass(env, entries);
    } else {
        QORLOG(LOG_ERROR, "Failed to Allocate Memory for Classes");
    }
    env->Deallocate(reinterpret_cast<unsigned char *>(classes));
    if (counted)
        return entries;
    QorFreeClassCounts(entries, entries ? loaded : 0);
    return nullptr;
}

} // namespace

QorClassCountEntry *QorListClasses(QorHistogramPass pass) {
    QorLocalFrame frame(jvmtijni_env, 1);
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR); // which would hold all classes
        return nullptr;
    }
    jvmtiEnv *env = QorOpenTagEnvironment();
    if (!env)
        return nullptr;
    QorClassCountEntry *entries = CountClasses(env, pass);
    QorCloseTagEnvironment(env);
    return entries;
}

int32_t QorClassInstanceCounts(int64_t *count, QorClassCountEntry **entries) {
    *count = 0;
    qorNoHistogram = nullptr;
    qorHistogramAge = -1;
    if (QorWantsCopy()) {
        *entries = QorCountHeapInCopy(count, &qorNoHistogram, &qorHistogramAge);
    } else if ((*entries = QorListClasses(CountHeap)) != nullptr) {
        *count = gbiclassCount;
    }
    if (!*entries)
        return -1;
    QorClassSizeSort(*entries, 0, *count - 1);
    return 0;
}

void QorFreeClassCounts(QorClassCountEntry *entries, int64_t count) {
    for (int64_t i = 0; i < count; i++)
        if (entries[i].name != NO_NAME && entries[i].name != NOT_READ)
            free(const_cast<char *>(entries[i].name));
    free(entries);
}

jint JNICALL cbObjectCounter(jlong classTag, jlong size, jlong *, jint, void *entries) {
    const jlong index = classTag - 1;
    if (!entries || index < 0 || index >= gbiclassCount)
        return JVMTI_VISIT_ABORT;
    QorClassCountEntry &entry = static_cast<QorClassCountEntry *>(entries)[index];
    entry.count++;
    entry.size += size;
    return JVMTI_VISIT_OBJECTS;
}

void QorClassSizeSort(QorClassCountEntry *entries, int64_t low, int64_t high) {
    while (low < high) {
        const int64_t pivot = entries[low + (high - low) / 2].size;
        int64_t left = low, right = high;
        // The pivot's own entry, and later each swapped pair, stop both scans within the range.
        while (left <= right) {
            while (entries[left].size < pivot)
                left++;
            while (entries[right].size > pivot)
                right--;
            if (left > right)
                break;
            std::swap(entries[left], entries[right]);
            left++;
            right--;
        }
        // The smaller part by a call, the larger by the loop: the stack stays shallow whatever the sizes are.
        if (right - low < high - left) {
            QorClassSizeSort(entries, low, right);
            low = left;
        } else {
            QorClassSizeSort(entries, left, high);
            high = right;
        }
    }
}
