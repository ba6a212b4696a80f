// What a dump has to hold, from the description.
#include "dump.h"
#include "heap.h"

#include <algorithm>
#include <set>
#include <sstream>

namespace simvm {

namespace {

constexpr size_t MAX_DIFFERENCES = 20;

struct Names {
    std::unordered_map<Word, const std::string *> symbols; // by address
    std::unordered_map<Word, Word> ofClasses;              // a klass's name
    std::unordered_map<Word, const MethodInfo *> methods;
};

Names AllNames() {
    Names names;
    for (const auto &[text, symbol] : vm.symbols)
        names.symbols[symbol] = &text;
    for (const auto &[name, type] : vm.classes)
        names.ofClasses[type.klass] = vm.symbols[name];
    for (const MethodInfo &method : vm.methods)
        names.methods[method.oop] = &method;
    return names;
}

// As a line has it: what is no plain character is left out, and a line's end ends it.
std::string Plain(const std::string &text) {
    std::string plain;
    for (char c : text.substr(0, text.find('\n')))
        if (c >= ' ' && c <= '~')
            plain += c;
    return plain;
}

DumpedObject Expected(Word at, char letter, char type, const Names &names) {
    DumpedObject object;
    object.space = letter;
    object.type = type;
    object.bytes = 8 * WordsOf(at);
    if (type == '1')
        object.text = Plain(*names.symbols.at(at));
    else if (type == '2')
        object.symbols = {vm.symbols[names.methods.at(at)->name],
                          vm.symbols[names.methods.at(at)->signature]};
    else if (auto name = names.ofClasses.find(type == '8' || type == '[' ? As<Oop>(at).klass : at);
             name != names.ofClasses.end())
        object.symbols = {name->second};
    return object;
}

void AddReferences(const Object &from, DumpedObject *out) {
    bool array = from.type->name[0] == '[';
    if (!array) {
        std::vector<const Field *> fields = FieldsOf(from.type);
        for (size_t i = 0; i < from.values.size(); i++)
            if (from.values[i].object)
                out->fields.push_back({from.address + fields[i]->offset, from.values[i].object->address});
        std::sort(out->fields.begin(), out->fields.end());
        out->length = 0;
        return;
    }
    out->length = from.values.size();
    for (const Value &value : from.values)
        if (value.object)
            out->elements.push_back(value.object->address);
}

void AddFrames(const Runner &runner, DumpTruth *out) {
    std::string thread = runner.info->name;
    std::replace(thread.begin(), thread.end(), '|', ' ');
    for (const Frame &frame : runner.script->frames)
        for (const Scope &scope : frame.scopes) {
            if (frame.kind == FrameKind::INTERPRETED || frame.kind == FrameKind::NATIVE) {
                out->frames.push_back({thread, "interpreter_frame_meth", scope.method->oop});
                continue;
            }
            if (scope.receiver)
                out->frames.push_back({thread, "thread_local", scope.receiver->address});
            for (const Object *object : scope.monitors)
                out->frames.push_back({thread, "thread_local", object->address});
        }
}

std::string Text(Word address, const DumpedObject &object) {
    std::stringstream out;
    out << std::hex << address << ": " << object.space << object.type << " bytes " << object.bytes
        << " length " << object.length << " \"" << object.text << "\" symbols";
    for (Word symbol : object.symbols)
        out << ' ' << symbol;
    out << " fields";
    for (const Reference &field : object.fields)
        out << ' ' << field.place << ">" << field.to;
    out << " elements";
    for (Word element : object.elements)
        out << ' ' << element;
    return out.str();
}

bool IsSame(const DumpedObject &shown, const DumpedObject &truth) {
    if (shown.space != truth.space || shown.type != truth.type || shown.bytes != truth.bytes ||
        shown.text != truth.text)
        return false;
    if (!truth.symbols.empty() && shown.symbols != truth.symbols)
        return false;
    if (truth.length < 0)
        return true;
    return (truth.type == '8' || shown.length == truth.length) && shown.fields == truth.fields &&
           shown.elements == truth.elements;
}

bool IsOfFrame(const DumpedRoot &root) {
    return root.name == "thread_local" || root.name.rfind("interpreter_frame_", 0) == 0;
}

struct Differing {
    std::vector<std::string> lines;
    template <class... PARTS>
    void Add(const PARTS &...parts) {
        std::stringstream out;
        if (lines.size() < MAX_DIFFERENCES)
            ((out << std::hex << parts), ...), lines.push_back(out.str());
    }
};

void CompareRoots(const HeapDump &dump, const DumpTruth &truth, Differing *out) {
    std::set<std::tuple<char, std::string, Word>> shown, expected;
    std::set<std::tuple<std::string, std::string, Word>> frames;
    for (const DumpedRoot &root : dump.roots)
        if (IsOfFrame(root)) {
            frames.emplace(root.prefix.substr(0, root.prefix.find('|')), root.name, root.address);
            if (!truth.objects.count(root.address))
                out->Add("a frame's root leads nowhere: ", root.prefix, root.name, ' ', root.address);
        } else
            shown.emplace(root.letter, root.name, root.address);
    for (const Root &root : truth.roots)
        expected.emplace(root.letter, root.name, root.Address());
    for (auto &[letter, name, address] : expected)
        if (!shown.count({letter, name, address}))
            out->Add("no root ", letter, ' ', name, ' ', address);
    for (auto &[letter, name, address] : shown)
        if (!expected.count({letter, name, address}))
            out->Add("not a root: ", letter, ' ', name, ' ', address);
    for (const DumpTruth::OfFrame &frame : truth.frames)
        if (!frames.count({frame.thread, frame.name, frame.address}))
            out->Add("no root of a frame: ", frame.thread, ' ', frame.name, ' ', frame.address);
}

} // namespace

DumpTruth TakeTruth(const std::vector<Runner *> &runners) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    DumpTruth truth;
    const Names names = AllNames();
    const std::unordered_map<Word, char> letters = KindLetters();
    for (const SpaceUse &use : UseOfSpaces())
        for (Word at = use.space->bottom; at < use.space->top; at += 8)
            if (SizeAt(*use.space, at))
                truth.objects[at] = Expected(at, use.space->letter, letters.at(As<Oop>(at).klass), names);
    for (const Object &object : vm.objects)
        if (object.address && object.type)
            AddReferences(object, &truth.objects[object.address]);
    truth.roots = AllRoots();
    for (const Runner *runner : runners)
        AddFrames(*runner, &truth);
    return truth;
}

std::vector<std::string> Differences(const HeapDump &dump, const DumpTruth &truth) {
    Differing out;
    for (const std::string &line : dump.strange)
        out.Add("a strange line: ", line);
    if (!dump.finished || dump.repeated)
        out.Add("finished: ", dump.finished, ", objects with two lines: ", dump.repeated);
    for (const auto &[address, object] : truth.objects) {
        auto shown = dump.objects.find(address);
        if (shown == dump.objects.end())
            out.Add("missing ", Text(address, object));
        else if (!IsSame(shown->second, object))
            out.Add("is ", Text(address, shown->second), "\n  not ", Text(address, object));
    }
    for (const auto &[address, object] : dump.objects)
        if (!truth.objects.count(address))
            out.Add("not an object: ", Text(address, object));
    CompareRoots(dump, truth, &out);
    return out.lines;
}

} // namespace simvm
