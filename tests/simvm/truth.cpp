#include "scenes.h"

#include <fstream>

namespace simvm {

namespace {

std::string StateText(const Script &script) {
    const bool isNet = ShadowStack(script)[0].method->holder->name.rfind("java/net/", 0) == 0;
    const std::map<Rest, std::string> states = {{Rest::SLEEP, "Sleeping"},
                                                {Rest::MONITOR, "Lock"},
                                                {Rest::PIPE, isNet ? "Network Wait" : "IO Wait"},
                                                {Rest::SPIN, "Runnable"},
                                                {Rest::CALLS, "Runnable"}};
    const auto found = states.find(script.rest);
    return !script.state.empty() ? script.state : found == states.end() ? "Object Wait" : found->second;
}

std::string LockText(const Object &object) {
    return Hex(object.address) + " " + Dotted(object.type->name);
}

} // namespace

std::string FrameText(const Scope &scope) {
    const MethodInfo &method = *scope.method;
    return Dotted(method.holder->name) + "->" + method.name + " " +
           (method.flags & METHOD_NATIVE ? "Native Method ^"
                                         : method.holder->source + " " + std::to_string(LineOf(scope)));
}

Shown Truth(const Runner &runner) {
    Shown shown = {runner.info->name, StateText(*runner.script), {}, "", {}};
    std::replace(shown.name.begin(), shown.name.end(), '|', ' ');
    for (const Scope &scope : ShadowStack(*runner.script)) {
        const bool waits = runner.script->rest == Rest::MONITOR && shown.frames.empty();
        for (Object *object : scope.monitors)
            if (waits && object == scope.monitors.back())
                shown.waits = LockText(*object);
            else
                shown.locks.push_back(LockText(*object) + " " + std::to_string(shown.frames.size()));
        shown.frames.push_back(FrameText(scope));
    }
    std::sort(shown.locks.begin(), shown.locks.end());
    return shown;
}

// ---- a dump

HeapDump ReadDump(const std::string &path) {
    HeapDump dump;
    DumpedObject *last = nullptr;
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    dump.header = Split(line, '|');
    const auto address = [base = RecordBase()](const std::string &text) {
        const Word relative = strtoull(text.c_str(), nullptr, 16);
        return relative ? relative + base : 0;
    };
    while (std::getline(in, line)) {
        const std::vector<std::string> parts = Split(line, '|');
        const size_t count = parts.size(), isArray = line[1] == '[';
        const Word at =
            address(isArray && count > 1 ? parts[1] : line.substr(strchr("RIL", line[0]) ? 1 : 2));
        if (line[0] == 'S' && count > 2) {
            const std::string root = (strchr("zABCt", line[1]) ? "" : parts[count - 2]) + " " + Hex(at);
            if (root.rfind("thread_local ", 0) == 0 || root.rfind("interpreter_frame_", 0) == 0)
                dump.frames[parts[1] + "|" + root] = at;
            else
                dump.roots.insert(line.substr(1, 1) + " " + root);
        } else if (strchr("RIL", line[0]) && last && count <= 2) {
            last->references.push_back(line.substr(0, 1) + " " + Hex(at) +
                                       (count == 2 ? ">" + Hex(address(parts[1])) : ""));
        } else if (strchr("POCEF", line[0]) && count > isArray + 1) {
            DumpedObject object = {line.substr(0, 2) + "|" + parts[isArray + 1] + "|", {}};
            if (line[1] == '1') // a symbol, whose text is the rest of the line
                object.line += line.substr(parts[0].size() + parts[1].size() + 2) + "|";
            for (size_t i = isArray + 2; i < count && line[1] != '1'; i++)
                object.line += Hex(address(parts[i])) + "|";
            object.line += isArray ? parts[0].substr(2) + "|" : "";
            const auto [place, isNew] = dump.objects.emplace(at, object);
            last = &place->second;
            if (!isNew)
                dump.strange.push_back("again " + line);
        } else if (!(dump.isFinished = line.rfind(" Finished ", 0) == 0))
            dump.strange.push_back(line);
    }
    for (auto &[at, object] : dump.objects)
        if (object.line[1] == '8') // fields are in any order, elements in theirs
            std::sort(object.references.begin(), object.references.end());
    return dump;
}

namespace {

// The lines of all objects, with what any reader knows of their kind.
void AddObjects(HeapDump *out) {
    const std::unordered_map<Word, char> letters = KindLetters();
    std::unordered_map<Word, std::string> texts; // what follows an object's size; by klass, too
    for (const auto &[text, symbol] : vm.symbols)
        for (const char c : text.substr(0, text.find('\n')) + "|")
            texts[symbol] += c >= ' ' && c <= '~' ? std::string(1, c) : "";
    for (const auto &[name, type] : vm.classes)
        texts[type.klass] = Hex(vm.symbols[name]) + "|";
    for (const MethodInfo &method : vm.methods)
        texts[method.oop] = Hex(vm.symbols[method.name]) + "|" + Hex(vm.symbols[method.signature]) + "|";
    for (const SpaceUse &use : UseOfSpaces())
        for (Word at = use.space->bottom; at < use.space->top; at += 8)
            if (const int64_t bytes = 8 * WordsOf(at)) {
                const Word klass = As<Oop>(at).klass;
                const char type = letters.at(klass);
                out->objects[at] = {std::string{use.space->letter, type, '|'} + Hex(bytes) + "|" +
                                        texts[strchr("8[", type) ? klass : at],
                                    {},
                                    false};
            }
}

void AddReferences(const Object &from, DumpedObject *out) {
    const bool isArray = from.type->name[0] == '[';
    const std::vector<const Field *> fields = isArray ? std::vector<const Field *>() : FieldsOf(from.type);
    for (size_t i = 0; i < from.values.size(); i++)
        if (const Object *to = from.values[i].object)
            out->references.push_back((isArray ? "R " : "I " + Hex(from.address + fields[i]->offset) + ">") +
                                      Hex(to->address));
    if (isArray)
        out->line += Hex(from.values.size()) + "|";
    else
        std::sort(out->references.begin(), out->references.end());
    out->isKnown = true;
}

void AddFrames(const Runner &runner, HeapDump *out) {
    const auto add = [&, thread = Truth(runner).name + "|"](const char *name, Word address) {
        out->frames[thread + name + " " + Hex(address)] = address;
    };
    for (const Frame &frame : runner.script->frames)
        for (const Scope &scope : frame.scopes) {
            if (!IsCompiled(frame.kind)) {
                add("interpreter_frame_meth", scope.method->oop);
                continue;
            }
            if (scope.receiver)
                add("thread_local", scope.receiver->address);
            for (const Object *object : scope.monitors)
                add("thread_local", object->address);
        }
}

bool IsSame(const DumpedObject &shown, const DumpedObject &truth) {
    const auto &references = shown.references;
    return truth.isKnown
               ? shown.line == truth.line && references == truth.references
               : shown.line.rfind(truth.line, 0) == 0 &&
                     std::all_of(truth.references.begin(), truth.references.end(), [&](const auto &one) {
                         return std::count(references.begin(), references.end(), one) == 1;
                     });
}

} // namespace

HeapDump TakeTruth(const std::vector<Runner *> &runners) {
    const Locked held(vm.lock);
    HeapDump truth;
    AddObjects(&truth);
    for (const Object &object : vm.objects)
        if (object.address && object.type)
            AddReferences(object, &truth.objects[object.address]);
    for (const auto &[name, type] : vm.classes)
        for (const Field &field : type.fields)
            if (field.isStatic && field.value.object)
                truth.objects[type.klass].references.push_back("L " + Hex(type.klass + field.offset) + ">" +
                                                               Hex(field.value.object->address));
    for (const Root &root : AllRoots())
        truth.roots.insert(root.letter + (" " + root.name) + " " + Hex(root.object->address));
    for (const Runner *runner : runners)
        AddFrames(*runner, &truth);
    return truth;
}

std::vector<std::string> Differences(const HeapDump &dump, const HeapDump &truth) {
    std::vector<std::string> out = dump.strange;
    const auto add = [&](const char *what, Word address, const DumpedObject &object) {
        out.push_back(what + Hex(address) + ": " + object.line);
    };
    if (!dump.isFinished)
        out.emplace_back("not finished");
    for (const auto &[address, object] : truth.objects)
        if (const auto shown = dump.objects.find(address); shown == dump.objects.end())
            add("missing ", address, object);
        else if (!IsSame(shown->second, object))
            add("is ", address, shown->second), add("  not ", address, object);
    for (const auto &[address, object] : dump.objects)
        if (!truth.objects.count(address))
            add("not an object: ", address, object);
    std::set_symmetric_difference(dump.roots.begin(), dump.roots.end(), truth.roots.begin(),
                                  truth.roots.end(), std::back_inserter(out));
    for (const auto &[root, address] : dump.frames)
        if (!truth.objects.count(address))
            out.push_back("a frame's root leads nowhere: " + root);
    for (const auto &[root, address] : truth.frames)
        if (!dump.frames.count(root))
            out.push_back("no root of a frame: " + root);
    return out;
}

} // namespace simvm
