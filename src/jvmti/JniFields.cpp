#include "JniFields.h"

#include "JniCalls.h"
#include "JvmtiCalls.h"
#include "Session.h"
#include "ValueText.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "reply/record_facts.h"

#include <cstring>

namespace {

// What the readers of plain values say of bad arguments; the texts differ between them.
struct ReaderTexts {
    const char *nullArgument, *nullObject, *deadObject, *nullClass;
};

constexpr char NULL_OBJECT[] = "QorGetIntObjectField ptrObj Got NULL"; // the Int reader's text serves two
constexpr char NULL_CLASS[] = "Class extracted is NULL";
constexpr char NO_CLASS[] = "Extracted/Passed Class is NULL";
constexpr jint MONITOR_REFERENCES = 64;
constexpr char NO_FIELD[] = "Get Field ID Fail Field %s Signature : %s";

constexpr ReaderTexts INT_TEXTS = {
    "QorGetIntObjectField strFieldName or strFieldSignature or iValue Got NULL",
    NULL_OBJECT,
    "QorGetIntObjectField IsSameObject ptrObj NULL",
    NULL_CLASS,
};
constexpr ReaderTexts BOOLEAN_TEXTS = {
    "QorGetBooleanObjectField strFieldName or strFieldSignature or iValue Got NULL",
    NULL_OBJECT,
    "QorGetBooleanObjectField IsSameObject ptrObj NULL",
    NULL_CLASS,
};
constexpr ReaderTexts LONG_TEXTS = {
    "QorGetLongObjectField, strFieldName or strFieldSignature or lValue got NULL",
    "QorGetLongObjectField ptrObj NULL",
    "QorGetLongObjectField IsSameObject ptrObj NULL",
    NO_CLASS,
};

// GetFieldID waits for a static initialiser that another thread is in, which may be for ever: the fields of
// such a class are missing.
jfieldID FindField(jclass klass, const char *name, const char *signature) {
    return QorIsClassInitialized(klass) ? QorGetFieldID(jvmtijni_env, klass, name, signature) : nullptr;
}

// Names are tested first, with the output untouched; whatever fails later clears it.
template <typename Value, typename Raw>
int32_t ReadValue(jobject obj, const char *name, const char *signature, Value *out, const ReaderTexts &texts,
                  Raw (*read)(JNIEnv *, jobject, jfieldID)) {
    if (!name || !signature || !out) {
        QORLOG(LOG_ERROR, "%s", texts.nullArgument);
        return -1;
    }
    *out = 0;
    if (!obj) {
        QORLOG_RATIONED(LOG_ERROR, "%s", texts.nullObject);
        return -1;
    }
    if (QorIsSameObject(jvmtijni_env, obj, nullptr)) {
        QORLOG_RATIONED(LOG_ERROR, "%s", texts.deadObject);
        return -1;
    }
    jclass klass = QorGetObjectClass(jvmtijni_env, obj);
    if (!klass) {
        QORLOG(LOG_ERROR, "%s", texts.nullClass);
        return -1;
    }
    jfieldID field = FindField(klass, name, signature);
    if (field)
        *out = read(jvmtijni_env, obj, field);
    QorDeleteLocalRef(jvmtijni_env, klass);
    return field ? 0 : -1;
}

// A value of the table walked by QorSearchHashTable: fetched as text and given back.
void TouchString(jobject str) {
    if (!str)
        return;
    const char *chars = QorGetStringUTFChars(jvmtijni_env, static_cast<jstring>(str), nullptr);
    if (chars)
        QorReleaseStringUTFChars(jvmtijni_env, static_cast<jstring>(str), chars);
}

// Hashtable.get; the reference, null or not, is the caller's.
jobject CallGet(jobject table, jmethodID get, jobject key) {
    jobject value = jvmtijni_env->CallObjectMethod(table, get, key);
    QorClearException(jvmtijni_env);
    return value;
}

bool HaveHashTableClass() {
    if (!hashTableClass) {
        jclass found = QorFindClass(jvmtijni_env, "java/util/Hashtable");
        if (found) {
            // Kept global, since the end of the session deletes it as such.
            hashTableClass = static_cast<jclass>(QorNewGlobalRef(jvmtijni_env, found));
            QorDeleteLocalRef(jvmtijni_env, found);
        }
    }
    return hashTableClass;
}

// A table's methods take its lock, and a thread of the application may be in one of them for ever. Who
// holds it can't be asked where a thread may end meanwhile.
bool MayBeLocked(jobject table) {
    if (!gbQorJvmKeepsThreads)
        return true;
    QorLocalFrame frame(jvmtijni_env, MONITOR_REFERENCES); // each waiter comes as a reference
    jvmtiMonitorUsage usage = {};
    if (!frame.pushed || jvmti->GetObjectMonitorUsage(table, &usage) != JVMTI_ERROR_NONE)
        return true;
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.waiters));
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.notify_waiters));
    return usage.owner;
}

