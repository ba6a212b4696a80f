#include "object_fields.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "jvmti/threads/MethodTable.h"
#include "jvmti/threads/Monitors.h"
#include "qorlog.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int64_t gbiQorLocalVariableCounter = FIRST_OBJECT_TAG;

namespace {

constexpr char BLANK[] = " ";
constexpr char NO_CLASS_OF_OBJECT[] = "Not able to find class for object";

bool IsGone(jobject ref) {
    return !ref || QorIsSameObject(jvmtijni_env, ref, nullptr);
}

void Deallocate(void *memory) {
    if (memory)
        jvmti->Deallocate(static_cast<unsigned char *>(memory));
}

// A field as it is read: in its class when it is static, else in the object.
struct FieldPlace {
    jclass klass;
    jobject object;
    jfieldID id;
    bool isStatic;
};

template <typename T>
T Read(const FieldPlace &field, T (*ofClass)(JNIEnv *, jclass, jfieldID),
       T (*ofObject)(JNIEnv *, jobject, jfieldID)) {
    return field.isStatic ? ofClass(jvmtijni_env, field.klass, field.id)
                          : ofObject(jvmtijni_env, field.object, field.id);
}

jobject ReadObject(const FieldPlace &field) {
    return Read(field, QorGetStaticObjectField, QorGetObjectField);
}

void ShowCharacter(int32_t c, char *value) {
    snprintf(value, FIELD_TEXT_SIZE, "%c", QorIsValidChar(c) ? c : ' ');
}

void ShowInt(int32_t number, char *value) {
    snprintf(value, FIELD_TEXT_SIZE, "%d", number);
}

void ShowReal(double number, char *value) {
    snprintf(value, FIELD_TEXT_SIZE, "%f", number);
}

// The text of a primitive field. False for a code that isn't one's.
bool ReadPrimitive(int32_t typeCode, const FieldPlace &field, char *value) {
    switch (typeCode) {
    case QOR_TYPE_BOOLEAN:
        QorCopyName(value, Read(field, QorGetStaticBooleanField, QorGetBooleanField) ? "True" : "False");
        return true;
    case QOR_TYPE_BYTE:
        ShowCharacter(Read(field, QorGetStaticByteField, QorGetByteField), value);
        return true;
    case QOR_TYPE_CHAR:
        ShowCharacter(Read(field, QorGetStaticCharField, QorGetCharField), value);
        return true;
    case QOR_TYPE_SHORT:
        ShowInt(Read(field, QorGetStaticShortField, QorGetShortField), value);
        return true;
    case QOR_TYPE_INT:
        ShowInt(Read(field, QorGetStaticIntField, QorGetIntField), value);
        return true;
    case QOR_TYPE_LONG:
        snprintf(value, FIELD_TEXT_SIZE, "%ld", Read(field, QorGetStaticLongField, QorGetLongField));
        return true;
    case QOR_TYPE_FLOAT:
        ShowReal(static_cast<double>(Read(field, QorGetStaticFloatField, QorGetFloatField)), value);
        return true;
    case QOR_TYPE_DOUBLE:
        ShowReal(Read(field, QorGetStaticDoubleField, QorGetDoubleField), value);
        return true;
    default:
        return false;
    }
}

// Gives the object the next tag: the tag, or 0 when the JVM refuses it.
int64_t TagObject(jobject object) {
    QorWrapTagCounter();
    const jvmtiError error = jvmti->SetTag(object, gbiQorLocalVariableCounter);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "Error while settag %d", error);
        return 0;
    }
    return gbiQorLocalVariableCounter++;
}

void ReadReference(const FieldPlace &field, QorFieldRecord *record) {
    QORLOG(LOG_DETAIL, " Unknown type =%s", record->type);
    jobject object = ReadObject(field);
    record->tag = 0;
    if (IsGone(object))
        QORLOG(LOG_DETAIL, " Complex Object NULL ");
    else
        record->tag = TagObject(object);
    if (object)
        QorDeleteLocalRef(jvmtijni_env, object);
}

