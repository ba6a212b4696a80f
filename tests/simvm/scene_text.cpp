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

const std::map<std::string, Rest> RESTS = {
    {"PIPE", Rest::PIPE}, {"SLEEP", Rest::SLEEP},     {"WAIT", Rest::WAIT},
    {"SPIN", Rest::SPIN}, {"MONITOR", Rest::MONITOR}, {"CALLS", Rest::CALLS},
};
const std::map<std::string, F> KINDS = {
    {"i", F::INTERPRETED}, {"c", F::COMPILED}, {"o", F::OSR}, {"n", F::NATIVE}, {"run", F::INTERPRETED},
};

} // namespace

char SceneText::Next() {
    while (at_ < line_.size() && line_[at_] == ' ')
        at_++;
    return at_ < line_.size() ? line_[at_] : 0;
}

bool SceneText::Take(const std::string &text) {
    const bool taken = Next() && line_.compare(at_, text.size(), text) == 0;
    at_ += taken ? text.size() : 0;
    return taken;
}

std::string SceneText::Until(const char *ends) {
    Next();
    const size_t from = at_;
    at_ = std::min(line_.find_first_of(ends, from), line_.size());
    return line_.substr(from, at_ - from);
}

std::string SceneText::Expanded(const std::string &line) const {
    static const std::regex name("\\$(\\w+)");
    std::string out, rest = line;
    for (std::sregex_iterator at(line.begin(), line.end(), name), none; at != none; ++at) {
        const auto found = texts_.find(at->str(1));
        out += at->prefix().str() + (found == texts_.end() ? at->str() : Expanded(found->second));
        rest = at->suffix();
    }
    return out + rest;
}

// ---- values
// ----------------------------------------------------------------------------------------------

std::vector<Value> SceneText::ReadElements() {
    std::vector<Value> elements;
    for (Take("("); !Take(")");)
        elements.push_back(ReadValue());
    return elements;
}

Value SceneText::ReadTable(const std::string &type) {
    const int32_t buckets = stoi(Until("!("));
    const bool cyclic = Take("!");
    std::vector<TableEntry> entries;
    for (Take("("); !Take(")");) {
        Object *key = ReadValue().object;
        const int32_t bucket = Take("@") ? stoi(Until(" ")) : 0;
        entries.push_back({key, ReadValue(), bucket});
    }
    return NewTable(type, buckets, entries, cyclic);
}

Value SceneText::ReadObject(const std::string &type) {
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

Value SceneText::ReadValue() {
    if (const char quote = Next(); quote == '"' || quote == '\'') {
        const size_t from = at_ + 1;
        at_ = line_.find(quote, from) + 1;
        const std::string text =
            std::regex_replace(line_.substr(from, at_ - 1 - from), std::regex("\\\\n"), "\n");
        return quote == '"' ? NewString(text) : NewChars(text);
    }
    if (Next() == '[') {
        const std::string signature = Until("(");
        return NewArray(signature, ReadElements());
    }
    const std::string word = Until(" {}()#<;@^>");
    if (Take("#"))
        return ReadTable(word);
    if (const auto found = values_.find(word); found != values_.end())
        return found->second;
    if (word.find('/') != std::string::npos)
        return ReadObject(word);
    if (word == "null" || word == "true")
        return word == "true" ? Value(true) : Value();
    return word.find('.') == std::string::npos ? Value(strtol(word.c_str(), nullptr, 0)) : Value(stod(word));
}

// ---- frames
// ----------------------------------------------------------------------------------------------

namespace {

// A method of five lines: 10 at its start, a far one, one that no file has, and last, as some compilers order
// them, one at bci 8 that stands for the call. Without a receiver it is static, without a line native.
Scope ScopeOf(const std::string &holder, const std::string &name, const std::string &signature, int line,
              Object *receiver) {
    const int flags = (receiver ? 0 : METHOD_STATIC) | (line ? 0 : METHOD_NATIVE);
    const std::vector<MethodLine> lines = {
        {0, 10}, {45, line + 300}, {46, line + 1}, {7, line + 70000}, {8, line}};
    return line ? Scope{DefineMethod(holder, name, signature, lines, flags), 8, receiver}
                : Scope{DefineMethod(holder, name, signature, {}, flags, 0), 0, receiver};
}

} // namespace

Scope SceneText::ReadScope() {
    const std::string place = Until(" :("), signature = Next() == '(' ? Until(" :") : "()V";
    const size_t dot = place.rfind('.');
    const std::string holder = place.substr(0, dot);
    const int line = Take(":") ? stoi(Until(" ;|")) : 0;
    Object *receiver = nullptr;
    if (Take("@"))
        receiver = (Next() == '{' || strchr(" ;|>^%", line_[at_]) ? ReadObject(holder) : ReadValue()).object;
    Scope scope = ScopeOf(holder, place.substr(dot + 1), signature, line, receiver);
    while (Take("^"))
        scope.monitors.push_back(ReadValue().object);
    const std::vector<std::string> arguments = ArgumentsOf(*scope.method);
    const std::string kept = "%~!="; // as Kept has them
    for (size_t i = 0; Next() && kept.find(Next()) != kept.npos; i++) {
        const auto how = Kept(kept.find(line_[at_++]));
        const Value value = ReadValue();
        scope.variables.push_back({i < arguments.size() ? arguments[i] : SignatureOf(value), value, how});
    }
    return scope;
}

Frame SceneText::ReadFrame() {
    const std::string kind = Until(" ;|");
    Frame frame = {KINDS.at(kind), {}};
    if (kind == "run") {
        const std::string holder = Until(" ;|");
        frame.scopes = {ScopeOf(holder, "run", "()V", 21, New(holder))};
    }
    while (Next() && Next() != ';' && Next() != '|') {
        frame.scopes.push_back(ReadScope());
        Take(">");
    }
    return frame;
}

std::vector<Frame> SceneText::Frames(const std::string &text) {
    if (!text.empty())
        line_ = Expanded(text), at_ = 0;
    std::vector<Frame> frames;
    do
        frames.push_back(ReadFrame());
    while (Take(";"));
    return frames;
}

void SceneText::ReadThread() {
    const std::string name = Until(":");
    Script script;
    Take(":");
    script.rest = RESTS.at(Until(" "));
    if (Take("\"")) {
        script.state = Until("\"");
        Take("\"");
    }
    script.frames = Frames("");
    while (Take("|") || Take(";")) {
        const std::string fact = Until("=;");
        Take("=");
        script.facts[fact] = Trimmed(Until(";"));
    }
    Add(scene_, name, std::move(script));
}

void SceneText::ReadLine(const std::string &line) {
    line_ = Expanded(line);
    at_ = 0;
    if (Take("class ")) {
        DefineClass(line_.substr(at_));
    } else if (Take("let ")) {
        const std::string name = Until(" ");
        texts_[name] = Trimmed(line_.substr(at_));
    } else if (Take("thread ")) {
        ReadThread();
    } else if (const bool isStatic = Take("static "); isStatic || Take("set ")) {
        const std::string of = Until("."), field = Until(" ").substr(1);
        Take("=");
        isStatic ? SetStatic(FindClass(of), field, ReadValue())
                 : Set(values_.at(of).object, field, ReadValue());
    } else {
        const std::string name = Trimmed(Until(":="));
        const bool isNamed = Take(":");
        Take("=");
        values_[name] = ReadValue();
        if (isNamed)
            scene_->named[name] = values_[name].object;
    }
}

void SceneText::Read(const std::string &text) {
    for (const std::string &line : WholeLines(text))
        ReadLine(line);
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
