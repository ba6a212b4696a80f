#include "truth.h"

#include <algorithm>
#include <sstream>

namespace simvm {

namespace {

std::string Dotted(std::string name) {
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

std::string StateText(const Script &script) {
    const std::string top = ShadowStack(script)[0].method->holder->name;
    switch (script.rest) {
    case Rest::PIPE:
        return top.rfind("java/net/", 0) == 0 ? "Network Wait" : "IO Wait";
    case Rest::SLEEP:
        return "Sleeping";
    case Rest::MONITOR:
        return "Lock";
    case Rest::SPIN:
    case Rest::CALLS:
        return "Runnable";
    default:
        return "Object Wait";
    }
}

std::string LockText(const Object &object) {
    std::stringstream out;
    out << std::hex << object.address << " " << Dotted(object.type->name);
    return out.str();
}

// Names of a scene need no escapes.
std::string Quoted(const std::string &text) {
    return '"' + text + '"';
}

std::string Quoted(const std::vector<std::string> &texts) {
    std::string out;
    for (const std::string &text : texts)
        out += (out.empty() ? "[" : ", ") + Quoted(text);
    return out.empty() ? "[]" : out + "]";
}

} // namespace

std::string FrameText(const Scope &scope) {
    const std::string name = scope.method->holder->name, call = Dotted(name) + "->" + scope.method->name;
    if (scope.method->flags & METHOD_NATIVE)
        return call + " Native Method ^";
    const std::string &source = scope.method->holder->source;
    const int32_t line = LineOf(scope);
    return call + " " + (source.empty() ? "^" : source) + " " + (line > 3 ? std::to_string(line) : "^");
}

Shown Truth(const Runner &runner) {
    Shown shown = {runner.info->name, StateText(*runner.script), {}, "", {}};
    std::replace(shown.name.begin(), shown.name.end(), '|', ' ');
    for (const Scope &scope : ShadowStack(*runner.script)) {
        const std::string frame = std::to_string(shown.frames.size());
        for (Object *object : scope.monitors)
            if (runner.script->rest == Rest::MONITOR && shown.frames.empty())
                shown.waits = LockText(*object);
            else
                shown.locks.push_back(LockText(*object) + " " + frame);
        shown.frames.push_back(FrameText(scope));
    }
    std::sort(shown.locks.begin(), shown.locks.end());
    return shown;
}

std::string TruthLine(const Runner &runner) {
    const Shown shown = Truth(runner);
    return "{\"id\": " + std::to_string(runner.info->kernelId) + ", \"name\": " + Quoted(shown.name) +
           ", \"state\": " + Quoted(shown.state) + ", \"frames\": " + Quoted(shown.frames) +
           ", \"waits\": " + Quoted(shown.waits) + ", \"locks\": " + Quoted(shown.locks) +
           ", \"moving\": " + (runner.script->rest == Rest::CALLS ? "true}" : "false}");
}

} // namespace simvm
