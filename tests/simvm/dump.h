// A dump file of the direct road read into sets, and what it has to hold by the description.
#pragma once

#include "roots.h"

namespace simvm {

struct Reference {
    Word place, to;
    bool operator<(const Reference &other) const {
        return place != other.place ? place < other.place : to < other.to;
    }
    bool operator==(const Reference &other) const { return place == other.place && to == other.to; }
};

// An object's line and those below it. Addresses are the VM's.
struct DumpedObject {
    char space = 0, type = 0;
    int64_t bytes = 0;
    int64_t length = -1;               // of arrays
    std::string text;                  // of symbols
    std::vector<Word> symbols;         // its class's name; a klass's own; a method's name and signature
    std::vector<Reference> fields;     // of an instance, in the order of places
    std::vector<Word> elements;        // of an array of references, but null ones
    std::vector<Reference> links = {}; // of a klass or a pool
};
struct DumpedRoot {
    char letter;
    std::string prefix, name; // "thread|class->method|"
    int32_t type;
    Word address;
};
struct HeapDump {
    std::vector<std::string> header, strange; // strange: lines that are nothing of the above
    std::vector<DumpedRoot> roots;
    std::map<Word, DumpedObject> objects;
    int64_t repeated = 0; // objects with more than one line
    bool finished = false;
};
HeapDump ReadDump(const std::string &path);

// What a dump made now has to hold.
struct DumpTruth {
    std::map<Word, DumpedObject> objects; // length -1: not described, its references neither
    std::vector<Root> roots;
    // Roots of frames that must be there: by thread, by a name, or what a frame has on its stack.
    struct OfFrame {
        std::string thread, name;
        Word address;
    };
    std::vector<OfFrame> frames;
};
DumpTruth TakeTruth(const std::vector<Runner *> &runners);
// Each way in which the two differ, 20 of them at most.
std::vector<std::string> Differences(const HeapDump &dump, const DumpTruth &truth);

} // namespace simvm
