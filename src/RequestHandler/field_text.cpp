#include "field_text.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/ValueText.h"
#include "jvmti/threads/MethodTable.h"
#include "qorlog.h"
#include "reply/qortext.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

static_assert(int32_t{FIELD_TEXT_SIZE} == int32_t{NAME_SIZE},
              "texts of both kinds are copied by one function");

constexpr int32_t ELEMENT_SIZE = 16;

struct TypeRow {
    const char *start;
    int32_t code;
    const char *text;
};

// The first row with which a signature starts decides.
constexpr TypeRow typeRows[] = {
    {"Ljava/lang/String;", QOR_TYPE_STRING, "String"},
    {"[I", QOR_TYPE_INT_ARRAY, "Int Array"},
    {"Z", QOR_TYPE_BOOLEAN, "Boolean"},
    {"[Z", QOR_TYPE_BOOLEAN_ARRAY, "Boolean Array"},
    {"I", QOR_TYPE_INT, "Int"},
    {"J", QOR_TYPE_LONG, "Long"},
    {"[J", QOR_TYPE_LONG_ARRAY, "Long Array"},
    {"C", QOR_TYPE_CHAR, "Char"},
    {"[C", QOR_TYPE_CHAR_ARRAY, "Char Array"},
    {"B", QOR_TYPE_BYTE, "Byte"},
    {"[B", QOR_TYPE_BYTE_ARRAY, "Byte Array"},
    {"F", QOR_TYPE_FLOAT, "Float"},
    {"[F", QOR_TYPE_FLOAT_ARRAY, "Float Array"},
    {"S", QOR_TYPE_SHORT, "Short"},
    {"[S", QOR_TYPE_SHORT_ARRAY, "Short Array"},
    {"[D", QOR_TYPE_DOUBLE_ARRAY, "Double Array"},
    {"D", QOR_TYPE_DOUBLE, "Double"},
};

using ElementText = char[ELEMENT_SIZE];

const char *ShowBoolean(jboolean value, ElementText &) {
    return value ? " True" : " False";
}

template <typename T>
const char *ShowCharacter(T value, ElementText &text) {
    text[0] = ' ';
    text[1] = QorIsValidChar(value) ? static_cast<char>(value) : ' ';
    text[2] = 0;
    return text;
}

// Array elements are shown in 32 bits: the lower half of a long, and of a real number the whole part, if it
// has one that fits.
int32_t ShownBits(jlong value) {
    return static_cast<int32_t>(value);
}

int32_t ShownBits(jdouble value) {
    return value >= INT32_MIN && value <= INT32_MAX ? static_cast<int32_t>(value) : 0;
}

template <typename Wide, typename T>
const char *ShowNumber(T value, ElementText &text) {
    snprintf(text, sizeof text, "%s%d", " ", ShownBits(static_cast<Wide>(value)));
    return text;
}

// Joins the first elements, as many as are shown and fit. False when they are unavailable.
template <typename T, typename Array, void (JNIEnv::*getRegion)(Array, jsize, jsize, T *),
          const char *(*show)(T, ElementText &)>
bool Join(jobject array, QorText *text) {
    T elements[MAX_ELEMENTS_SHOWN];
    const jsize length = QorGetArrayLength(jvmtijni_env, static_cast<Array>(array));
    const jsize count = std::min<jsize>(length, MAX_ELEMENTS_SHOWN);
    (jvmtijni_env->*getRegion)(static_cast<Array>(array), 0, count, elements);
    if (QorClearException(jvmtijni_env))
        return false;
    for (jsize i = 0; i < count; i++) {
        ElementText storage;
        const char *element = show(elements[i], storage);
        if (text->length + strlen(element) >= FIELD_TEXT_SIZE)
            break;
        QorTextAppend(text, element);
    }
    return true;
}

struct ArrayRow {
    int32_t code;
    bool (*join)(jobject array, QorText *text);
    const char *failure;
};

