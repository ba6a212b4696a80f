// The ways of the rules (qortiers.h): the path language of ObjectMap.h with its further ends.
//
// Unlike there nothing is logged, as fields that another version lacks are no news. Nothing runs Java code or
// a class's initialiser. Worker only.
#pragma once

#include <cstdint>
#include <jni.h>
#include <string_view>

// Where a way has led: an object, a range of a byte array when `to` isn't 0, or an int.
struct QorPathEnd {
    jobject object; // null for an int and where the way ended early
    int32_t from, to;
    bool isNumber;
    int32_t number;
    bool noSuchField; // it ended at a class without the field
};

// Follows a way whose form the rules' reader has checked. Its references, one or two a step, stay with the
// caller's frame.
QorPathEnd QorFollowPath(std::string_view way, jobject object);
