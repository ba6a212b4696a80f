// Locals of frames as the agent shows them, compared with what the frames were made of.
#include "agent.h"
#include "objects.h"
#include "truth.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace simvm;

namespace {

const char FIELD = 29, RECORD = 30, SECTION = 31;

std::string Hex(Word value) {
    std::stringstream out;
    out << std::hex << value;
    return out.str();
}

std::string Dotted(std::string name) {
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

std::string TypeText(const std::string &signature) {
    static const std::map<char, std::string> WORDS = {{'I', "Integer"}, {'J', "Long"},  {'C', "Char"},
                                                      {'Z', "Boolean"}, {'F', "Float"}, {'D', "Double"}};
    if (signature[0] == '[')
        return "Array " + TypeText(signature.substr(1));
    return signature[0] == 'L' ? Dotted(signature.substr(1, signature.size() - 2)) : WORDS.at(signature[0]);
}

std::string Row(const std::string &address, const std::string &flag, const std::string &type,
                const std::string &value) {
    return address + FIELD + flag + FIELD + type + FIELD + value + RECORD;
}

std::string ObjectRow(const Object *object, const std::string &argumentType) {
    const std::string &name = object->type->name, address = Hex(object->address);
    if (name[0] == '[')
        return Row(address, name == "[Ljava/lang/String;" ? "-8" : "-2", TypeText(name),
                   "View Array Contents");
    const bool isText = argumentType == "java.lang.String" || argumentType == "java.lang.StringBuffer";
    const std::u16string chars = isText ? CharsOf(object) : u"";
    return Row(address, "0", argumentType.empty() ? Dotted(name) : argumentType,
               isText ? std::string(chars.begin(), chars.end()) : "View Object");
}

// Of a variable whose type nobody knows the lower half is shown, as a number.
std::string NumberText(const ShownVariable &variable, bool isArgument) {
    const char type = variable.signature[0];
    const Value &value = variable.value;
    const float single = float(value.real);
    int64_t bits = value.object ? int64_t(value.object->address) : value.number;
    if (!isArgument && (type == 'D' || type == 'F'))
        memcpy(&(bits = 0), type == 'D' ? static_cast<const void *>(&value.real) : &single,
               type == 'D' ? 8 : 4);
    if (!isArgument || type == 'L' || type == '[' || type == 'I')
        return std::to_string(int32_t(bits));
    if (type == 'F' || type == 'D')
        return std::to_string(value.real);
    return type == 'Z'   ? bits ? "True" : "False"
           : type == 'C' ? std::string(1, char(bits))
                         : std::to_string(bits);
}

std::string VariableRow(const ShownVariable &variable, bool isArgument) {
    const std::string type = isArgument ? TypeText(variable.signature) : "";
    if (variable.value.object && (variable.seen == Seen::OBJECT || variable.seen == Seen::CONSTANT))
        return ObjectRow(variable.value.object, type);
    const bool isNull = variable.seen == Seen::CONSTANT && variable.signature[0] == 'L';
    const std::string row =
        Row("^", "^", isArgument ? type : "^",
            variable.seen == Seen::NOTHING || isNull ? "^" : NumberText(variable, isArgument));
    const bool twoSlots = variable.signature == "J" || variable.signature == "D";
    return twoSlots && !isArgument ? row + row : row;
}

std::string ListText(const std::string &title, const std::vector<ShownVariable> &variables, bool isArgument) {
    std::string text = title + RECORD;
    for (const ShownVariable &variable : variables)
        text += VariableRow(variable, isArgument);
    if (variables.empty())
        return "";
    text.back() = SECTION;
    return text;
}

std::string FrameLocals(const ShownFrame &frame) {
    const bool isNative = frame.method->flags & METHOD_NATIVE;
    if (isNative && frame.compiled)
        return std::string("No Locals available") + SECTION;
    const Class &holder = *frame.method->holder;
    std::string text =
        std::string("Frame") + RECORD + Dotted(holder.name) + "->" + frame.method->name + SECTION;
    if (frame.self)
        text += std::string("This Object") + RECORD + Hex(frame.self->address) + FIELD + "0" + FIELD +
                Dotted(frame.self->type->name) + SECTION;
    else
        text += std::string("This Class") + RECORD + Hex(holder.klass) + FIELD + "1" + FIELD +
                Dotted(holder.name) + SECTION;
    return text + ListText("Method Arguments", frame.arguments, true) +
           ListText("Method Locals", frame.locals, false);
}

// What `qorctl locals` sends for a row of a stack.
std::string AskLocals(const std::vector<std::string> &place) {
    std::string request = "521|showstack|4096|ARG=x";
    for (size_t i = 0; i < place.size(); i++)
        request += "," + std::to_string(i) + "=" + place[i];
    const std::string reply = Ask(request);
    return reply.substr(0, reply.find("Time spent"));
}

// Kind, fp, pc, sp and method of each frame of a thread.
std::vector<std::vector<std::string>> PlacesOf(const Runner &runner) {
    const std::string stack = Ask("521|showstack|512|ARG=x,1=" + std::to_string(getpid()) + "-" +
                                  std::to_string(runner.info->kernelId));
    std::vector<std::vector<std::string>> places;
    for (const std::string &row : Split(Split(stack.substr(stack.find("Call Stack")), SECTION)[0], RECORD)) {
        const std::vector<std::string> fields = Split(row, FIELD);
        if (fields.size() == 9)
            places.push_back({fields.begin() + 1, fields.begin() + 6});
    }
    return places;
}

// Each row of a reference, sent back, shows an object or an array of the class that the row names.
void ExpectRowsLeadOn(const std::string &locals) {
    for (const std::string &section : Split(locals, SECTION))
        for (const std::string &row : Split(section, RECORD)) {
            const std::vector<std::string> fields = Split(row, FIELD);
            if (fields.size() < 3 || fields[0] == "^")
                continue;
            const std::string view = Ask("521|showstack|1024|ARG=x,0=" + fields[0] + ",1=" + fields[1]);
            EXPECT_EQ(view.find("Message"), 0u) << row << "\n" << view;
            const bool isView = fields[1][0] != '-' && fields[2] != "java.lang.String";
            EXPECT_TRUE(!isView || view.find("Object Name : " + fields[2]) != std::string::npos)
                << row << "\n"
                << view;
        }
}

} // namespace

TEST(DirectLocals, EqualWhatTheirFramesHold) {
    Options options;
    options.library = SIMVM_FOLDER "/server/libjvm.so";
    Boot(options);
    Scene scene;
    StageScene("readers", &scene);
    Script main = MainScript();
    EmitScript(&main);
    RunHere("main", &main, [&] {
        ASSERT_EQ(StartAgent(), 0);
        for (const Runner *runner : scene.runners) {
            const auto places = PlacesOf(*runner);
            const std::vector<ShownFrame> frames = ShownFrames(*runner);
            ASSERT_EQ(places.size(), frames.size()) << runner->info->name;
            for (size_t i = 0; i < frames.size(); i++) {
                const std::string locals = AskLocals(places[i]);
                EXPECT_EQ(locals, FrameLocals(frames[i]))
                    << runner->info->name << " " << frames[i].method->name;
                ExpectRowsLeadOn(locals);
                for (size_t field : {places[i][0] == "1" ? 2 : 1, 4}) { // no such code, stack or method
                    std::vector<std::string> place = places[i];
                    place[field] = "12345";
                    EXPECT_NE(AskLocals(place).find(std::string("Frame") + RECORD), 0u) << field;
                }
            }
        }
        Ask("SHUTDOWN");
    });
    EndScene(&scene);
}
