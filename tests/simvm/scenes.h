// Scenes: what a VM's threads do while it is looked at.
#pragma once

#include "runner.h"

namespace simvm {

// A scene at rest: its threads, and the main thread's script, which ends in a native method.
struct Scene {
    std::deque<Script> scripts;
    std::vector<Runner *> runners;
    Script main;
};

// "shop": threads in all kinds of frames and places. Ends the process for a name it doesn't know.
void StageScene(const std::string &name, Scene *scene);
void EndScene(Scene *scene);
// The scene's main method, for a thread that runs `call` at its end.
Script MainScript();

// What the agent's initvar takes of objects: an instance, a reference, an array of objects, one of ints.
struct SampleObjects {
    jobject instance, reference, objects, ints;
};
SampleObjects NewSampleObjects(ThreadInfo *thread);

} // namespace simvm
