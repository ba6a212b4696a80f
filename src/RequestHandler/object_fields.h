// The fields of an object, class by class up its chain.
//
// The console knows an object by a tag that the session's environment puts on it when it is shown, and sends
// the tag back to open the object. Tags are handed out in a circle: a console that keeps one for long may
// find that the object is gone, or that a younger object answers to its number. Worker only.
#pragma once

#include "field_text.h"

#include <cstdint>
#include <jni.h>
#include <jvmti.h>

enum : int32_t {
    FIRST_OBJECT_TAG = 5000, // below it are the tags of other readers
    LAST_OBJECT_TAG = 50000,
    MAX_CLASS_PAIRS = 50,      // classes of one view
    MAX_ARRAY_OBJECTS = 20,    // elements looked at in an array of objects
    MAX_FIELDS_OF_VIEW = 8192, // more rows than a reply holds
};

// The next tag to hand out.
extern int64_t gbiQorLocalVariableCounter;

// Starts the circle anew when its end has been passed; before a tag is taken.
void QorWrapTagCounter();

// One class of a chain.
struct QorClassDetails {
    jclass klass; // null when its signature is unavailable, and once the fields are read
    char name[FIELD_TEXT_SIZE];
    int32_t fieldCount;
    QorFieldRecord *fields; // its own fields, in the order of the class file; null without any
};

// A class, and the object in which its fields are read.
struct QorClassPair {
    jclass klass;
    jobject object;
};

// The class chain of the object that carries `tag`: the number of classes above the first one, with *out an
// array of one class more; 0 on any failure, with *out null unless the chain is of one class. An array of
// objects gives the chains of its first elements one after the other, counted likewise.
int32_t QorJVMTIGetAllClassFields(int32_t tag, QorClassDetails **out);

// The same for an array of objects, within the caller's local frame. 0 for an array of primitives.
int32_t QorCollectClassFieldsArrayClass(jarray array, QorClassDetails **out);

// Reads the fields of `count` pairs into *out, null when there is no memory for it. Drops the pairs' class
// references. A pair that can't be read ends it: the records from there on are empty.
void QorPopulateClassDetails(int32_t count, QorClassDetails **out, QorClassPair *pairs);

// Reads the `count` fields `fieldIds` of record->klass in `object`, tagging what they refer to. 1, or 0 with
// the fields read so far.
int32_t QorGetClassDetails(QorClassDetails *record, jobject object, const jfieldID *fieldIds, int32_t count);

// Frees a chain of `parentCount` classes above the first one; a null one does nothing.
void QorFreeClassDetails(QorClassDetails *classes, int32_t parentCount);
