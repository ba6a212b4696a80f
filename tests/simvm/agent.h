// The agent as the simulated VM's main thread starts and asks it, by its natives: linked, or of a library.
#pragma once

#include "natives.h"
#include "scenes.h"

namespace simvm {

struct Natives {
    decltype(&Java_qoragent_Agent_initvar) initvar;
    decltype(&Java_qoragent_Agent_dataFromNative) dataFromNative;
};
extern Natives natives;

ThreadInfo *Self(); // the main thread
struct AgentStart {
    std::string server = "", id = "test"; // as Java passes them
    int backoff = 1, log = 0;
    int settings[4] = {}; // lock information, queries, their length, the quota
};
// The status of the start. Handles of the native method end with it, as in any VM.
int StartAgent(const AgentStart &with = {});
std::string Ask(const std::string &request);

std::vector<std::string> Split(const std::string &text, char separator);
std::string Hex(Word value);
std::string Dotted(std::string name);

} // namespace simvm
