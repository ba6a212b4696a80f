// The JNI function table, shared by those who fill it.
#pragma once

#include "simvm.h"

#include <functional>

namespace simvm {

extern JNINativeInterface_ jniTable;

// The calling thread's description; ends the process when the environment is another thread's.
ThreadInfo *Caller(JNIEnv *env, bool mayHaveException = false);

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
