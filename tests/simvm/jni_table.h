// What tests see of the JNI that the agent is called with.
#pragma once

#include "simvm.h"

#include <functional>

namespace simvm {

// What the Java side is called with, for the threads of a reply.
struct JavaCall {
    std::vector<Object *> threads;
    std::vector<jlong> ids;
    std::vector<std::string> texts; // ten a thread
    int count, withSystem, polling;
};
// Loads the classes that the agent calls. `answer`: the text that the Java side returns; null: it throws.
void DefineJavaSide(std::function<std::string(const JavaCall &)> answer);
// The elements of an array that a native method has returned; the array ends.
std::vector<Object *> TakeArray(jobjectArray array);
// Of the thread: handles and what is kept beside the heap, the caller's arguments included.
size_t LocalReferences(ThreadInfo *thread);

} // namespace simvm
