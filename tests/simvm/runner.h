// Threads that run scripts, and the collector that stops them and moves what they refer to.
#pragma once

#include "code.h"

#include <functional>
#include <pthread.h>

namespace simvm {

// A thread of the VM. What it shows from when it rests until it leaves is ShadowStack(*script).
struct Runner {
    ThreadInfo *info;
    Script *script;
    Control control;
    std::function<void()> call, first;
    pthread_t pthread;
    std::atomic<int32_t> resting{0}; // 1: it has come to its rest (loops: it has begun)
    std::atomic<bool> inJava{false};
    std::atomic<Word> stackLow{0}; // while not in Java: from here up its stack may hold references
    Word stackHigh = 0;
    int32_t pipe[2] = {-1, -1}, listener = -1;
};

// Starts a thread that runs the script once, and comes back when it rests. `first` runs on it before any Java
// code, `call` where its script's rest is CALL.
Runner *Start(const std::string &name, Script *script, std::function<void()> call = {},
              std::function<void()> first = {});
// Ends its rest: it returns through all its frames, leaves the list and is joined. Its memory goes to the
// next thread.
void Leave(Runner *runner);
// The calling thread as a Java thread that runs the script, which ends in `call`.
void RunHere(const std::string &name, Script *script, std::function<void()> call);

int ListeningSocket(int32_t *port); // on the loopback

// One collection: stops all threads, moves every object of eden and from, poisons where they were. While it
// runs, the heap says so; `held` is called in its midst.
// A full one also moves the klasses of those classes.
void Collect(const std::function<void()> &held = {}, const std::vector<std::string> &moving = {});

} // namespace simvm
