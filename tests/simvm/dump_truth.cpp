// What a dump has to hold, from the description.
#include "agent.h"
#include "dump.h"
#include "heap.h"

#include <algorithm>
#include <sstream>

namespace simvm {

namespace {

constexpr size_t MAX_DIFFERENCES = 20;

struct Names {
    std::unordered_map<Word, const std::string *> symbols; // by address
    std::unordered_map<Word, Word> ofClasses;              // a klass's name
    std::unordered_map<Word, const MethodInfo *> methods;

    Names() {
        for (const auto &[text, symbol] : vm.symbols)
            symbols[symbol] = &text;
        for (const auto &[name, type] : vm.classes)
            ofClasses[type.klass] = vm.symbols[name];
        for (const MethodInfo &method : vm.methods)
            methods[method.oop] = &method;
    }
};

// As a line has it: what is no plain character is left out, and a line's end ends it.
std::string Plain(const std::string &text) {
    std::string plain;
    for (char c : text.substr(0, text.find('\n')))
        if (c >= ' ' && c <= '~')
            plain += c;
    return plain;
}

DumpedObject Expected(Word at, char letter, char type, const Names &names) {
    DumpedObject object = {{letter, type, '|'}, {}, false};
    object.line += Hex(8 * WordsOf(at)) + "|";
    const auto name = names.ofClasses.find(type == '8' || type == '[' ? As<Oop>(at).klass : at);
    if (type == '1')
        object.line += Plain(*names.symbols.at(at)) + "|";
    else if (type == '2')
        object.line += Hex(vm.symbols[names.methods.at(at)->name]) + "|" +
                       Hex(vm.symbols[names.methods.at(at)->signature]) + "|";
    else if (name != names.ofClasses.end())
        object.line += Hex(name->second) + "|";
    return object;
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
    std::string thread = runner.info->name;
    std::replace(thread.begin(), thread.end(), '|', ' ');
    auto add = [&](const char *name, Word address) {
        out->frames[thread + "|" + name + " " + Hex(address)] = address;
    };
    for (const Frame &frame : runner.script->frames)
        for (const Scope &scope : frame.scopes) {
            if (frame.kind == FrameKind::INTERPRETED || frame.kind == FrameKind::NATIVE) {
                add("interpreter_frame_meth", scope.method->oop);
                continue;
            }
            if (scope.receiver)
                add("thread_local", scope.receiver->address);
            for (const Object *object : scope.monitors)
                add("thread_local", object->address);
        }
}

std::string Text(Word address, const DumpedObject &object) {
    std::string text = Hex(address) + ": " + object.line;
    for (const std::string &reference : object.references)
        text += "\n    " + reference;
    return text;
}

bool IsSame(const DumpedObject &shown, const DumpedObject &truth) {
    if (truth.isKnown)
        return shown.line == truth.line && shown.references == truth.references;
    return shown.line.rfind(truth.line, 0) == 0 &&
           std::all_of(truth.references.begin(), truth.references.end(), [&](const std::string &one) {
               return std::count(shown.references.begin(), shown.references.end(), one) == 1;
           });
}

struct Differing {
    std::vector<std::string> lines;
    void Add(const std::string &line) {
        if (lines.size() < MAX_DIFFERENCES)
            lines.push_back(line);
    }
};

void CompareRoots(const HeapDump &dump, const HeapDump &truth, Differing *out) {
    for (const std::string &root : truth.roots)
        if (!dump.roots.count(root))
            out->Add("no root " + root);
    for (const std::string &root : dump.roots)
        if (!truth.roots.count(root))
            out->Add("not a root: " + root);
    for (const auto &[root, address] : dump.frames)
        if (!truth.objects.count(address))
            out->Add("a frame's root leads nowhere: " + root);
    for (const auto &[root, address] : truth.frames)
        if (!dump.frames.count(root))
            out->Add("no root of a frame: " + root);
}

} // namespace

HeapDump TakeTruth(const std::vector<Runner *> &runners) {
    const std::lock_guard<std::recursive_mutex> held(vm.lock);
    HeapDump truth;
    const Names names;
    const std::unordered_map<Word, char> letters = KindLetters();
    for (const SpaceUse &use : UseOfSpaces())
        for (Word at = use.space->bottom; at < use.space->top; at += 8)
            if (SizeAt(*use.space, at))
                truth.objects[at] = Expected(at, use.space->letter, letters.at(As<Oop>(at).klass), names);
    for (const Object &object : vm.objects)
        if (object.address && object.type)
            AddReferences(object, &truth.objects[object.address]);
    for (const auto &[name, type] : vm.classes)
        for (const Field &field : type.fields)
            if (field.isStatic && field.value.object)
                truth.objects[type.klass].references.push_back("L " + Hex(type.klass + field.offset) + ">" +
                                                               Hex(field.value.object->address));
    for (const Root &root : AllRoots())
        truth.roots.insert(root.letter + (" " + root.name) + " " + Hex(root.Address()));
    for (const Runner *runner : runners)
        AddFrames(*runner, &truth);
    return truth;
}

std::vector<std::string> Differences(const HeapDump &dump, const HeapDump &truth) {
    Differing out;
    for (const std::string &line : dump.strange)
        out.Add("a strange line: " + line);
    if (!dump.isFinished || dump.repeated)
        out.Add("finished: " + std::to_string(dump.isFinished) +
                ", repeated: " + std::to_string(dump.repeated));
    for (const auto &[address, object] : truth.objects) {
        const auto shown = dump.objects.find(address);
        if (shown == dump.objects.end())
            out.Add("missing " + Text(address, object));
        else if (!IsSame(shown->second, object))
            out.Add("is " + Text(address, shown->second) + "\n  not " + Text(address, object));
    }
    for (const auto &[address, object] : dump.objects)
        if (!truth.objects.count(address))
            out.Add("not an object: " + Text(address, object));
    CompareRoots(dump, truth, &out);
    return out.lines;
}

} // namespace simvm
