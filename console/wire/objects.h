// The views of a frame's locals and of one object: replies to values.
//
// The agent knows an object that it has shown by a tag, a small number. Tags come round again after some
// 45,000 objects, and one whose object has been collected leads nowhere.
#pragma once

#include "decode.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qorctl {

// An object, or text of one, in a frame. Numbers in locals are not reported.
struct Local {
    std::optional<int64_t> tag; // of an object that can be opened
    std::string type, value;    // the value of strings and of arrays of primitives
    bool isText = false;        // it has a tag, and its value is its text
};

// Of a JVM read by address its first row is the object or class that the frame runs in, and numbers are
// reported too; the tags are addresses, which hold until the next collection.
struct Locals {
    std::vector<Local> rows;
    std::string refusal; // why there are none: the frame is gone
    std::optional<uint64_t> jvm_microseconds;
    bool cut = false;
};

enum class FieldKind {
    REFERENCE, // to an object that can be opened by its tag
    VALUE,
    NONE,      // a reference that is null
    NOT_SHOWN, // of the very class that declares it: the agent doesn't look at it
};

struct ObjectField {
    FieldKind kind = FieldKind::VALUE;
    int64_t tag = 0;
    std::string modifier; // "private", "static", ..., empty for none of the four reported
    std::string type, name, value;
};

// A class of the object's chain, its own class first; java.lang.Object is not among them. Of an array of
// objects, those of its first elements.
struct ObjectClass {
    std::string name;
    std::vector<ObjectField> fields;
};

struct ObjectView {
    int64_t tag = 0;
    std::vector<ObjectClass> classes;
    std::optional<uint64_t> jvm_microseconds;
    bool cut = false;
};

Locals DecodeLocals(const Reply &reply);

// The object that the request named by `tag`; without classes when the agent has nothing to show.
ObjectView DecodeObject(const Reply &reply, int64_t tag);

// The first field of this name from the object's own class upwards; null when there is none.
const ObjectField *FindField(const ObjectView &object, std::string_view name);

} // namespace qorctl
