#include "GCSystem.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstring>

QorGCSummaryEntry gbQorGCSummaryObj[GC_ENTRIES];

namespace {

enum : jint { ATTRIBUTE_GC_TIME = 9, ATTRIBUTE_GC_COUNT = 10 };
enum : int32_t { MAJOR, MINOR };

constexpr const char *MAJOR_COLLECTORS[] = {"MarkSweep", "Old", "Major"};
constexpr char CYCLES[] = "Cycles", CONCURRENT[] = "Concurrent";

// What is said when a call throws, and when it returns null (a null text: it cannot).
struct Complaint {
    const char *threw, *null;
};

constexpr Complaint BEANS_METHOD = {"GetStaticMethodID failed for stGCBeans \n", "stGCBeans class is null\n"};
constexpr Complaint BEANS_CALL = {"CallStaticObjectMethod failed for joList\n", "joList is NULL\n"};
constexpr Complaint LIST_CLASS = {"FindClass failed for jcList\n", "jcList object is null\n"};
constexpr Complaint SIZE_METHOD = {"GetMethodID failed for jmSize\n", nullptr};
constexpr Complaint SIZE_CALL = {"CallIntMethod failed for iSize \n", nullptr};
constexpr Complaint GET_METHOD = {"Qor agent: GetMethodID failed for jmGet\n", nullptr};
constexpr Complaint GET_CALL = {"CallObjectMethod failed for joGCType \n", nullptr};
constexpr Complaint BEAN_CLASS = {"GetObjectClass failed for jcGCClassType \n", "jcGCClassType is NULL\n"};
constexpr Complaint VALID_METHOD = {"GetMethodID failed for jmIsValid \n", "jmIsValid  is NULL\n"};
constexpr Complaint VALID_CALL = {"CallBooleanMethod failed for jbIsValid \n", nullptr};
constexpr Complaint COUNT_METHOD = {"GetMethodID failed for jmGCCount \n", "jmGCCount  is NULL\n"};
constexpr Complaint COUNT_CALL = {"CallLongMethod failed for lGCCount \n", nullptr};
constexpr Complaint TIME_METHOD = {"GetMethodID failed for jmGCTime \n", nullptr};
constexpr Complaint TIME_CALL = {"CallLongMethod failed for lGCTime \n", nullptr};
constexpr Complaint NAME_METHOD = {"GetMethodID failed for jmGCName \n", "jmGCName or jmGCName is NULL\n"};
constexpr Complaint NAME_CALL = {"CallObjectMethod failed for joGCName \n", "joGCName is NULL\n"};
constexpr Complaint NAME_TEXT = {"GetStringUTFChars failed for strGCName \n", nullptr};
constexpr Complaint NAME_RELEASE = {"ReleaseStringUTFChars failed for strGCName \n", nullptr};

// The rows know which call failed, which the wrappers around JNI would hide. So the JNI table is used here,
// and each call is followed by one of these.

// True when the last call threw: the exception is cleared and the complaint logged.
bool Threw(const Complaint &complaint) {
    if (!QorClearException(jvmtijni_env))
        return false;
    QORLOG(LOG_ERROR, "%s", complaint.threw);
    return true;
}

// True when the last call, which gave `result`, has not given anything to go on with.
bool Failed(const void *result, const Complaint &complaint) {
    if (Threw(complaint))
        return true;
    if (result)
        return false;
    if (complaint.null)
        QORLOG(LOG_ERROR, "%s", complaint.null);
    return true;
}

jmethodID MethodOf(jclass klass, const char *name, const char *signature, const Complaint &complaint) {
    jmethodID method = jvmtijni_env->GetMethodID(klass, name, signature);
    return Failed(method, complaint) ? nullptr : method;
}

// The list of the collector beans; null after a failure.
jobject BeanList() {
    JNIEnv *env = jvmtijni_env;
    jmethodID beans =
        env->GetStaticMethodID(gbjcManagementClass, "getGarbageCollectorMXBeans", "()Ljava/util/List;");
    if (Failed(beans, BEANS_METHOD))
        return nullptr;
    jobject list = env->CallStaticObjectMethod(gbjcManagementClass, beans);
    return Failed(list, BEANS_CALL) ? nullptr : list;
}

// One figure of a bean. False after a failure.
bool ReadFigure(jobject bean, jclass klass, const char *getter, const Complaint &method,
                const Complaint &call, int64_t *out) {
    jmethodID id = MethodOf(klass, getter, "()J", method);
    if (!id)
        return false;
    *out = jvmtijni_env->CallLongMethod(bean, id);
    return !Threw(call);
}

bool ReadName(jobject bean, jclass klass, char *out) {
    JNIEnv *env = jvmtijni_env;
    jmethodID getName = MethodOf(klass, "getName", "()Ljava/lang/String;", NAME_METHOD);
    if (!getName)
        return false;
    jstring name = static_cast<jstring>(env->CallObjectMethod(bean, getName));
    if (Failed(name, NAME_CALL))
        return false;
    const char *text = env->GetStringUTFChars(name, nullptr);
    if (Failed(text, NAME_TEXT))
        return false;
    QorStrncpy(out, text, GC_NAME_SIZE, GC_NAME_SIZE);
    env->ReleaseStringUTFChars(name, text);
    return !Threw(NAME_RELEASE);
}

// False when the reading ends here.
bool ReadBean(jobject bean, QorCollector *out) {
    JNIEnv *env = jvmtijni_env;
    jclass klass = env->GetObjectClass(bean);
    if (Failed(klass, BEAN_CLASS))
        return false;
    jmethodID isValid = MethodOf(klass, "isValid", "()Z", VALID_METHOD);
    if (!isValid)
        return false;
    const bool valid = env->CallBooleanMethod(bean, isValid);
    if (Threw(VALID_CALL))
        return false;
    if (!valid) {
        QORLOG(LOG_ERROR, "jbIsValid is not valid\n");
        return false;
    }
    return ReadFigure(bean, klass, "getCollectionCount", COUNT_METHOD, COUNT_CALL, &out->count) &&
           ReadFigure(bean, klass, "getCollectionTime", TIME_METHOD, TIME_CALL, &out->time) &&
           ReadName(bean, klass, out->name);
}

// Within the caller's local frame.
int32_t ReadBeans(QorCollector (&out)[MAX_COLLECTORS]) {
    JNIEnv *env = jvmtijni_env;
    jobject list = BeanList();
    if (!list)
        return 0;
    jclass listClass = env->FindClass("java/util/List");
    if (Failed(listClass, LIST_CLASS))
        return 0;
    jmethodID size = MethodOf(listClass, "size", "()I", SIZE_METHOD);
    jmethodID get = size ? MethodOf(listClass, "get", "(I)Ljava/lang/Object;", GET_METHOD) : nullptr;
    if (!get)
        return 0;
    const jint count = env->CallIntMethod(list, size);
    if (Threw(SIZE_CALL))
        return 0;
    int32_t read = 0;
    for (jint i = 0; i < count && read < MAX_COLLECTORS; i++) {
        QorLocalFrame turn(env, 8); // a bean, its class and its name
        jobject bean = env->CallObjectMethod(list, get, i);
        if (Threw(GET_CALL) || (bean && !ReadBean(bean, &out[read])))
            break;
        read += bean != nullptr;
    }
    return read;
}

bool EndsWith(const char *text, const char *end) {
    const size_t length = strlen(text), endLength = strlen(end);
    return length >= endLength && strcmp(text + length - endLength, end) == 0;
}

// Whether the collector works beside the application. The word is looked for, not what begins with it: the
// old generation of "ConcurrentMarkSweep" is collected by nothing else.
bool IsBeside(const char *collector) {
    const char *word = strstr(collector, CONCURRENT);
    const char after = word ? word[sizeof CONCURRENT - 1] : 'x';
    return EndsWith(collector, CYCLES) || after == 0 || after == ' ';
}

bool IsMajor(const char *collector) {
    for (const char *word : MAJOR_COLLECTORS)
        if (strstr(collector, word))
            return true;
    return false;
}

// The sum, -1 once a part of it is unknown.
int64_t Sum(int64_t sum, int64_t part) {
    return sum < 0 || part < 0 ? -1 : sum + part;
}

void StartRow(int32_t row, const char *name) {
    QorGCSummaryEntry &entry = gbQorGCSummaryObj[row];
    entry = {};
    entry.index = row + 1;
    memcpy(entry.name, name, strlen(name) + 1);
}

void AskTable(jint attribute, int32_t *result) {
    if (!jmm || !jmm->GetLongAttribute || !jvmtijni_env)
        return;
    *result = static_cast<int32_t>(jmm->GetLongAttribute(jvmtijni_env, nullptr, attribute));
    QorClearException(jvmtijni_env);
    if (*result < 0)
        *result = 0;
}

} // namespace

