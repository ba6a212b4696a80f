#include "truth.h"
#include "agent.h"

#include <algorithm>

namespace simvm {

namespace {

std::string StateText(const Script &script) {
    if (!script.state.empty())
        return script.state;
    const std::string top = ShadowStack(script)[0].method->holder->name;
    const std::map<Rest, std::string> STATES = {{Rest::SLEEP, "Sleeping"},
                                                {Rest::MONITOR, "Lock"},
                                                {Rest::SPIN, "Runnable"},
                                                {Rest::CALLS, "Runnable"}};
    if (script.rest == Rest::PIPE)
        return top.rfind("java/net/", 0) == 0 ? "Network Wait" : "IO Wait";
    const auto found = STATES.find(script.rest);
    return found == STATES.end() ? "Object Wait" : found->second;
}

std::string LockText(const Object &object) {
    return Hex(object.address) + " " + Dotted(object.type->name);
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

Seen SeenOf(const Variable &variable, int slot, bool compiled, bool mapped) {
    bool object = variable.value.object != nullptr;
    if (!compiled)
        return object && mapped && slot < 32 ? Seen::OBJECT : Seen::NUMBER;
    if (variable.kept == Kept::STACK)
        return object ? Seen::OBJECT : Seen::NUMBER;
    return variable.kept == Kept::CONSTANT ? Seen::CONSTANT : Seen::NOTHING;
}

ShownFrame ShownOf(const Scope &scope, FrameKind kind) {
    bool compiled = kind == FrameKind::COMPILED || kind == FrameKind::OSR, mapped = IsMapped(scope);
    ShownFrame shown = {scope.method, compiled, scope.receiver, {}, {}};
    size_t arguments = ArgumentsOf(*scope.method).size();
    int slot = scope.method->flags & METHOD_STATIC ? 0 : 1;
    for (const Variable &variable : scope.variables) {
        auto &list = shown.arguments.size() < arguments ? shown.arguments : shown.locals;
        list.push_back({variable.signature, variable.value, SeenOf(variable, slot, compiled, mapped)});
        slot += variable.signature == "J" || variable.signature == "D" ? 2 : 1;
    }
    return shown;
}

std::string ArgumentsText(const ShownFrame &frame) {
    const char *const SEEN[] = {"object", "number", "nothing", "constant"};
    std::string out;
    for (const ShownVariable &argument : frame.arguments)
        out += (out.empty() ? "" : ", ") + ("{\"type\": " + Quoted(argument.signature)) +
               ", \"seen\": " + Quoted(SEEN[int(argument.seen)]) +
               ", \"value\": " + std::to_string(argument.value.number) + "}";
    return "{\"arguments\": [" + out + "]}";
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
            if (runner.script->rest == Rest::MONITOR && shown.frames.empty() &&
                object == scope.monitors.back())
                shown.waits = LockText(*object);
            else
                shown.locks.push_back(LockText(*object) + " " + frame);
        shown.frames.push_back(FrameText(scope));
    }
    std::sort(shown.locks.begin(), shown.locks.end());
    return shown;
}

std::vector<ShownFrame> ShownFrames(const Runner &runner) {
    std::vector<ShownFrame> shown;
    for (const Frame &frame : runner.script->frames)
        for (const Scope &scope : frame.scopes)
            shown.insert(shown.begin(), ShownOf(scope, frame.kind));
    return shown;
}

std::string TruthLine(const Runner &runner) {
    const Shown shown = Truth(runner);
    std::string facts, details;
    for (auto &[name, text] : runner.script->facts)
        facts += (facts.empty() ? "" : ", ") + Quoted(name) + ": " + Quoted(text);
    for (const ShownFrame &frame : ShownFrames(runner))
        details += (details.empty() ? "" : ", ") + ArgumentsText(frame);
    return "{\"id\": " + std::to_string(runner.info->kernelId) + ", \"name\": " + Quoted(shown.name) +
           ", \"state\": " + Quoted(shown.state) + ", \"frames\": " + Quoted(shown.frames) +
           ", \"waits\": " + Quoted(shown.waits) + ", \"locks\": " + Quoted(shown.locks) +
           ", \"details\": [" + details + "], \"facts\": {" + facts +
           "}, \"moving\": " + (runner.script->rest == Rest::CALLS ? "true}" : "false}");
}

} // namespace simvm
