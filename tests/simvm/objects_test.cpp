// Objects of the simulated VM as the agent reads and shows them, compared with what they were made of.
#include "agent.h"
#include "objects.h"
#include "storm.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "sunprint/fields.h"
#include "sunprint/object_map.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <regex>
#include <set>

using namespace simvm;

namespace {

// On the main thread of the scene, with the agent started.
void WithAgent(int collector, const std::function<void(Scene &)> &body) {
    Options options;
    options.library = SIMVM_FOLDER "/server/libjvm.so";
    options.collector = Collector(collector);
    options.wide = collector == 1;
    Boot(options);
    Scene scene;
    StageScene("readers", &scene);
    Script main = MainScript();
    EmitScript(&main);
    RunHere("main", &main, [&] {
        ASSERT_EQ(StartAgent(), 0);
        body(scene);
        Ask("SHUTDOWN");
    });
    EndScene(&scene);
}

void Refresh() {
    QorForgetPages();
    QorNoteSpaces();
}

// What of a text is shown: the first 1,023 characters, as UTF-8, those below 32 as blanks. "" for a range
// that isn't in its array.
std::string TextShown(const Object *text) {
    std::string shown;
    const bool part = text->type->name == "java/lang/String";
    if (part && (Get(text, "count").number < 0 || Get(text, "offset").number > 4096))
        return "";
    for (char16_t c : CharsOf(text).substr(0, 1023))
        if (c < 0x80)
            shown += c < 32 ? ' ' : char(c);
        else
            (shown += char(0xc0 | c >> 6)) += char(0x80 | (c & 0x3f));
    return shown;
}

std::string Dotted(std::string name) {
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

std::string TypeText(const std::string &signature) {
    const std::map<char, std::string> WORDS = {{'I', "Integer"}, {'J', "Long"},  {'C', "Char"},
                                               {'Z', "Boolean"}, {'F', "Float"}, {'D', "Double"},
                                               {'B', "Byte"},    {'S', "Short"}};
    const size_t arrays = signature.find_first_not_of('[');
    const std::string element = signature.substr(arrays);
    std::string text =
        element[0] == 'L' ? Dotted(element.substr(1, element.size() - 2)) : WORDS.at(element[0]);
    for (size_t i = 1; i <= arrays; i++)
        text += " Array D-" + std::to_string(i);
    return text;
}

std::string NameText(const Object *object) {
    const std::string &name = object->type->name;
    return name[0] == '[' ? TypeText(name) : Dotted(name);
}

std::string Joined(std::vector<std::string> fields) {
    std::string row;
    for (size_t i = 0; i < fields.size(); i++)
        row += (i ? "\x1d" : "") + fields[i];
    return row + "\x1e";
}

std::string ValueText(char code, const Value &value) {
    char text[64];
    if (code == 'Z')
        return value.number ? "True" : "False";
    if (code == 'C' && value.number < 128 && isalnum(int(value.number)))
        return {char(value.number)};
    if (code != 'F' && code != 'D')
        return std::to_string(value.number);
    snprintf(text, sizeof text, "%f", value.real);
    return text;
}

std::string ReferenceRow(const Object *to, const std::string &type, const std::string &name) {
    const std::string &own = to->type->name;
    const bool array = own[0] == '[';
    char address[32];
    snprintf(address, sizeof address, "%lx", to->address);
    return Joined({address,
                   !array                         ? "0"
                   : own == "[Ljava/lang/String;" ? "-8"
                                                  : "-2",
                   type, name, array ? "View Array Contents" : "View Object"});
}

std::string FieldRow(const std::string &signature, const std::string &type, const std::string &name,
                     const Value &value) {
    const bool reference = signature[0] == 'L' || signature[0] == '[';
    std::string text = reference ? "Null Oop" : ValueText(signature[0], value);
    if (value.object &&
        (signature == "[C" || signature == "Ljava/lang/String;" || signature == "Ljava/lang/StringBuffer;"))
        text = TextShown(value.object);
    else if (value.object)
        return ReferenceRow(value.object, type, name);
    return Joined({"^", "^", type, name, text});
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
    return (rows.empty() ? "No Fields exist" : "Object Description\x1e" + rows) + "\x1f";
}

std::string ClassView(const Class *type, const Object *object) {
    std::string view = "Message\x1eObject Name : " + Dotted(type->name) + "\x1f" + FieldRows(type, object);
    for (const Class *above = type->super; above; above = above->super)
        view += "Parent of the Object above:\x1e" + Dotted(above->name) + "\x1f" + FieldRows(above, object);
    return view;
}

std::string ElementRows(const Object *array) {
    const std::string signature = array->type->name.substr(1);
    if (signature == "C")
        return Joined({"^", "^", TypeText("[C"), "^", TextShown(array)}) + "\x1f";
    std::string rows;
    for (size_t i = 0; i < array->values.size(); i++) {
        const Value &value = array->values[i];
        const std::string at = "[" + std::to_string(i) + "]";
        if (signature == "Ljava/lang/String;")
            rows +=
                !value.object ? "" : "String Array Element" + at + " : " + TextShown(value.object) + "\x1f";
        else if (signature[0] != 'L' && signature[0] != '[')
            rows += FieldRow(signature, TypeText(signature), "Array Element " + at, value);
        else if (value.object)
            rows += ReferenceRow(value.object, NameText(value.object), "Array Element " + at);
    }
    return signature == "Ljava/lang/String;" && !rows.empty() ? rows : rows + "\x1f";
}

std::string View(const Object *object) {
    if (object->type->name[0] != '[')
        return ClassView(object->type, object);
    return "Message\x1eObject Name : " + NameText(object) + "\x1fObject Description\x1e" +
           ElementRows(object);
}

std::string AskFor(const std::string &address, const std::string &flag) {
    const std::string reply = Ask("525|showstack|1024|ARG=x,0=" + address + ",1=" + flag);
    return reply.substr(0, reply.find("Time spent in JVM"));
}

std::string Hex(Word address) {
    char text[32];
    snprintf(text, sizeof text, "%lx", address);
    return text;
}

const Object *WhoIsAt(const std::string &address) {
    for (const Object &object : vm.objects)
        if (Hex(object.address) == address)
            return &object;
    return nullptr;
}

// Every row clicked leads to what it refers to. How many objects were seen.
size_t ExpectViews(const Object *start) {
    std::set<std::string> seen;
    std::vector<std::pair<std::string, std::string>> slots = {{Hex(start->address), "0"}};
    while (!slots.empty()) {
        const auto [address, flag] = slots.back();
        slots.pop_back();
        if (!seen.insert(address).second)
            continue;
        const Object *object = WhoIsAt(address);
        if (!object) {
            ADD_FAILURE() << "nothing is at " << address;
            continue;
        }
        const std::string view = AskFor(address, flag);
        EXPECT_EQ(view, View(object));
        for (const std::string &section : Split(view, 31))
            for (const std::string &row : Split(section, 30)) {
                const std::vector<std::string> field = Split(row, 29);
                if (field.size() == 5 && field[0] != "^")
                    slots.push_back({field[0], field[1]});
            }
    }
    return seen.size();
}

class DirectObjects : public testing::TestWithParam<int> {};

} // namespace

TEST_P(DirectObjects, AreShownAndClickedFieldByField) {
    WithAgent(GetParam(), [](Scene &scene) {
        for (int turn = 0; turn < 2; turn++, Collect())
            for (const auto &[name, object] : scene.named)
                EXPECT_GE(ExpectViews(object), 1u) << name;
        EXPECT_EQ(ExpectViews(scene.named["all"]), 21u);
        const Object *all = scene.named["all"];
        EXPECT_EQ(AskFor(Hex(all->klass), "1"), ClassView(all->type, nullptr));
        std::string midst;
        Collect([&] { midst = AskFor(Hex(all->address), "0"); });
        EXPECT_EQ(midst, "Unable to complete Request GC running\x1f");
    });
}

TEST_P(DirectObjects, MayHaveAnyAddress) {
    WithAgent(GetParam(), [](Scene &scene) {
        const Object *all = scene.named["all"];
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
        As<int32_t>(names->address + 16) = INT32_MAX;
        const std::string view = AskFor(Hex(names->address), "-8");
        As<int32_t>(names->address + 16) = static_cast<int32_t>(names->values.size());
        EXPECT_EQ(view.substr(0, View(names).size()), View(names));
    });
}

// What a reply shows whatever the addresses are.
std::string WithoutAddresses(const std::string &view) {
    return std::regex_replace(view, std::regex("([\x1e])[0-9a-f]+(\x1d-?[0-9])"), "$1*$2");
}

// What is shown is the object or one of the refusals, among objects that move and with any word overwritten.
TEST(MovingObjects, AreShownWholeOrNotAtAll) {
    WithAgent(0, [](Scene &scene) {
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
            EXPECT_TRUE(view.empty() || view.back() == 31) << view;
        }
        const Object *watched = scene.named["all"];
        const std::string wanted = WithoutAddresses(View(watched));
        EXPECT_EQ(WithoutAddresses(AskFor(Hex(watched->address), "0")), wanted);
        const std::string manyWanted = View(scene.named["many"]); // takes as long as collections are apart
        StartStorm({});
        for (int whole = 0; whole < 12;) {
            const std::string view = WithoutAddresses(AskFor(Hex(watched->address), "0"));
            whole += view == wanted;
            ASSERT_TRUE(view == wanted || view.find("Name : readers.All\x1f") == std::string::npos) << view;
            const std::string many = AskFor(Hex(scene.named["many"]->address), "0");
            ASSERT_TRUE(many == manyWanted || many.size() < manyWanted.size() / 2);
        }
        StopStorm();
    });
}