int32_t QorInitGCSummaryHandle() {
    return 0;
}

int32_t QorCloseGCSummaryHandle() {
    return 0;
}

int32_t QorGetGCSummary(QorGCSummaryEntry **entries) {
    *entries = gbQorGCSummaryObj;
    if (!QorGetManagementGCCountCapability()) {
        StartRow(0, "Total GC Count");
        int32_t count = 0;
        AskTable(ATTRIBUTE_GC_COUNT, &count);
        gbQorGCSummaryObj[0].count = static_cast<uint32_t>(count);
        return 1;
    }
    StartRow(MAJOR, "Major GC Count");
    StartRow(MINOR, "Minor GC Count");
    int64_t counts[GC_ENTRIES] = {};
    QorCollector collectors[MAX_COLLECTORS];
    const int32_t read = QorGetCollectors(collectors);
    for (int32_t i = 0; i < read; i++) {
        if (IsBeside(collectors[i].name))
            continue;
        const int32_t row = IsMajor(collectors[i].name) ? MAJOR : MINOR;
        counts[row] = Sum(counts[row], collectors[i].count);
        gbQorGCSummaryObj[row].count = static_cast<uint32_t>(counts[row]);
        gbQorGCSummaryObj[row].time = Sum(gbQorGCSummaryObj[row].time, collectors[i].time);
    }
    return 2;
}

