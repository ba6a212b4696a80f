// The agent as the simulated VM's main thread starts and asks it.
#pragma once

#include "natives.h"
#include "scenes.h"

#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace simvm {

inline ThreadInfo *Self() {
    const std::lock_guard<std::recursive_mutex> held(vm.lock);
    for (ThreadInfo *thread : vm.threads)
        if (thread->kernelId == getpid())
            return thread;
    return nullptr;
}

struct AgentStart {
    std::string server = "", id = "test"; // as Java passes them
    int backoff = 1, log = 0;
};

// Handles of the native method end with it, as in any VM.
inline int StartAgent(const AgentStart &with = {}) {
    auto &handles = As<HandleBlock>(Self()->handles);
    const int32_t top = handles.top;
    const SampleObjects of = NewSampleObjects(Self());
    std::vector<jstring> texts;
    for (const std::string &text : {std::string("Sun Microsystems Inc."), vm.options.version,
                                    std::string("Linux"), std::string("stderr"), with.id, with.server})
        texts.push_back(NewText(text));
    const int status = Java_qoragent_Agent_initvar(
        EnvOf(Self()), nullptr, with.log, 2, with.backoff, 60, 0, texts[0], texts[1], texts[2], of.instance,
        of.reference, of.objects, of.ints, texts[5], nullptr, texts[3], texts[4], 0, 0, 0, 0, 1000, 300);
    for (jstring text : texts)
        FreeText(text);
    handles.top = top;
    return status;
}

inline std::string Ask(const std::string &request) {
    jstring text = NewText(request), reply = Java_qoragent_Agent_dataFromNative(EnvOf(Self()), nullptr, text);
    const std::string out = reply ? TextOf(reply) : "";
    FreeText(text);
    FreeText(reply);
    return out;
}

inline std::vector<std::string> Split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    return parts;
}

} // namespace simvm
