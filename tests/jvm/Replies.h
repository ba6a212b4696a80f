// Replies of the views, taken apart by the console's decoders: a byte out of place is a failure of the test.
#pragma once

#include "JvmFixture.h"
#include "qorrequest.h"
#include "wire/decode.h"

// The reply of a view of the JVM in a page of `size` bytes. An empty slot is one that the request lacks.
std::string Ask(uint32_t request, const std::string &slot0 = "", const std::string &slot1 = "",
                int32_t size = PAGEBUF_SIZE);

// The sample of all threads, with stacks or as rows; of those that are active; of text that is whole.
qorctl::ThreadSample AllThreads(bool stacks);
qorctl::ThreadSample ActiveThreads();
qorctl::ThreadSample Threads(const std::string &text);

// One thread with its whole stack; no name when the JVM has none.
qorctl::Thread StackOf(const std::string &key);

// The thread of that name; null when the sample has none.
const qorctl::Thread *Find(const qorctl::ThreadSample &sample, const std::string &name);

// "class->method".
std::string CallOf(const qorctl::Frame &frame);

// Compares the threads of the zoo in a sample with what the JVM says of them now; how many they were.
int ExpectTruth(const qorctl::ThreadSample &sample);

// A reply with "|" between fields, a line for each record and "$" at the end of a section.
std::string Legible(std::string reply);
