#include "LocalChoice.h"

#include "LocalWalk.h"
#include "Xtier/tiers/tier.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "jvmti/threads/MethodTable.h"
#include "qorlog.h"
#include "qortiers.h"

#include <algorithm>

namespace {

// The JVM compares each tag asked for with each one that it has, and cannot stop its threads meanwhile.
constexpr int32_t TAGS_A_CALL = 256;

jobject objects[LOCAL_TAGS + 1]; // by number; null for an object that has died
int32_t lookedUp;                // numbers that were looked up
jobject candidates[LOCAL_CANDIDATES];

static_assert(static_cast<int32_t>(LOCAL_SIGNATURE_SIZE) == NAME_SIZE, "QorCopyName writes that many");

int32_t FetchTags(const QorLocalWalk &walk, int32_t first, int32_t count) {
    jvmtiEnv *const env = walk.env;
    jlong wanted[TAGS_A_CALL];
    for (int32_t i = 0; i < count; i++)
        wanted[i] = walk.tagBase + first + i;
    jint found = 0;
    jobject *refs = nullptr;
    jlong *tags = nullptr;
    const jvmtiError error = env->GetObjectsWithTags(count, wanted, &found, &refs, &tags);
    if (error != JVMTI_ERROR_NONE)
        return error;
    int32_t result = JVMTI_ERROR_NONE;
    for (jint i = 0; i < found; i++) {
        objects[tags[i] - walk.tagBase] = refs[i];
        const jvmtiError setError = env->SetTag(refs[i], 0);
        if (setError == JVMTI_ERROR_NONE)
            continue;
        QORLOG(LOG_ERROR, "SetTag failed %d", setError);
        result = setError;
    }
    env->Deallocate(reinterpret_cast<unsigned char *>(refs));
    env->Deallocate(reinterpret_cast<unsigned char *>(tags));
    return result;
}

bool IsAlive(jobject object) {
    return object && !QorIsSameObject(jvmtijni_env, object, nullptr);
}

// The frame's objects that are alive, in the order in which they were met, up to one that wasn't looked up:
// it might be the one, or its neighbour.
int32_t CollectCandidates(const QorLocalWalk &walk, const QorWantedFrame &frame, bool fromSlots) {
    int32_t count = 0;
    if (fromSlots) {
        for (int32_t i = 0; i < std::min<int32_t>(frame.hits, LOCAL_OBJECT_SLOTS); i++)
            if (IsAlive(frame.record->localObjects[i]))
                candidates[count++] = frame.record->localObjects[i];
        return count;
    }
    for (int32_t i = frame.first; i >= 0 && count < LOCAL_CANDIDATES; i = walk.findings[i].next) {
        if (walk.findings[i].tag > lookedUp)
            break;
        if (jobject object = objects[walk.findings[i].tag])
            candidates[count++] = object;
    }
    return count;
}

// False when the class can't be read now.
bool ReadSignature(jclass klass, const QorWantedFrame &frame, char *signature) {
    if (!QorIsClassInitialized(klass))
        return false;
    char *text = nullptr;
    const jvmtiError error = jvmti->GetClassSignature(klass, &text, nullptr);
    if (error != JVMTI_ERROR_NONE || !text) {
        // A walk for one frame knows its method by the id alone, and words it differently.
        if (frame.record)
            QORLOG(LOG_ERROR, "GetClassSignature failed error [%d]", error);
        else if (error != JVMTI_ERROR_NONE)
            QORLOG(LOG_ERROR, "Error while Getting GetClassSignature %d", error);
        else
            QORLOG(LOG_ERROR, "String Signature NULL");
        return false;
    }
    const int32_t length = QorCopyName(signature, text);
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(text));
    if (length == 0)
        QORLOG_RATIONED(LOG_ERROR, "No Signature found for method %s\n",
                        frame.record ? frame.record->methodName : "");
    return length > 0;
}

