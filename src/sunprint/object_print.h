// The view of one object, array or class by its address.
//
// Each row of a reference can be sent back: its first two fields are slots 0 and 1 of the request that shows
// what it refers to. The address may be any number. What a collection moves meanwhile is read once more.
// Worker.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Second field of a row, and slot 1 of the request.
enum QorViewFlag : int32_t {
    VIEW_OBJECT = 0,
    VIEW_CLASS = 1, // and above: the address is a klass, of which statics are shown
    VIEW_ARRAY = -2,
    VIEW_STRING_ARRAY = -8,
};

// Appends the view: the object's class with a row for each field, then the same for each class above it. An
// array has rows of its elements. One sentence for what isn't an object. A view that finds no room ends with
// a whole row and sets qorReplyIsCut.
void PrintObject(uint64_t address, int32_t flag, QorText *reply);

// The flag that shows an object, by what it is.
QorViewFlag QorViewFlagOf(uint64_t object);

// The text of a String, a StringBuffer or a char array, as QorVmText. Null for any other object.
char *QorObjectText(char *dst, int32_t size, uint64_t object);