void ReadValue(int32_t typeCode, const FieldPlace &field, QorFieldRecord *record) {
    if (ReadPrimitive(typeCode, field, record->value))
        return;
    if (typeCode != QOR_TYPE_STRING && !QorIsArrayType(typeCode)) {
        ReadReference(field, record);
        return;
    }
    jobject object = ReadObject(field);
    if (typeCode != QOR_TYPE_STRING)
        QorReadArrayText(typeCode, object, record->value);
    else if (!QorReadStringText(object, record->value))
        QORLOG(LOG_DETAIL, "Failed to get the object for string"); // a null one isn't an error
    if (object)
        QorDeleteLocalRef(jvmtijni_env, object);
}

struct ModifierRow {
    jint bit; // access flag of the class file
    const char *format;
    int32_t modifier;
};

// The first row whose flag is set decides.
constexpr ModifierRow modifierRows[] = {
    {8, "Static: %s", QOR_MODIFIER_STATIC},
    {1, "Public: %s", QOR_MODIFIER_PUBLIC},
    {2, "Private: %s", QOR_MODIFIER_PRIVATE},
    {4, "Protected: %s", QOR_MODIFIER_PROTECTED},
};

void PutModifier(jint flags, QorFieldRecord *record) {
    record->modifier = QOR_MODIFIER_PUBLIC;
    for (const ModifierRow &row : modifierRows) {
        if (!(flags & row.bit))
            continue;
        char type[FIELD_TEXT_SIZE];
        memcpy(type, record->type, sizeof type);
        char worded[FIELD_TEXT_SIZE + 16];
        snprintf(worded, sizeof worded, row.format, type);
        QorCopyName(record->type, worded);
        record->modifier = row.modifier;
        if (row.modifier == QOR_MODIFIER_STATIC)
            QORLOG(LOG_DETAIL, "Static Field");
        return;
    }
}

// Reads one field whose signature is known. `classSignature` is that of the class which declares it.
bool ReadField(const FieldPlace &place, const char *signature, const char *classSignature,
               QorFieldRecord *record) {
    QorCopyName(record->type, signature);
    if (strncmp(classSignature, signature, strlen(signature)) == 0)
        return true; // a reference to its own kind leads on for ever: it is shown without a link
    const int32_t typeCode = QorRetPrimitiveType(signature);
    if (typeCode != QOR_TYPE_REFERENCE)
        QorCopyName(record->type, QorTypeText(typeCode));
    jint flags = 0;
    if (jvmti->GetFieldModifiers(place.klass, place.id, &flags) != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "Failed to get Modifier for fields ");
        return false;
    }
    PutModifier(flags, record);
    FieldPlace field = place;
    field.isStatic = record->modifier == QOR_MODIFIER_STATIC;
    ReadValue(typeCode, field, record);
    return true;
}

bool ReadNamedField(const FieldPlace &place, const char *classSignature, QorFieldRecord *record) {
    QorCopyName(record->value, BLANK);
    char *name = nullptr, *signature = nullptr;
    const jvmtiError error = jvmti->GetFieldName(place.klass, place.id, &name, &signature, nullptr);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "*GetFieldName returned %d", error);
        return false;
    }
    QorCopyName(record->name, name ? name : BLANK);
    QorCopyName(record->type, signature ? signature : BLANK);
    const bool read = name && signature && ReadField(place, signature, classSignature, record);
    Deallocate(name);
    Deallocate(signature);
    return read;
}

// Reads one pair's class. False ends the chain.
bool PopulateClass(QorClassDetails *record, const QorClassPair &pair, int32_t *room) {
    char *signature = nullptr;
    if (jvmti->GetClassSignature(pair.klass, &signature, nullptr) != JVMTI_ERROR_NONE || !signature) {
        QORLOG(LOG_DETAIL, "Failed to Get Class Signature");
        return true;
    }
    record->klass = pair.klass;
    QorCopyName(record->name, signature);
    Deallocate(signature);
    jint count = 0;
    jfieldID *fieldIds = nullptr;
    if (jvmti->GetClassFields(pair.klass, &count, &fieldIds) != JVMTI_ERROR_NONE) {
        QORLOG(LOG_DETAIL, "Failed to get field count for the class");
        count = 0;
        fieldIds = nullptr;
    }
    QORLOG(LOG_DETAIL, " Field Count is %d", count);
    count = std::min(count, *room);
    *room -= count;
    const bool read = count == 0 || QorGetClassDetails(record, pair.object, fieldIds, count) == 1;
    if (!read)
        QORLOG(LOG_ERROR, "QorGetClassDetails Function Failed");
    record->klass = nullptr;
    Deallocate(fieldIds);
    return read;
}

