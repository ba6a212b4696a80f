// A reply of the thread sample, taken apart by its grammar. Any byte out of place fails the parse.
#pragma once

#include "qorrequest.h"

#include <string>
#include <vector>

// The reply of a view of the JVM in a page of `size` bytes. An empty slot is one that the request lacks.
std::string Ask(uint32_t request, const std::string &slot0 = "", const std::string &slot1 = "",
                int32_t size = PAGEBUF_SIZE);

// The pieces between the separators, one more than there are of these.
std::vector<std::string> Split(const std::string &text, char separator);

struct SampleFrame {
    std::string call, file, line; // line as text: "^" where none is known
    int64_t thread, index, method;
};

struct SampleLock {
    int64_t id;
    std::string owner, description; // owner: thread key, of the lock waited for
    int depth;
};

struct SampleThread {
    std::string marker, name, url, detail, key, call, file, line, state;
    std::vector<std::string> detail10; // fields of the block behind "DB Wait", or
    std::vector<std::string> detail4;  // behind "RMI Wait"
    std::vector<SampleFrame> frames;   // a framework's row has the numbers -1
    std::vector<SampleLock> wanted, owned;
    std::string parkedOn; // "id class@id"
    int64_t id() const;   // the thread's part of the key
};

struct SampleReply {
    std::string title, error; // error is empty when the reply is well-formed
    std::vector<SampleThread> threads;

    // `stacks`: the form with details.
    static SampleReply Parse(const std::string &text, bool pollForm, bool stacks);

    const SampleThread *Find(const std::string &name) const;
};