// No array is of interest. The JVM calls their classes never initialised.
bool IsArray(jclass klass) {
    jboolean isArray = JNI_FALSE;
    return jvmti->IsArrayClass(klass, &isArray) == JVMTI_ERROR_NONE && isArray;
}

// Whether the search ends at the object.
bool EndsSearch(jobject object, const QorWantedFrame &frame, bool (*ends)(const char *), jvmtiEnv *env,
                char *signature) {
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    if (!klass)
        return false;
    bool found = false;
    jlong mark = IsArray(klass) ? BORING_CLASS : 0;
    if (mark == 0 && ReadSignature(klass, frame, signature)) {
        found = !QorIsPassedOverObject(signature) && ends(signature);
        if (found)
            mark = IsQRFEoFrameObject(signature) ? EVENT_CLASS : WANTED_CLASS;
        else if (!QorIsTierObject(signature, TIER_OBJECTS))
            mark = BORING_CLASS;
    }
    if (mark != 0 && env)
        env->SetTag(klass, mark); // refused: it is looked at again next time
    QorDeleteLocalRef(jvmtijni_env, klass);
    return found;
}

// The local next to an entity's event is the entity: the one before it, or after it when the event comes
// first.
jobject Neighbour(int32_t at, int32_t count) {
    if (at > 0)
        return candidates[at - 1];
    if (count > 1)
        return candidates[1];
    QORLOG_RATIONED(LOG_ERROR, "Frame does not contain Eo Object");
    return nullptr;
}

} // namespace

int32_t QorCountFoundObjects(const QorLocalWalk &walk) {
    return walk.tagCount;
}

int32_t QorFetchFoundObjects(QorLocalWalk *walk) {
    std::fill(objects, objects + walk->tagCount + 1, nullptr);
    lookedUp = 0;
    while (lookedUp < walk->tagCount) {
        const int32_t count = std::min<int32_t>(TAGS_A_CALL, walk->tagCount - lookedUp);
        if (const int32_t error = FetchTags(*walk, lookedUp + 1, count))
            return error;
        lookedUp += count;
        if (lookedUp < walk->tagCount && QorLocalWalkTimeIsUp(*walk)) {
            walk->outcome.notLookedUp = walk->tagCount - lookedUp;
            QORLOG(LOG_DETAIL, "no time to look up %d of %d locals", walk->outcome.notLookedUp,
                   walk->tagCount);
            walk->tagBase += walk->tagCount; // their tags stay, older than any of the next walk
            break;
        }
    }
    walk->tagCount = 0;
    return JVMTI_ERROR_NONE;
}

jobject QorChooseLocalObject(const QorLocalWalk &walk, const QorWantedFrame &frame,
                             bool (*ends)(const char *), jvmtiEnv *env, char *signature) {
    const int32_t count = CollectCandidates(walk, frame, frame.record && getObjOpt);
    for (int32_t i = 0; i < count; i++) {
        signature[0] = 0;
        if (!EndsSearch(candidates[i], frame, ends, env, signature))
            continue;
        jobject chosen = IsQRFEoFrameObject(signature) ? Neighbour(i, count) : candidates[i];
        if (!chosen)
            break;
        return chosen;
    }
    signature[0] = 0;
    return nullptr;
}

void QorTakeRuleObjects(const QorLocalWalk &walk, const QorWantedFrame &frame, bool (*ends)(const char *),
                        jvmtiEnv *env, QorAllThreadLocalInfoList *entry) {
    const int32_t count = CollectCandidates(walk, frame, false);
    for (int32_t i = 0; i < count && entry->ruleObjectCount < LOCAL_RULE_OBJECTS; i++) {
        char signature[LOCAL_SIGNATURE_SIZE] = "";
        EndsSearch(candidates[i], frame, ends, env, signature);
        if (!QorIsTierObject(signature, entry->tiers))
            continue;
        if (jobject kept = QorNewGlobalRef(jvmtijni_env, candidates[i]))
            entry->ruleObjects[entry->ruleObjectCount++] = {kept, QorFindTierObjects(signature)};
    }
}