jclass OwnReference(jclass klass) {
    return static_cast<jclass>(jvmtijni_env->NewLocalRef(klass));
}

// Adds the chain of one array element from *count on, stopping where there is no room. A pair holds the lower
// of two classes that follow each other, so the first one comes twice and the last one not at all.
bool PairElement(jobject element, QorClassPair *pairs, int32_t *count) {
    jclass klass = QorGetObjectClass(jvmtijni_env, element);
    if (!klass) {
        QORLOG(LOG_ERROR, "%s", NO_CLASS_OF_OBJECT);
        return false;
    }
    if (*count < MAX_CLASS_PAIRS)
        pairs[(*count)++] = {OwnReference(klass), element};
    while (*count < MAX_CLASS_PAIRS) {
        jclass above = QorGetSuperclass(jvmtijni_env, klass);
        if (!above)
            break;
        pairs[(*count)++] = {OwnReference(klass), element};
        QorDeleteLocalRef(jvmtijni_env, klass);
        klass = above;
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
    return true;
}

// The number of elements read, 0 when there is none to show.
int32_t ReadElements(jarray array, jobject *elements) {
    if (IsGone(array)) {
        QORLOG(LOG_DETAIL, "Array Object is NULL. Cant extract fields from it");
        return 0;
    }
    const jsize length = QorGetArrayLength(jvmtijni_env, array);
    if (length <= 0) {
        QORLOG(LOG_DETAIL, "Array length is 0. No Objects in the array.");
        return 0;
    }
    const int32_t count = std::min<int32_t>(length, MAX_ARRAY_OBJECTS);
    for (int32_t i = 0; i < count; i++) {
        elements[i] = QorGetObjectArrayElement(jvmtijni_env, static_cast<jobjectArray>(array), i);
        if (IsGone(elements[i])) {
            QORLOG(LOG_DETAIL, "Object %d in the object array is null. Need to return", i);
            return 0;
        }
    }
    return count;
}

// Whether an array's elements are objects; JNI must not be asked for those of any other.
bool HoldsObjects(jarray array) {
    jclass klass = QorGetObjectClass(jvmtijni_env, array);
    char *signature = nullptr;
    if (!klass || jvmti->GetClassSignature(klass, &signature, nullptr) != JVMTI_ERROR_NONE || !signature)
        return false;
    const bool objects = signature[0] == '[' && (signature[1] == 'L' || signature[1] == '[');
    Deallocate(signature);
    QorDeleteLocalRef(jvmtijni_env, klass);
    return objects;
}

// The object that carries a tag, a reference of the caller's frame; null, logged, when there is none.
jobject FindTaggedObject(int32_t tag) {
    const jlong wanted = tag;
    jint count = 0;
    jobject *objects = nullptr;
    const jvmtiError error = jvmti->GetObjectsWithTags(1, &wanted, &count, &objects, nullptr);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "QorJVMTIAllGetClassDetails GetObjectWithTags failed err %d", error);
        return nullptr;
    }
    QorExpectLocalRefs(count + 2 * MAX_CLASS_PAIRS);
    jobject object = count > 0 ? objects[0] : nullptr;
    if (count <= 0)
        QORLOG(LOG_DETAIL, "No object found with tag %d object count %d. Object might have perished", tag,
               count);
    else if (!object)
        QORLOG(LOG_DETAIL, "obj null ..");
    else if (QorIsSameObject(jvmtijni_env, object, nullptr))
        QORLOG(LOG_DETAIL, "Object perished");
    Deallocate(objects);
    return IsGone(object) ? nullptr : object;
}

// Pairs the object with each class from `klass` upwards.
int32_t PairChain(jclass klass, jobject object, QorClassPair *pairs) {
    int32_t count = 0;
    while (klass && count < MAX_CLASS_PAIRS) {
        pairs[count++] = {klass, object};
        klass = QorGetSuperclass(jvmtijni_env, klass);
    }
    if (klass)
        QorDeleteLocalRef(jvmtijni_env, klass);
    return count;
}

} // namespace

void QorWrapTagCounter() {
    if (gbiQorLocalVariableCounter > LAST_OBJECT_TAG)
        gbiQorLocalVariableCounter = FIRST_OBJECT_TAG;
}

