// What the VM itself and its threads refer to: handles, monitors, dictionaries, known classes.
#pragma once

#include "runner.h"

namespace simvm {

// A word of the VM's own structures that refers to an object.
struct Root {
    char letter; // of the structure, as a dump has it
    std::string name;
    Object *object; // null: `oop`, which doesn't move
    Word oop, place;

    Word Address() const { return object ? object->address : oop; }
};
extern std::deque<Root> stagedRoots;

// How the chains end: as they should, in a link back to their beginning, in a pointer to nowhere.
enum class ChainEnd { NONE, CYCLE, WILD };

// Lays out one or more of each structure, some of them the thread's: handle blocks, full, half full and
// empty; a handle area of two chunks of different length; monitor chunks; a privileged stack; monitor blocks;
// a VM thread with queues of one and of three operations; a dictionary with chains, placeholders, loader
// constraints; known classes, mirrors, symbols. Whatever the end of the chains, all roots are to be found. No
// collection may follow the thread's end.
void StageRoots(ThreadInfo *thread, ChainEnd end);
// The words hold what they refer to, also after it has moved.
void WriteRoots();
// The above, and each thread's object and handles.
std::vector<Root> AllRoots();

} // namespace simvm
