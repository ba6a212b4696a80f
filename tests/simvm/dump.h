// A dump file of the direct road read into lines that can be compared, and those that it has to hold by the
// description. Addresses are the VM's.
#pragma once

#include "roots.h"

#include <set>

namespace simvm {

// An object as "space type|bytes|class|length of an array|", of a symbol its text; and what it refers to, a
// field as "I place>address", an element as "R address".
struct DumpedObject {
    std::string line;
    std::vector<std::string> references;
    bool isKnown = true; // else the line only begins so, and these are some of the references
};
struct HeapDump {
    std::vector<std::string> header, strange; // strange: lines that are nothing of the below
    std::set<std::string> roots;              // "letter name address"
    std::map<std::string, Word> frames;       // what frames refer to: "thread|name address"
    std::map<Word, DumpedObject> objects;
    int64_t repeated = 0; // objects with more than one line
    bool isFinished = false;
};
HeapDump ReadDump(const std::string &path);
// What a dump made now has to hold; of frames at least this.
HeapDump TakeTruth(const std::vector<Runner *> &runners);
// Each way in which the two differ, 20 of them at most.
std::vector<std::string> Differences(const HeapDump &dump, const HeapDump &truth);

} // namespace simvm