constexpr ArrayRow arrayRows[] = {
    {QOR_TYPE_BOOLEAN_ARRAY, Join<jboolean, jbooleanArray, &JNIEnv::GetBooleanArrayRegion, ShowBoolean>,
     " Failed to get the object for Boolean Array"},
    {QOR_TYPE_BYTE_ARRAY, Join<jbyte, jbyteArray, &JNIEnv::GetByteArrayRegion, ShowCharacter<jbyte>>,
     "Failed to get the object for Byte Array"},
    {QOR_TYPE_CHAR_ARRAY, Join<jchar, jcharArray, &JNIEnv::GetCharArrayRegion, ShowCharacter<jchar>>,
     " Failed to get the object for Char Array"},
    {QOR_TYPE_SHORT_ARRAY, Join<jshort, jshortArray, &JNIEnv::GetShortArrayRegion, ShowNumber<jlong, jshort>>,
     "Failed to get the object for short array"},
    {QOR_TYPE_INT_ARRAY, Join<jint, jintArray, &JNIEnv::GetIntArrayRegion, ShowNumber<jlong, jint>>,
     "Failed to get the object for integer array"},
    {QOR_TYPE_LONG_ARRAY, Join<jlong, jlongArray, &JNIEnv::GetLongArrayRegion, ShowNumber<jlong, jlong>>,
     "Failed to get the object for long array"},
    {QOR_TYPE_FLOAT_ARRAY,
     Join<jfloat, jfloatArray, &JNIEnv::GetFloatArrayRegion, ShowNumber<jdouble, jfloat>>,
     "Failed to get the object for float earray"},
    {QOR_TYPE_DOUBLE_ARRAY,
     Join<jdouble, jdoubleArray, &JNIEnv::GetDoubleArrayRegion, ShowNumber<jdouble, jdouble>>,
     "Qor Agent: Failed to get the object for double array"},
};

const ArrayRow *FindArrayRow(int32_t typeCode) {
    for (const ArrayRow &row : arrayRows)
        if (row.code == typeCode)
            return &row;
    return nullptr;
}

// A local is always an object, so these kinds can't come up; should they, the log says which.
struct WordRow {
    int32_t code;
    const char *word;
};

constexpr WordRow wordsOfNoObject[] = {
    {QOR_TYPE_BOOLEAN, "QorTypeBoolean"},
    {QOR_TYPE_BYTE, "Qor Agent:Type byte "},
    {QOR_TYPE_CHAR, "Char "},
    {QOR_TYPE_SHORT, "Qor Agent: Short "},
};

} // namespace

int32_t QorRetPrimitiveType(const char *signature) {
    if (signature)
        for (const TypeRow &row : typeRows)
            if (strncmp(signature, row.start, strlen(row.start)) == 0)
                return row.code;
    return QOR_TYPE_REFERENCE;
}

const char *QorTypeText(int32_t typeCode) {
    for (const TypeRow &row : typeRows)
        if (row.code == typeCode)
            return row.text;
    return "Unknown";
}

bool QorIsValidChar(int32_t c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool QorIsArrayType(int32_t typeCode) {
    return FindArrayRow(typeCode) != nullptr;
}

void QorReadArrayText(int32_t typeCode, jobject array, char *value) {
    const ArrayRow *row = FindArrayRow(typeCode);
    if (!row)
        return;
    char storage[FIELD_TEXT_SIZE];
    QorText text;
    QorTextStart(&text, storage, sizeof storage);
    if (!array || QorIsSameObject(jvmtijni_env, array, nullptr))
        QORLOG(LOG_DETAIL, "%s", row->failure); // a null array isn't an error
    else if (!row->join(array, &text))
        QORLOG_RATIONED(LOG_ERROR, "%s", row->failure);
    else if (text.length > 0)
        memcpy(value, text.text, static_cast<size_t>(text.length) + 1);
}

bool QorReadStringText(jobject string, char *value) {
    const int32_t length =
        QorReadString(jvmtijni_env, static_cast<jstring>(string), value, FIELD_TEXT_SIZE, BLANK_MARKS);
    if (length == 0)
        QorCopyName(value, " ");
    return length >= 0;
}

void QorGetPrimitiveObjectValues(int32_t typeCode, jobject object, QorFieldRecord *record) {
    if (typeCode == QOR_TYPE_REFERENCE)
        return;
    QorCopyName(record->type, QorTypeText(typeCode));
    record->tag = 0;
    if (QorIsArrayType(typeCode))
        QorReadArrayText(typeCode, object, record->value);
    else if (typeCode == QOR_TYPE_STRING && !QorReadStringText(object, record->value))
        QORLOG(LOG_DETAIL, "Failed to get string ");
    for (const WordRow &row : wordsOfNoObject)
        if (row.code == typeCode)
            QORLOG(LOG_ERROR, "%s", row.word);
}
