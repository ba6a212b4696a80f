// Objects and the locals of frames as the agent reads and shows them, compared with what they were made of.
#include "objects.h"
#include "storm.h"
#include "truth.h"
#include "with_scene.h"

#include "qorutil/vm_klass.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"

#include <random>
#include <regex>
#include <set>

using namespace simvm;

namespace {

const char FIELD = 29, RECORD = 30, SECTION = 31;

// ---- what is to be shown
// ---------------------------------------------------------------------------------

// As UTF-8, character by character, those below 32 as blanks. Half of a pair is a question mark.
std::string Utf8(const std::u16string &chars) {
    std::string shown;
    const auto isHalf = [&](size_t at, int kind) { return at < chars.size() && chars[at] >> 10 == kind; };
    for (size_t i = 0; i < chars.size(); i++) {
        const bool isPaired =
            isHalf(i, 0x36) ? isHalf(i + 1, 0x37) : !isHalf(i, 0x37) || (i && isHalf(i - 1, 0x36));
        const int c = !isPaired ? '?' : chars[i] < 32 ? ' ' : chars[i];
        const int more = c < 0x80 ? 0 : c < 0x800 ? 1 : 2; // bytes that follow the first
        shown += char(more ? (0xff00 >> (more + 1) & 0xff) | c >> 6 * more : c);
        for (int byte = more; byte-- > 0;)
            shown += char(0x80 | (c >> 6 * byte & 0x3f));
    }
    return shown;
}

// The first 1,023 characters. "" for a range that isn't in its array.
std::string TextShown(const Object *text) {
    const bool part = text->type->name == "java/lang/String";
    if (part && (Get(text, "count").number < 0 || Get(text, "offset").number > 4096))
        return "";
    return Utf8(CharsOf(text).substr(0, 1023));
}

std::string WordOf(const std::string &element) {
    static const std::map<char, std::string> WORDS = {{'I', "Integer"}, {'J', "Long"},  {'C', "Char"},
                                                      {'Z', "Boolean"}, {'F', "Float"}, {'D', "Double"},
                                                      {'B', "Byte"},    {'S', "Short"}};
    return element[0] == 'L' ? Dotted(element.substr(1, element.size() - 2)) : WORDS.at(element[0]);
}

// A field's type, and an argument's.
std::string TypeText(const std::string &signature) {
    const size_t arrays = signature.find_first_not_of('[');
    std::string text = WordOf(signature.substr(arrays));
    for (size_t i = 1; i <= arrays; i++)
        text += " Array D-" + std::to_string(i);
    return text;
}
std::string ArgumentType(const std::string &signature) {
    return signature[0] == '[' ? "Array " + ArgumentType(signature.substr(1)) : WordOf(signature);
}

std::string NameText(const Object *object) {
    const std::string &name = object->type->name;
    return name[0] == '[' ? TypeText(name) : Dotted(name);
}

std::string Joined(const std::vector<std::string> &fields) {
    std::string row;
    for (const std::string &field : fields)
        row += (row.empty() ? "" : std::string(1, FIELD)) + field;
    return row + RECORD;
}

std::string ValueText(char code, const Value &value) {
    if (code == 'Z')
        return value.number ? "True" : "False";
    if (code == 'C' && value.number < 128 && isalnum(int(value.number)))
        return {char(value.number)};
    return code == 'F' || code == 'D' ? std::to_string(value.real) : std::to_string(value.number);
}

std::string FlagOf(const Object *object) {
    const std::string &own = object->type->name;
    return own[0] != '[' ? "0" : own == "[Ljava/lang/String;" ? "-8" : "-2";
}
std::string Invitation(const Object *object) {
    return object->type->name[0] == '[' ? "View Array Contents" : "View Object";
}

std::string FieldRow(const std::string &signature, const std::string &type, const std::string &name,
                     const Value &value) {
    static const std::set<std::string> TEXTS = {"[C", "Ljava/lang/String;", "Ljava/lang/StringBuffer;"};
    const bool isReference = signature[0] == 'L' || signature[0] == '[';
    if (value.object && !TEXTS.count(signature))
        return Joined(
            {Hex(value.object->address), FlagOf(value.object), type, name, Invitation(value.object)});
    return Joined({"^", "^", type, name,
                   value.object  ? TextShown(value.object)
                   : isReference ? "Null Oop"
                                 : ValueText(signature[0], value)});
}

// The fields that the class itself declares; without an object the statics.
std::string FieldRows(const Class *type, const Object *object) {
    std::string rows;
    const std::vector<const Field *> all = object ? FieldsOf(object->type) : std::vector<const Field *>();
    for (const Field &field : type->fields) {
        const size_t at = std::find(all.begin(), all.end(), &field) - all.begin();
        if (field.isStatic || object)
            rows += FieldRow(field.signature, (field.isStatic ? "static " : "") + TypeText(field.signature),
                             field.name, field.isStatic ? field.value : object->values[at]);
    }
    return (rows.empty() ? "No Fields exist" : "Object Description\x1e" + rows) + SECTION;
}

std::string ClassView(const Class *type, const Object *object) {
    std::string view = "Message\x1eObject Name : " + Dotted(type->name) + SECTION + FieldRows(type, object);
    for (const Class *above = type->super; above; above = above->super)
        view += "Parent of the Object above:\x1e" + Dotted(above->name) + SECTION + FieldRows(above, object);
    return view;
}

std::string ElementRows(const Object *array) {
    const std::string signature = array->type->name.substr(1);
    if (signature == "C")
        return Joined({"^", "^", TypeText("[C"), "^", TextShown(array)}) + SECTION;
    const bool isText = signature == "Ljava/lang/String;",
               isReference = signature[0] == 'L' || signature[0] == '[';
    std::string rows;
    for (size_t i = 0; i < array->values.size(); i++) {
        const Value &value = array->values[i];
        const std::string at = "[" + std::to_string(i) + "]";
        if (isReference && !value.object)
            continue;
        rows += isText ? "String Array Element" + at + " : " + TextShown(value.object) + SECTION
                       : FieldRow(isReference ? "L" : signature,
                                  isReference ? NameText(value.object) : TypeText(signature),
                                  "Array Element " + at, value);
    }
    return isText && !rows.empty() ? rows : rows + SECTION;
}

std::string View(const Object *object) {
    if (object->type->name[0] != '[')
        return ClassView(object->type, object);
    return "Message\x1eObject Name : " + NameText(object) + "\x1fObject Description\x1e" +
           ElementRows(object);
}

// ---- objects
// ---------------------------------------------------------------------------------------------

std::string AskFor(const std::string &address, const std::string &flag) {
    const std::string reply = Ask("525|showstack|1024|ARG=x,0=" + address + ",1=" + flag);
    return reply.substr(0, reply.find("Time spent in JVM"));
}

// Every row clicked leads to what it refers to. How many objects were seen.
size_t ExpectViews(const Object *start) {
    std::set<std::string> seen;
    std::vector<std::pair<std::string, std::string>> slots = {{Hex(start->address), FlagOf(start)}};
    while (!slots.empty()) {
        const auto [address, flag] = slots.back();
        slots.pop_back();
        if (!seen.insert(address).second)
            continue;
        const auto object = std::find_if(vm.objects.begin(), vm.objects.end(),
                                         [&](const Object &one) { return Hex(one.address) == address; });
        if (object == vm.objects.end()) {
            ADD_FAILURE() << "nothing is at " << address;
            continue;
        }
        const std::string view = AskFor(address, flag);
        EXPECT_EQ(view, View(&*object));
        for (const std::string &section : Split(view, SECTION))
            for (const std::string &row : Split(section, RECORD)) {
                const std::vector<std::string> field = Split(row, FIELD);
                if (field.size() == 5 && field[0] != "^")
                    slots.push_back({field[0], field[1]});
            }
    }
    return seen.size();
}

class DirectObjects : public testing::TestWithParam<int> {};

} // namespace

