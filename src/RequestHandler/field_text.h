// Values of fields and locals as text: what kind a signature names, and how a value of it is shown.
//
// Numbers, characters, strings and arrays of primitives have a text; all else is a reference, which the
// console opens by its tag. Texts are cut to what a record holds, at a character's end, and no more of an
// array or a string is copied than is shown. Worker only.
#pragma once

#include <cstdint>
#include <jni.h>

enum : int32_t {
    FIELD_TEXT_SIZE = 1024,
    MAX_ELEMENTS_SHOWN = 300,
};

enum QorTypeCode : int32_t {
    QOR_TYPE_REFERENCE,
    QOR_TYPE_BOOLEAN,
    QOR_TYPE_BOOLEAN_ARRAY,
    QOR_TYPE_BYTE,
    QOR_TYPE_BYTE_ARRAY,
    QOR_TYPE_CHAR,
    QOR_TYPE_CHAR_ARRAY,
    QOR_TYPE_SHORT,
    QOR_TYPE_SHORT_ARRAY,
    QOR_TYPE_INT,
    QOR_TYPE_INT_ARRAY,
    QOR_TYPE_LONG,
    QOR_TYPE_LONG_ARRAY,
    QOR_TYPE_FLOAT,
    QOR_TYPE_FLOAT_ARRAY,
    QOR_TYPE_DOUBLE,
    QOR_TYPE_DOUBLE_ARRAY,
    QOR_TYPE_STRING,
};

enum QorModifier : int32_t {
    QOR_MODIFIER_PUBLIC = 1, // and the default
    QOR_MODIFIER_PRIVATE,
    QOR_MODIFIER_PROTECTED,
    QOR_MODIFIER_STATIC,
};

// One field of an object, or one local of a frame.
struct QorFieldRecord {
    int64_t tag;                 // of the object referred to; 0 for a value
    int32_t modifier;            // QorModifier; not used for a local
    char name[FIELD_TEXT_SIZE];  // not used for a local
    char type[FIELD_TEXT_SIZE];  // kind or signature, after the word of a field's modifier
    char value[FIELD_TEXT_SIZE]; // " " for a reference
};

// The QorTypeCode of a JVM signature; a null one is a reference's.
int32_t QorRetPrimitiveType(const char *signature);

// The word for a type code, "Unknown" for a reference.
const char *QorTypeText(int32_t typeCode);

// Whether a character is shown as it is: ASCII letters and digits only.
bool QorIsValidChar(int32_t c);

// Whether a type code is that of an array.
bool QorIsArrayType(int32_t typeCode);

// The first elements of an array of the kind `typeCode`, joined, into FIELD_TEXT_SIZE bytes. A null or
// unreadable array is logged and leaves them as they are, and so does an empty one.
void QorReadArrayText(int32_t typeCode, jobject array, char *value);

// A string's text into FIELD_TEXT_SIZE bytes, " " for an empty one. False, with them as they are, for a null
// or unreadable string.
bool QorReadStringText(jobject string, char *value);

// Puts kind and text of a local's object into its record, and clears the record's tag. A reference's record
// stays as it is.
void QorGetPrimitiveObjectValues(int32_t typeCode, jobject object, QorFieldRecord *record);