int32_t QorGetClassDetails(QorClassDetails *record, jobject object, const jfieldID *fieldIds, int32_t count) {
    QORLOG(LOG_TRACE, "QorGetClassDetails ");
    if (!record->klass) {
        QORLOG(LOG_ERROR, "Class NULL");
        return 0;
    }
    char *signature = nullptr;
    const jvmtiError error = jvmti->GetClassSignature(record->klass, &signature, nullptr);
    if (error != JVMTI_ERROR_NONE || !signature) {
        QORLOG(LOG_ERROR, "Failed to Get Signature %d", error);
        return 0;
    }
    record->fields =
        static_cast<QorFieldRecord *>(calloc(static_cast<size_t>(count), sizeof(QorFieldRecord)));
    if (!record->fields)
        QORLOG(LOG_ERROR, "Failed to allocate the object");
    bool read = record->fields != nullptr;
    for (int32_t i = 0; read && i < count; i++) {
        const FieldPlace place = {record->klass, object, fieldIds[i], false};
        read = ReadNamedField(place, signature, &record->fields[i]);
        record->fieldCount += read;
    }
    Deallocate(signature);
    return read ? 1 : 0;
}

void QorPopulateClassDetails(int32_t count, QorClassDetails **out, QorClassPair *pairs) {
    *out = static_cast<QorClassDetails *>(calloc(static_cast<size_t>(count), sizeof(QorClassDetails)));
    if (!*out) {
        QORLOG(LOG_ERROR, "No memory for the fields of %d classes", count);
        return;
    }
    int32_t room = MAX_FIELDS_OF_VIEW;
    bool more = true;
    for (int32_t i = 0; i < count; i++) {
        more = more && PopulateClass(&(*out)[i], pairs[i], &room);
        QorDeleteLocalRef(jvmtijni_env, pairs[i].klass);
    }
}

int32_t QorCollectClassFieldsArrayClass(jarray array, QorClassDetails **out) {
    *out = nullptr;
    if (!IsGone(array) && !HoldsObjects(array))
        return 0;
    jobject elements[MAX_ARRAY_OBJECTS];
    const int32_t elementCount = ReadElements(array, elements);
    QorClassPair pairs[MAX_CLASS_PAIRS];
    int32_t count = 0;
    for (int32_t i = 0; i < elementCount && count < MAX_CLASS_PAIRS; i++)
        if (!PairElement(elements[i], pairs, &count))
            return 0;
    if (count == 0)
        return 0;
    QORLOG(LOG_DETAIL, "QorPopulateClassDetails parent count is %d", count - 1);
    QorPopulateClassDetails(count, out, pairs);
    return *out ? count - 1 : 0;
}

int32_t QorJVMTIGetAllClassFields(int32_t tag, QorClassDetails **out) {
    *out = nullptr;
    if (tag <= 0) {
        QORLOG(LOG_ERROR, "QorJVMTIAllGetClassDetails is objtag <= 0");
        return 0;
    }
    QorLocalFrame frame(jvmtijni_env, 1);
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR);
        return 0;
    }
    jobject object = FindTaggedObject(tag);
    if (!object)
        return 0;
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    if (!klass) {
        QORLOG(LOG_ERROR, "%s", NO_CLASS_OF_OBJECT);
        return 0;
    }
    if (QorIsSameObject(jvmtijni_env, klass, nullptr)) {
        QORLOG(LOG_ERROR, "Class error");
        return 0;
    }
    jboolean isArray = JNI_FALSE;
    if (jvmti->IsArrayClass(klass, &isArray) != JVMTI_ERROR_NONE)
        QORLOG(LOG_ERROR, "Failed to determine array class. Proceed assuming non Array Class");
    if (isArray) {
        const int32_t count = QorCollectClassFieldsArrayClass(static_cast<jarray>(object), out);
        QORLOG(LOG_DETAIL, "Returned from QorCollectClassFieldsArrayClass IParentCount=%d", count);
        return count;
    }
    QorClassPair pairs[MAX_CLASS_PAIRS];
    const int32_t count = PairChain(klass, object, pairs);
    QORLOG(LOG_TRACE, "Total classcount=%d ", count - 1);
    QorPopulateClassDetails(count, out, pairs);
    return *out ? count - 1 : 0;
}

void QorFreeClassDetails(QorClassDetails *classes, int32_t parentCount) {
    for (int32_t i = 0; classes && i <= parentCount; i++)
        free(classes[i].fields);
    free(classes);
}
