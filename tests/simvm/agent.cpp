#include "agent.h"

#include <algorithm>
#include <sstream>
#include <unistd.h>

namespace simvm {

Natives natives;

ThreadInfo *Self() {
    const std::lock_guard<std::recursive_mutex> held(vm.lock);
    for (ThreadInfo *thread : vm.threads)
        if (thread->kernelId == getpid())
            return thread;
    return nullptr;
}

int StartAgent(const AgentStart &with) {
    constexpr int LEVEL = 2, TIMEOUT = 60, NO_CHAINING = 0, QUERIED = 1000, RECORDED = 300;
    auto &handles = As<HandleBlock>(Self()->handles);
    const int32_t top = handles.top;
    const SampleObjects of = NewSampleObjects(Self());
    std::vector<jstring> texts;
    for (const std::string &text : {std::string("Sun Microsystems Inc."), vm.options.version,
                                    std::string("Linux"), std::string("stderr"), with.id, with.server})
        texts.push_back(NewText(text));
    const int status = natives.initvar(
        EnvOf(Self()), nullptr, with.log, LEVEL, with.backoff, TIMEOUT, NO_CHAINING, texts[0], texts[1],
        texts[2], of.instance, of.reference, of.objects, of.ints, texts[5], nullptr, texts[3], texts[4],
        with.settings[0], with.settings[1], with.settings[2], with.settings[3], QUERIED, RECORDED);
    for (jstring text : texts)
        FreeText(text);
    handles.top = top;
    return status;
}

std::string Ask(const std::string &request) {
    JNIEnv *env = EnvOf(Self());
    jstring text = NewText(request), reply = natives.dataFromNative(env, nullptr, text);
    const std::string out = reply ? TextOf(reply) : "";
    FreeText(text);
    FreeText(reply);
    if (env->ExceptionCheck())
        Fail("a native method left an exception pending");
    return out;
}

std::vector<std::string> Split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    return parts;
}

std::string Hex(Word value) {
    std::stringstream out;
    out << std::hex << value;
    return out.str();
}

std::string Dotted(std::string name) {
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

} // namespace simvm
