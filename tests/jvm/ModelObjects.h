// Objects for the readers, made without their constructors, and list entries that carry them.
#pragma once

#include "JvmFixture.h"
#include "Xtier/tiers/LocalList.h"

// An object of a class ("java/lang/Object") with all fields empty.
jobject MakeObject(const std::string &klass);

// Sets the field at the end of a path of `name,signature` steps joined by "|". Objects on the way that are
// missing are made, of the field's class or of the one that follows it ("f,La/B;=a/C").
void Plant(jobject root, const std::string &path, const JavaArgument &value);

// An entry of the thread-local list as the walk leaves it.
struct ModelEntry : QorAllThreadLocalInfoList {
    ModelEntry(int32_t kindOfEntry, const std::string &signature, jobject object, const char *method = "run");
    ~ModelEntry();
    ModelEntry(const ModelEntry &) = delete;
    ModelEntry &operator=(const ModelEntry &) = delete;
};
