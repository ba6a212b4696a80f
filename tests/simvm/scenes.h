// Scenes: what a VM's threads do while it is looked at.
#pragma once

#include "runner.h"

namespace simvm {

// A scene's threads; the storm's are its own.
struct Scene {
    std::deque<Script> scripts;
    std::vector<Runner *> runners;
    std::map<std::string, Object *> named; // what readers of objects are to look at
    std::vector<int> descriptors;          // open until its end
    std::map<std::string, int32_t> ports;  // on which it listens, by the word for the server
    bool storm = false;
};

// Ends the process for a name it does not know.
// shop: threads in all kinds of frames and places, at rest or looping
// readers: objects of all kinds of fields and elements, and frames with arguments and locals
// drivers: threads that wait for a database, on sockets of all kinds
// tiers: web requests, remote calls and a framework's objects, for each server
// servers: the ports of application servers; servers-later, servers-last: where other ways lead there, and
//          without Tomcat's thread
// heap: the shop over a tricky heap (heap.h)
// nothing: no thread
// storm: as storm.h has it by default; crowd: 200 threads of 50 frames, two of them looping
void StageScene(const std::string &name, Scene *scene);
// Ends it; of the storm and the crowd it prints the figures.
void EndScene(Scene *scene);
// The scene's main method, for a thread that runs `call` at its end.
Script MainScript();

// What the agent's initvar takes of objects: an instance, a reference, an array of objects, one of ints.
struct SampleObjects {
    jobject instance, reference, objects, ints;
};
SampleObjects NewSampleObjects(ThreadInfo *thread);

} // namespace simvm
