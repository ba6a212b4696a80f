#include "scenes.h"

#include <regex>

namespace simvm {

namespace {

std::string SignatureOf(const Value &value) {
    if (!value.object)
        return value.real == double(value.number) ? "I" : "D";
    const std::string &name = value.object->type->name;
    return name[0] == '[' ? name : "L" + name + ";";
}

bool HasField(const std::string &type, const std::string &field) {
    const std::vector<const Field *> fields = FieldsOf(FindClass(type));
    return std::any_of(fields.begin(), fields.end(), [&](const Field *one) { return one->name == field; });
}

std::string Trimmed(const std::string &text) {
    const size_t from = text.find_first_not_of(' ');
    return from == std::string::npos ? "" : text.substr(from, text.find_last_not_of(' ') + 1 - from);
}

Rest RestOf(const std::string &word) {
    int rest = 0;
    while (word != RESTS[rest].word)
        rest++;
    return Rest(rest);
}

// A method of five lines: 10 at its start, a far one, one that no file has, and last, as some compilers order
// them, one at bci 8 that stands for the call. Without a receiver it is static, without a line native.
Scope ScopeOf(const std::string &holder, const std::string &name, const std::string &signature, int line,
              Object *receiver) {
    const int flags = (receiver ? 0 : METHOD_STATIC) | (line ? 0 : METHOD_NATIVE);
    if (!line)
        return {DefineMethod(holder, name, signature, {}, flags), 0, receiver};
    const std::vector<MethodLine> lines = {
        {0, 10}, {45, line + 300}, {46, line + 1}, {7, line + 70000}, {8, line}};
    return {DefineMethod(holder, name, signature, lines, flags), 8, receiver};
}

// What is read: one text at a time.
Scene *staged;
Texts lets;
std::map<std::string, Value> objects;
std::string input; // the line
size_t cursor;     // in it

void Begin(const std::string &line) {
    input = Expanded(line, lets);
    cursor = 0;
}

char Next() { // after blanks; 0 at the end
    while (input[cursor] == ' ')
        cursor++;
    return input[cursor];
}

bool Take(const std::string &text) {
    const bool taken = Next() && input.compare(cursor, text.size(), text) == 0;
    cursor += taken ? text.size() : 0;
    return taken;
}

std::string Until(const char *ends) {
    Next();
    const size_t from = cursor;
    cursor = std::min(input.find_first_of(ends, from), input.size());
    return input.substr(from, cursor - from);
}

Value ReadValue();

Value ReadObject(const std::string &type) {
    const std::string super = Take("<") ? Until(" {") : "java/lang/Object";
    Fields values;
    std::string definition = type + " < " + super;
    for (bool more = Take("{"); more && !Take("}");) {
        const std::string name = Until(",="), signature = Take(",") ? Until("=") : "";
        Take("=");
        values.emplace_back(name, ReadValue());
        if (!FindClass(type) && !HasField(super, name))
            definition +=
                " " + name + "," + (signature.empty() ? SignatureOf(values.back().second) : signature);
    }
    DefineClass(definition);
    return New(type, values);
}

Value ReadValue() {
    if (const char quote = Next(); quote == '"' || quote == '\'') {
        const size_t from = cursor + 1;
        cursor = input.find(quote, from) + 1;
        std::string text = input.substr(from, cursor - 1 - from);
        std::replace(text.begin(), text.end(), '\\', '\n');
        return quote == '"' ? NewString(text) : NewChars(text);
    }
    if (Next() == '[') {
        const std::string signature = Until("(");
        std::vector<Value> elements;
        for (Take("("); !Take(")");)
            elements.push_back(ReadValue());
        return NewArray(signature, elements);
    }
    const std::string word = Until(" {})<");
    if (const auto found = objects.find(word); found != objects.end())
        return found->second;
    if (word.find('/') != std::string::npos)
        return ReadObject(word);
    return word.find('.') == std::string::npos ? Value(strtol(word.c_str(), nullptr, 0)) : Value(stod(word));
}

Scope ReadScope() {
    const std::string place = Until(" :("), signature = Next() == '(' ? Until(" :") : "()V";
    const size_t dot = place.rfind('.');
    const std::string holder = place.substr(0, dot);
    const int line = Take(":") ? stoi(Until(" ;|")) : 0;
    Object *receiver = nullptr;
    if (Take("@"))
        receiver =
            (Next() == '{' || strchr(" ;|>^%", input[cursor]) ? ReadObject(holder) : ReadValue()).object;
    Scope scope = ScopeOf(holder, place.substr(dot + 1), signature, line, receiver);
    while (Take("^"))
        scope.monitors.push_back(ReadValue().object);
    const std::vector<std::string> arguments = ArgumentsOf(*scope.method);
    const std::string kept = "%~!="; // as Kept has them
    for (size_t i = 0; Next() && kept.find(Next()) != kept.npos; i++) {
        const auto how = Kept(kept.find(input[cursor++]));
        const Value value = ReadValue();
        scope.variables.push_back({i < arguments.size() ? arguments[i] : SignatureOf(value), value, how});
    }
    return scope;
}

std::vector<Frame> ReadFrames() {
    std::vector<Frame> frames;
    do {
        frames.push_back({FrameKind(std::string("icon").find(Until(" "))), {}});
        do
            frames.back().scopes.push_back(ReadScope());
        while (Take(">"));
    } while (Take(";"));
    return frames;
}

void ReadThread() {
    const std::string name = Until(":");
    Script &script = staged->scripts.emplace_back();
    Take(":");
    script.rest = RestOf(Until(" "));
    script.state = Take("\"") ? Until("\"") : RESTS[int(script.rest)].shown;
    Take("\"");
    script.frames = ReadFrames();
    while (Take("|") || Take(";")) {
        const std::string fact = Until("=;");
        Take("=");
        script.facts[fact] = Trimmed(Until(";"));
    }
    EmitScript(&script);
    staged->runners.push_back(Start(name, &script));
}

void ReadLine() {
    if (Take("class ")) {
        DefineClass(input.substr(cursor));
    } else if (Take("let ")) {
        const std::string name = Until(" ");
        lets[name] = Trimmed(input.substr(cursor));
    } else if (Take("socket ")) {
        lets["T"] = input.substr(cursor);
        for (const auto &[name, text] : Connect(staged))
            lets[name] = text;
    } else if (Take("thread ")) {
        ReadThread();
    } else if (const bool isStatic = Take("static "); isStatic || Take("set ")) {
        const std::string of = Until("."), field = Until(" ").substr(1);
        Take("=");
        isStatic ? SetStatic(FindClass(of), field, ReadValue())
                 : Set(objects.at(of).object, field, ReadValue());
    } else {
        const std::string name = Trimmed(Until(":="));
        const bool isNamed = Take(":");
        Take("=");
        objects[name] = ReadValue();
        if (isNamed)
            staged->named[name] = objects[name].object;
    }
}

} // namespace

void ReadScene(Scene *scene, const std::string &text) {
    staged = scene;
    lets.clear();
    objects.clear();
    for (const std::string &line : WholeLines(text)) {
        Begin(line);
        ReadLine();
    }
}

std::vector<Frame> FramesOf(const std::string &text) {
    Begin(text);
    return ReadFrames();
}

std::string Expanded(const std::string &line, const Texts &texts) {
    static const std::regex name("\\$(\\w+)");
    std::string out, rest = line;
    for (std::sregex_iterator at(line.begin(), line.end(), name), none; at != none; ++at) {
        const auto found = texts.find(at->str(1));
        out += at->prefix().str() + (found == texts.end() ? at->str() : Expanded(found->second, texts));
        rest = at->suffix();
    }
    return out + rest;
}

std::vector<std::string> WholeLines(const std::string &text) {
    std::istringstream lines(text);
    std::vector<std::string> whole;
    for (std::string line; std::getline(lines, line);) {
        line = line.substr(0, line.find("# "));
        if (line[0] == ' ' && !whole.empty())
            whole.back() += ' ' + Trimmed(line);
        else if (!Trimmed(line).empty())
            whole.push_back(line);
    }
    return whole;
}

} // namespace simvm
