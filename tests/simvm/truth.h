// What the agent has to show of a scene's threads, from their scripts, and what a dump has to hold, from the
// description.
#pragma once

#include "scenes.h"

#include <set>

namespace simvm {

// A thread as lines: its row, its frames, its locks.
struct Shown {
    std::string name, state;
    std::vector<std::string> frames; // "class->method file line", innermost first
    std::string waits;               // "address class"
    std::vector<std::string> locks;  // "address class frame", sorted
};

Shown Truth(const Runner &runner);
std::string FrameText(const Scope &scope);
// The same as a line of JSON. "moving": its two innermost frames come and go.
std::string TruthLine(const Runner &runner);

// An object as "space type|bytes|class|length of an array|", of a symbol its text; and what it refers to, a
// field as "I place>address", an element as "R address".
struct DumpedObject {
    std::string line;
    std::vector<std::string> references;
    bool isKnown = true; // else the line only begins so, and these are some of the references
};
// A dump file of the direct road in lines that can be compared. Addresses are the VM's.
struct HeapDump {
    std::vector<std::string> header, strange; // strange: lines that are nothing of the below
    std::set<std::string> roots;              // "letter name address"
    std::map<std::string, Word> frames;       // what frames refer to: "thread|name address"
    std::map<Word, DumpedObject> objects;
    bool isFinished = false;
};
HeapDump ReadDump(const std::string &path);
// What a dump made now has to hold; of frames at least this.
HeapDump TakeTruth(const std::vector<Runner *> &runners);
// Each way in which the two differ, 20 of them at most.
std::vector<std::string> Differences(const HeapDump &dump, const HeapDump &truth);

} // namespace simvm
