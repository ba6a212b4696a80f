#include "scenes.h"

#include <fstream>

namespace simvm {

namespace {

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

std::string ShownName(const ThreadInfo &thread) {
    std::string name = thread.name;
    std::replace(name.begin(), name.end(), '|', ' ');
    return name;
}

Shown Truth(const Runner &runner) {
    Shown shown = {ShownName(*runner.info), runner.script->state, {}, "", {}};
    for (const Scope &scope : ShadowStack(*runner.script)) {
        const bool waits = runner.script->rest == Rest::MONITOR && shown.frames.empty();
        for (Object *object : scope.monitors)
            if (waits && object == scope.monitors.back())
                shown.waits = LockText(*object);
            else
                shown.locks.insert(LockText(*object) + " " + std::to_string(shown.frames.size()));
        shown.frames.push_back(FrameText(scope));
    }
    return shown;
}

// ---- a dump

HeapDump ReadDump(const std::string &path) {
    HeapDump dump;
    std::ifstream in(path);
    std::string line, object;
    int elements = 0;
    std::getline(in, line);
    dump.header = Split(line, '|');
    const auto add = [&dump](const std::string &text, bool mayRepeat = false) {
        if (!dump.lines.insert(text).second && !mayRepeat)
            dump.lines.insert("again " + text);
    };
    while (std::getline(in, line) && line.rfind(" Finished ", 0) != 0) {
        const std::vector<std::string> parts = Split(line, '|');
        if (line[0] == 'S' && parts.size() > 2) {
            const std::string &name = parts[parts.size() - 2], at = " " + parts[0].substr(2);
            if (name == "thread_local" || name.rfind("interpreter_frame_", 0) == 0)
                add(FRAME + parts[1] + "|" + name + at, true);
            else
                add(line.substr(0, 2) + " " + (strchr("zABCt", line[1]) ? "" : name) + at, true);
            continue;
        }
        if (!strchr("RIL", line[0])) {
            object = line[1] == '[' ? parts.at(1) : parts[0].substr(2);
            elements = 0;
        }
        add(object + " " + (line[0] == 'R' ? std::to_string(elements++) : "") + line);
    }
    if (!in)
        dump.lines.insert("not finished");
    return dump;
}

namespace {

Word base; // of a dump's addresses

std::string Address(Word address) {
    return Hex(address - base);
}

void AddReferences(const Object &from, HeapDump *out) {
    const bool isArray = from.type->name[0] == '[';
    const std::vector<const Field *> fields = FieldsOf(from.type);
    int elements = 0;
    for (size_t i = 0; i < from.values.size(); i++)
        if (const Object *to = from.values[i].object)
            out->lines.insert(Address(from.address) + " " +
                              (isArray ? std::to_string(elements++) + "R"
                                       : "I" + Address(from.address + fields[i]->offset) + "|") +
                              Address(to->address));
}

// The lines of all objects, with what any reader knows of their kind.
void AddObjects(HeapDump *out) {
    std::unordered_map<Word, std::string> texts; // what follows an object's size; by klass, too
    std::unordered_map<Word, const Object *> described;
    const auto nameOf = [](const std::string &text) { return "|" + Address(vm.symbols[text]); };
    for (const auto &[text, symbol] : vm.symbols)
        for (const char c : "|" + text.substr(0, text.find('\n')))
            texts[symbol] += c >= ' ' && c <= '~' ? std::string(1, c) : "";
    for (const auto &[name, type] : vm.classes)
        texts[type.klass] = nameOf(name);
    for (const MethodInfo &method : vm.methods)
        texts[method.oop] = nameOf(method.name) + nameOf(method.signature);
    for (const Object &object : vm.objects) {
        described[object.address] = &object;
        AddReferences(object, out);
    }
    for (const SpaceUse &use : UseOfSpaces())
        VisitObjects(*use.space, [&](Word at, Word klass, char type, int64_t bytes) {
            const auto known = described.find(at);
            if (known == described.end())
                out->unknown.insert(Address(at));
            out->lines.insert(Address(at) + " " + use.space->letter + type +
                              (type == '[' ? Hex(known->second->values.size()) + "|" : "") + Address(at) +
                              "|" + Hex(bytes) + texts[strchr("8[", type) ? klass : at]);
        });
}

void AddFrames(const Runner &runner, HeapDump *out) {
    const auto add = [&, start = FRAME + ShownName(*runner.info)](const char *name, Word address) {
        out->lines.insert(start + name + Address(address));
    };
    for (const Frame &frame : runner.script->frames)
        for (const Scope &scope : frame.scopes) {
            if (!IsCompiled(frame.kind)) {
                add("|interpreter_frame_meth ", scope.method->oop);
                continue;
            }
            if (scope.receiver)
                add("|thread_local ", scope.receiver->address);
            for (const Object *object : scope.monitors)
                add("|thread_local ", object->address);
        }
}

} // namespace

HeapDump TakeTruth(const std::vector<Runner *> &runners) {
    const Locked held(vm.lock);
    HeapDump truth;
    base = RecordBase();
    AddObjects(&truth);
    for (const auto &[name, type] : vm.classes)
        for (const Field &field : type.fields)
            if (field.isStatic && field.value.object)
                truth.lines.insert(Address(type.klass) + " L" + Address(type.klass + field.offset) + "|" +
                                   Address(field.value.object->address));
    for (const Root &root : AllRoots())
        truth.lines.insert(std::string("S") + root.letter + " " + root.name + " " +
                           Address(root.object->address));
    for (const Runner *runner : runners)
        AddFrames(*runner, &truth);
    return truth;
}

std::vector<std::string> Differences(const HeapDump &dump, const HeapDump &truth) {
    std::vector<std::string> out;
    const auto has = [](const HeapDump &in, const std::string &start) {
        const auto at = in.lines.lower_bound(start);
        return at != in.lines.end() && at->rfind(start, 0) == 0;
    };
    for (const std::string &line : truth.lines)
        if (!has(dump, line)) // of what isn't described the start alone is known
            out.push_back("no " + line);
    for (const std::string &line : dump.lines)
        if (line.rfind(FRAME, 0) == 0
                ? !has(truth, line.substr(line.rfind(' ') + 1) + " ")
                : !truth.lines.count(line) && !truth.unknown.count(line.substr(0, line.find(' '))))
            out.push_back("wrong " + line);
    return out;
}

} // namespace simvm