int32_t QorGetCollectors(QorCollector (&out)[MAX_COLLECTORS]) {
    if (!jvmtijni_env || QorIsSameObject(jvmtijni_env, gbjcManagementClass, nullptr))
        return 0;
    const jint pushed = jvmtijni_env->PushLocalFrame(1);
    if (Threw({"PushLocalFrame failed \n", nullptr}))
        return 0;
    if (pushed < 0) {
        QORLOG(LOG_ERROR, "GCPushLocalFrame Out of Memory\n");
        return 0;
    }
    const int32_t read = ReadBeans(out);
    QorPopLocalFrame(jvmtijni_env, nullptr);
    return read;
}

int32_t QorGetTotalGCCount(int32_t *result) {
    AskTable(ATTRIBUTE_GC_COUNT, result);
    return 0;
}

int32_t QorGetTotalGCTime(int32_t *result) {
    AskTable(ATTRIBUTE_GC_TIME, result);
    return 0;
}

int32_t QorSetGCHandlerNotification(jvmtiEnv *env) {
    constexpr struct {
        jvmtiEvent event;
        const char *refused;
    } EVENTS[] = {
        {JVMTI_EVENT_GARBAGE_COLLECTION_START,
         "QorSetGCHandlerNotification JVMTI_EVENT_GARBAGE_COLLECTION_START Not able to set %d"},
        {JVMTI_EVENT_GARBAGE_COLLECTION_FINISH,
         "QorSetGCHandlerNotification JVMTI_EVENT_GARBAGE_COLLECTION_FINISH Not able to set %d"},
    };
    for (const auto &row : EVENTS) {
        const jvmtiError error = env->SetEventNotificationMode(JVMTI_ENABLE, row.event, nullptr);
        if (error != JVMTI_ERROR_NONE) {
            QORLOG(LOG_NOTE, row.refused, error);
            return 0;
        }
    }
    jvmtiEventCallbacks callbacks = {};
    callbacks.GarbageCollectionStart = qorcallbackGCStart;
    callbacks.GarbageCollectionFinish = qorcallbackGCFinish;
    const jvmtiError error = env->SetEventCallbacks(&callbacks, sizeof callbacks);
    if (error == JVMTI_ERROR_NONE)
        return 1;
    QORLOG(LOG_NOTE, "QorSetGCHandlerNotification not able to set callbacks %d", error);
    return 0;
}

void JNICALL qorcallbackGCStart(jvmtiEnv *) {
    QORLOG(LOG_TRACE, "qorcallbackGCStart....");
}

void JNICALL qorcallbackGCFinish(jvmtiEnv *) {
    QORLOG(LOG_TRACE, "qorcallbackGCFinish....");
}