TEST_P(DirectObjects, AreShownAndClickedFieldByField) {
    WithScene("readers", BuildOf(GetParam()), [](Scene &scene) {
        for (int turn = 0; turn < 2; turn++, Collect())
            for (const auto &[name, object] : scene.named)
                EXPECT_GE(ExpectViews(object), 1u) << name;
        const Object *all = scene.named["all"];
        EXPECT_EQ(ExpectViews(all), 21u);
        EXPECT_EQ(AskFor(Hex(all->klass), "1"), ClassView(all->type, nullptr));
        std::string midst;
        Collect([&] { midst = AskFor(Hex(all->address), "0"); });
        EXPECT_EQ(midst, "Unable to complete Request GC running\x1f");

        EXPECT_EQ(AskFor("0", "0"), "Null Oop\x1f");
        EXPECT_EQ(AskFor("0", "-2"), "This Array Object is NULL\x1f");
        for (Word address : {Word(1), all->address + 8, all->address + 4, ~Word(7), Word(7) << 60, vm.heap})
            for (const char *flag : {"0", "1", "-2"})
                EXPECT_EQ(AskFor(Hex(address), flag), "Invalid Object\x1f") << address;
        EXPECT_EQ(AskFor(Hex(all->address), "1"), "Invalid Object\x1f"); // no class
        EXPECT_NE(
            AskFor(Hex(Intern("readers/All")), "0").find("No Information available for this Object\x1f"),
            std::string::npos);
        // An array whose length is torn ends with the heap, not after two billion failed reads.
        const Object *names = Get(all, "names").object;
        As<JavaArray>(names->address).length = INT32_MAX;
        const std::string view = AskFor(Hex(names->address), "-8");
        As<JavaArray>(names->address).length = int32_t(names->values.size());
        EXPECT_EQ(view.substr(0, View(names).size()), View(names));
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DirectObjects, testing::Range(0, 3));

// What is shown is the object or one of the refusals, among objects that move and with any word overwritten.
TEST(MovingObjects, AreShownWholeOrNotAtAll) {
    WithScene("readers", {}, [](Scene &scene) {
        std::vector<const Object *> all;
        for (const auto &[name, object] : scene.named)
            if (name != "many")
                all.push_back(object);
        std::mt19937_64 random(3);
        for (int round = 0; round < 2000; round++) {
            const Object *object = all[random() % all.size()];
            const Spoilt spoilt = Spoil(random(), {}, Self()->address);
            const std::string view = AskFor(Hex(object->address), "0");
            Mend(spoilt);
            EXPECT_TRUE(view.empty() || view.back() == SECTION) << view;
        }
        const auto withoutAddresses = [](const std::string &view) {
            return std::regex_replace(view, std::regex("(\x1e)[0-9a-f]+(\x1d-?[0-9])"), "$1*$2");
        };
        const Object *watched = scene.named["all"];
        const std::string wanted = withoutAddresses(View(watched));
        EXPECT_EQ(withoutAddresses(AskFor(Hex(watched->address), "0")), wanted);
        const std::string manyWanted = View(scene.named["many"]); // takes as long as collections are apart
        StartStorm({});
        for (int whole = 0; whole < 12;) {
            const std::string view = withoutAddresses(AskFor(Hex(watched->address), "0"));
            whole += view == wanted;
            ASSERT_TRUE(view == wanted || view.find("Name : readers.All\x1f") == std::string::npos) << view;
            const std::string many = AskFor(Hex(scene.named["many"]->address), "-2");
            ASSERT_TRUE(many == manyWanted || many.size() < manyWanted.size() / 2);
        }
        StopStorm();
    });
}

// As names and SQL are shown: with pairs in four bytes, cut before a character that doesn't fit.
TEST(DirectTexts, AreCutBetweenCharacters) {
    WithScene("readers", {}, [](Scene &scene) {
        const struct {
            const char *name, *text, *inThreeBytes;
        } CASES[] = {{"wide-text", "a\xf0\x9f\x98\x80?b?\xe2\x82\xac", "a"},
                     {"odd-text", "odd \xc2\x80\xc3\xa9\xc3\xbf    |", "od"},
                     {"negative-count", "", ""},
                     {"far-offset", "", ""}};
        char text[VM_TEXT_SIZE];
        for (const auto &c : CASES) {
            EXPECT_STREQ(QorStringText(text, sizeof text, scene.named[c.name]->address), c.text);
            EXPECT_STREQ(QorStringText(text, 3, scene.named[c.name]->address), c.inThreeBytes);
        }
        QorStringText(text, sizeof text, scene.named["long-text"]->address);
        EXPECT_EQ(strlen(text), size_t{VM_TEXT_CHARS});
        EXPECT_EQ(sym2str(text, sizeof text, scene.named["long-text"]->address), nullptr);
    });
}

// ---- locals
// ----------------------------------------------------------------------------------------------

namespace {

// Of a variable whose type nobody knows the lower half is shown, as a number.
std::string NumberText(const ShownVariable &variable, bool isArgument) {
    const char type = variable.signature[0];
    const Value &value = variable.value;
    if (isArgument && strchr("ZFDCJ", type))
        return type == 'C' ? std::string(1, char(value.number)) : ValueText(type, value);
    const float single = float(value.real);
    int64_t bits = value.object ? int64_t(value.object->address) : value.number;
    if (type == 'D')
        memcpy(&bits, &value.real, 8);
    if (type == 'F')
        memcpy(&bits, &single, 4);
    return std::to_string(int32_t(bits));
}

std::string VariableRow(const ShownVariable &variable, bool isArgument) {
    const std::string type = isArgument ? ArgumentType(variable.signature) : "";
    const Object *object = variable.value.object;
    if (object && (variable.seen == Seen::OBJECT || variable.seen == Seen::CONSTANT)) {
        const bool isText = type == "java.lang.String" || type == "java.lang.StringBuffer";
        const std::string &own = object->type->name;
        return Joined({Hex(object->address), FlagOf(object),
                       own[0] == '['  ? ArgumentType(own)
                       : type.empty() ? Dotted(own)
                                      : type,
                       isText ? TextShown(object) : Invitation(object)});
    }
    const bool isNull = variable.seen == Seen::CONSTANT && variable.signature[0] == 'L';
    const std::string row =
        Joined({"^", "^", isArgument ? type : "^",
                variable.seen == Seen::NOTHING || isNull ? "^" : NumberText(variable, isArgument)});
    const bool twoSlots = variable.signature == "J" || variable.signature == "D";
    return twoSlots && !isArgument ? row + row : row;
}

std::string ListText(const std::string &title, const std::vector<ShownVariable> &variables, bool isArgument) {
    std::string text = title + RECORD;
    for (const ShownVariable &variable : variables)
        text += VariableRow(variable, isArgument);
    text.back() = SECTION;
    return variables.empty() ? "" : text;
}

std::string FrameLocals(const ShownFrame &frame) {
    if (frame.method->flags & METHOD_NATIVE && frame.compiled)
        return "No Locals available\x1f";
    const std::string holder = Dotted(frame.method->holder->name);
    std::string text = "Frame\x1e" + holder + "->" + frame.method->name + SECTION;
    text += frame.self
                ? "This Object\x1e" + Joined({Hex(frame.self->address), "0", Dotted(frame.self->type->name)})
                : "This Class\x1e" + Joined({Hex(frame.method->holder->klass), "1", holder});
    text.back() = SECTION;
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

} // namespace

TEST(DirectLocals, EqualWhatTheirFramesHold) {
    WithScene("readers", {}, [](Scene &scene) {
        for (const Runner *runner : scene.runners) {
            const auto places = PlacesOf(*runner);
            const std::vector<ShownFrame> frames = ShownFrames(*runner);
            ASSERT_EQ(places.size(), frames.size()) << runner->info->name;
            for (size_t i = 0; i < frames.size(); i++) {
                EXPECT_EQ(AskLocals(places[i]), FrameLocals(frames[i]))
                    << runner->info->name << " " << frames[i].method->name;
                for (size_t field : {places[i][0] == "1" ? 2 : 1, 4}) { // no such code, stack or method
                    std::vector<std::string> place = places[i];
                    place[field] = "12345";
                    EXPECT_NE(AskLocals(place).find("Frame\x1e"), 0u) << field;
                }
            }
        }
    });
}