jmethodID HashTableGet() {
    return QorGetMethodID(jvmtijni_env, hashTableClass, "get", "(Ljava/lang/Object;)Ljava/lang/Object;");
}

} // namespace

int32_t QorGetIntObjectField(jobject obj, const char *name, const char *signature, int32_t *out) {
    return ReadValue(obj, name, signature, out, INT_TEXTS, QorGetIntField);
}

int32_t QorGetBooleanObjectField(jobject obj, const char *name, const char *signature, jboolean *out) {
    return ReadValue(obj, name, signature, out, BOOLEAN_TEXTS, QorGetBooleanField);
}

int32_t QorGetLongObjectField(jobject obj, const char *name, const char *signature, int64_t *out) {
    return ReadValue(obj, name, signature, out, LONG_TEXTS, QorGetLongField);
}

int32_t QorGetObjField(jobject obj, const char *name, const char *signature, jobject *out) {
    if (!out)
        return -1;
    *out = nullptr;
    if (!obj) {
        QORLOG_RATIONED(LOG_ERROR, "QorGetObjectField - main Object is NULL");
        return -1;
    }
    if (QorIsSameObject(jvmtijni_env, obj, nullptr)) {
        QORLOG_RATIONED(LOG_ERROR, "QorGetObjectField IsSameObject ptrObj NULL");
        return -1;
    }
    jclass klass = QorGetObjectClass(jvmtijni_env, obj);
    if (!klass) {
        QORLOG(LOG_ERROR, "%s", NO_CLASS);
        return -1;
    }
    int32_t result = -1;
    if (!name || !signature) {
        QORLOG(LOG_ERROR, "StrFieldName or Signature are NULL");
    } else if (jfieldID field = FindField(klass, name, signature)) {
        *out = QorGetObjectField(jvmtijni_env, obj, field);
        result = 0;
    } else if (qorIsPollOrTrace == 0) {
        // Polling walks fields that may be absent thousands of times.
        QORLOG_RATIONED(LOG_ERROR, NO_FIELD, name, signature);
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
    return result;
}

int32_t QorGetObjectFromStaticField(jobject obj, jclass klass, const char *name, const char *signature,
                                    jobject *out) {
    if (!out)
        return -1;
    *out = nullptr;
    if (!obj)
        return -1;
    if (QorIsSameObject(jvmtijni_env, obj, nullptr)) {
        QORLOG_RATIONED(LOG_ERROR, "QorGetObjectFromStaticField IsSameObject *ptrObj NULL");
        return -1;
    }
    if (!name || !signature) {
        QORLOG(LOG_ERROR, "QorGetObjectFromStaticField strFieldName or strFieldSignature NULL");
        return -1;
    }
    jclass holder = klass ? klass : QorGetObjectClass(jvmtijni_env, obj);
    if (!holder) {
        QORLOG(LOG_ERROR, " Not able to get the class");
        return -1;
    }
    int32_t result = -1;
    if (jfieldID field = QorGetStaticFieldID(jvmtijni_env, holder, name, signature)) {
        *out = QorGetStaticObjectField(jvmtijni_env, holder, field);
        result = 0;
    } else {
        QORLOG_RATIONED(LOG_ERROR, NO_FIELD, name, signature);
    }
    if (!klass)
        QorDeleteLocalRef(jvmtijni_env, holder);
    return result;
}

int32_t QorFindObjectField(jobject *objptr, jclass *klassptr, const char *name, const char *signature,
                           jobject *out) {
    if (!objptr || !*objptr || !name || !signature || !out)
        return 0;
    *out = nullptr;
    jclass klass = klassptr ? *klassptr : QorGetObjectClass(jvmtijni_env, *objptr);
    if (!klass)
        return 0;
    jfieldID field = FindField(klass, name, signature);
    if (!field)
        QORLOG_RATIONED(LOG_ERROR, "QorFindObjectField Get Field ID FAil ");
    else
        *out = QorGetObjectField(jvmtijni_env, *objptr, field); // reading by a null id would end the JVM
    if (!klassptr)
        QorDeleteLocalRef(jvmtijni_env, klass);
    return 0;
}

int32_t QorGetStringObjectValue(jstring str, char *dest, int32_t capacity) {
    if (!str)
        return 0;
    if (QorIsSameObject(jvmtijni_env, str, nullptr)) {
        QORLOG_RATIONED(LOG_ERROR, "QorGetStringObjectValue IsSameObject *ptrObj NULL");
        return -1;
    }
    QorReadString(jvmtijni_env, str, dest, capacity, BLANK_NOTHING);
    return 0;
}

int32_t QorGetHashValue(jobject *tableptr, const char *key, jobject *out) {
    if (out)
        *out = nullptr;
    if (!tableptr || !*tableptr || !key || !out)
        return 0;
    if (!HaveHashTableClass() || MayBeLocked(*tableptr))
        return 0;
    jmethodID get = HashTableGet();
    jstring text = QorNewStringUTF(jvmtijni_env, key);
    if (get && text)
        *out = CallGet(*tableptr, get, text);
    QorDeleteLocalRef(jvmtijni_env, text);
    return 0;
}

int32_t QorSearchHashTable(jobject *tableptr, const char *, const char *) {
    if (!tableptr || !*tableptr)
        return -1;
    QorLocalFrame frame(jvmtijni_env, 8);
    if (!frame.pushed || !HaveHashTableClass())
        return 0;
    jmethodID get = HashTableGet();
    jmethodID keys = QorGetMethodID(jvmtijni_env, hashTableClass, "keys", "()Ljava/util/Enumeration;");
    jclass enumeration = QorFindClass(jvmtijni_env, "java/util/Enumeration");
    if (!get || !keys || !enumeration)
        return 0;
    jmethodID more = QorGetMethodID(jvmtijni_env, enumeration, "hasMoreElements", "()Z");
    jmethodID next = QorGetMethodID(jvmtijni_env, enumeration, "nextElement", "()Ljava/lang/Object;");
    jobject cursor = QorCallObjectMethod(jvmtijni_env, *tableptr, keys);
    if (!more || !next || !cursor)
        return 0;
    while (QorCallBooleanMethod(jvmtijni_env, cursor, more)) {
        QorLocalFrame inner(jvmtijni_env, 4);
        jobject key = inner.pushed ? QorCallObjectMethod(jvmtijni_env, cursor, next) : nullptr;
        if (!key)
            break;
        TouchString(key);
        TouchString(CallGet(*tableptr, get, key));
    }
    return 0;
}

int32_t QorGetObjectClassSignature(jobject obj, char *dest) {
    if (QorIsSameObject(jvmtijni_env, obj, nullptr)) {
        QORLOG_RATIONED(LOG_ERROR, "QorGetObjectClassSignature IsSameObject obj NULL");
        return -1;
    }
    if (!dest) {
        QORLOG(LOG_ERROR, "QorGetObjectClassSignature pointer passed is NULL");
        return -1;
    }
    jclass klass = QorGetObjectClass(jvmtijni_env, obj);
    if (!klass) {
        QORLOG(LOG_ERROR, "QorGetObjectClassSignature Could not get object class ");
        return -1;
    }
    if (QorIsSameObject(jvmtijni_env, klass, nullptr)) {
        QORLOG(LOG_ERROR, "QorGetObjectClassSignature objClass is NULL");
        return -1;
    }
    int32_t result = 0;
    if (QorIsClassInitialized(klass)) {
        char *signature = nullptr;
        if (jvmti->GetClassSignature(klass, &signature, nullptr) != JVMTI_ERROR_NONE) {
            QORLOG(LOG_ERROR, "QorGetObjectClassSignature: Could not get class signature");
            result = -1;
        } else if (signature) {
            QorStrncpy(dest, signature, NAME_SIZE, NAME_SIZE);
            jvmti->Deallocate(reinterpret_cast<unsigned char *>(signature));
        }
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
    return result;
}
