// What the agent has to show of a scene's threads, from their scripts.
#pragma once

#include "runner.h"

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

// How a variable can be read: as an object, as a number (of an object: its address), not at all, or as a
// constant of the compiler's.
enum class Seen { OBJECT, NUMBER, NOTHING, CONSTANT };
struct ShownVariable {
    std::string signature; // beyond the arguments nobody keeps it
    Value value;
    Seen seen;
};
struct ShownFrame {
    const MethodInfo *method;
    bool compiled;
    Object *self; // null: static, or not kept
    std::vector<ShownVariable> arguments, locals;
};
std::vector<ShownFrame> ShownFrames(const Runner &runner); // innermost first

// The same as a line of JSON. "moving": its two innermost frames come and go.
std::string TruthLine(const Runner &runner);

} // namespace simvm