TEST(DirectPaths, LeadThroughFieldsArraysAndTables) {
    WithAgent(0, [](Scene &scene) {
        Object *all = scene.named["all"], *hashtable = scene.named["hashtable"];
        const std::string BUCKETS = "table,Ljava/util/Hashtable;|table,[Ljava/util/Hashtable$Entry;|",
                          VALUE = "value,Ljava/lang/Object;";
        // "one", "two" and "three" are one chain.
        Object *first = Get(hashtable, "table").object->values[2].object, *second = Get(first, "next").object;
        const auto hash = [](Object *entry) {
            return "," + std::to_string(Get(Get(entry, "key").object, "hash").number);
        };
        const auto value = [](Object *entry) { return Get(entry, "value").object->address; };
        const std::pair<std::string, Word> PATHS[] = {
            {"i,I", INT32_MIN},
            {"z,Z", 1},
            {"b,B", -128},
            {"s,S", INT16_MIN},
            {"c,C", 0x20ac},
            {"j,J", INT64_MIN + 7},
            {"shared,I", -3},
            {"count,J", Word(1) << 40},
            {"id,J", 77},
            {"text,Ljava/lang/String;|count,I", 3},
            {"last,Lreaders/All;|i,I", INT32_MIN},
            {"text,Ljava/lang/String;|missing,I", 0},
            {"nothing,Ljava/lang/Object;|x,I", 0},
            {"i,J", 0},
            {"i", 0},
            {"", 0},
            {"names,[Ljava/lang/String;|count,I", 1},
            {BUCKETS + VALUE + hash(first), value(first)},
            {BUCKETS + VALUE + hash(second), value(second)},
            {BUCKETS + VALUE + ",5|count,I", 0},
            {BUCKETS + VALUE + ",0|count,I", 1},
            {BUCKETS + VALUE + ",0|missing,I", 0},
            {BUCKETS + VALUE + ",java/lang/String|count,I", 1},
            {BUCKETS + VALUE + ",readers/Plain", 0},
        };
        Refresh();
        for (const auto &[path, found] : PATHS)
            EXPECT_EQ(ParseObjectMap(path.c_str(), all->address), found) << path;
        EXPECT_EQ(ParseObjectMap("id,J", reinterpret_cast<Word>(&all->address)), 77u); // a handle
        for (const char *name : {"hashtable", "properties"})
            EXPECT_EQ(QorFieldOf(search_hash_table(scene.named[name]->address, "two"), "count", "I"), 1u)
                << name;
        for (const char *name : {"hashtable", "cyclic", "empty table", "other keys", "hashmap", "all"})
            EXPECT_EQ(search_hash_table(scene.named[name]->address, "green"), 0u) << name;
        // Where the first of a chain has no value the second's counts.
        Set(first, "value", nullptr);
        Refresh();
        EXPECT_EQ(ParseObjectMap((BUCKETS + VALUE).c_str(), all->address), value(second));
        for (Word address : {Word(0), Word(2), all->address + 8, ~Word(7)})
            EXPECT_EQ(ParseObjectMap("i,I", address), 0u) << address;
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DirectObjects, testing::Range(0, 3));
