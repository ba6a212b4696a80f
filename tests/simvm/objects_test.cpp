// Objects of the simulated VM as the agent reads and shows them, compared with what they were made of.
#include "agent.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "sunprint/object_map.h"

#include <gtest/gtest.h>
#include <map>
#include <set>

using namespace simvm;

namespace {

// On the main thread, with the agent started.
void WithAgent(Collector collector, const std::function<void()> &body) {
    Options options;
    options.library = SIMVM_FOLDER "/server/libjvm.so";
    options.collector = collector;
    Boot(options);
    Script main = MainScript();
    EmitScript(&main);
    RunHere("main", &main, [&] {
        ASSERT_EQ(StartAgent(), 0);
        body();
        Ask("SHUTDOWN");
    });
}

void Refresh() {
    QorForgetPages();
    QorNoteSpaces();
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

std::string TextOfChars(const Object *chars) {
    std::string text;
    for (const Value &value : chars->values)
        text += char(value.number);
    return text;
}

// Whole numbers are all that the tests' reals are.
std::string ValueText(char code, const Value &value) {
    if (code == 'Z')
        return value.number ? "True" : "False";
    if (code == 'C')
        return {char(value.number)};
    return std::to_string(value.number) + (code == 'F' || code == 'D' ? ".000000" : "");
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
    if (value.object && signature == "[C")
        text = TextOfChars(value.object);
    else if (value.object && (signature == "Ljava/lang/String;" || signature == "Ljava/lang/StringBuffer;"))
        text = TextOfChars(Get(value.object, "value").object).substr(0, Get(value.object, "count").number);
    else if (value.object)
        return ReferenceRow(value.object, type, name);
    return Joined({"^", "^", type, name, text});
}

std::string FieldRows(const Class *type, const Object *object) {
    std::string rows;
    for (const Field &field : type->fields)
        if (field.isStatic || object)
            rows += FieldRow(field.signature, (field.isStatic ? "static " : "") + TypeText(field.signature),
                             field.name, field.isStatic ? field.value : Get(object, field.name));
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
        return Joined({"^", "^", TypeText("[C"), "^", TextOfChars(array)}) + "\x1f";
    std::string rows;
    for (size_t i = 0; i < array->values.size(); i++) {
        const Value &value = array->values[i];
        const std::string at = "[" + std::to_string(i) + "]";
        if (signature == "Ljava/lang/String;")
            rows += !value.object ? ""
                                  : "String Array Element" + at + " : " +
                                        TextOfChars(Get(value.object, "value").object) + "\x1f";
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

Object *NewEntry(Object *key, Object *value, Object *next) {
    Object *entry = NewObject("java/util/Hashtable$Entry");
    Set(entry, "key", key);
    Set(entry, "value", value);
    Set(entry, "next", next);
    return entry;
}

Object *NewShelf(int64_t count) {
    Object *shelf = NewObject("shop/Shelf");
    Set(shelf, "count", count);
    return shelf;
}

struct Shop {
    Object *shop, *shelf[2], *first, *last; // entries "red" and "blue" of one chain
};

Shop NewShop() {
    DefineClass("java/util/Hashtable$Entry hash,I key,Ljava/lang/Object; value,Ljava/lang/Object; "
                "next,Ljava/util/Hashtable$Entry;");
    DefineClass("java/util/Hashtable table,[Ljava/util/Hashtable$Entry; count,I");
    DefineClass("java/lang/AbstractStringBuilder value,[C count,I");
    DefineClass("java/lang/StringBuffer < java/lang/AbstractStringBuilder");
    DefineClass("shop/Shelf count,I");
    DefineClass("shop/Building *total,I floors,B *owner,Ljava/lang/Object; gap,J");
    DefineClass("shop/Shop < shop/Building z,Z b,B c,C s,S i,I after,I j,J f,F d,D name,Ljava/lang/String; "
                "sign,Ljava/lang/StringBuffer; chars,[C none,Ljava/lang/Object; any,Ljava/lang/Object; "
                "*rate,D *names,[Ljava/lang/String; numbers,[I shelves,[Ljava/lang/Object; "
                "grid,[[Ljava/lang/String; table,Ljava/util/Hashtable;");
    Object *shop = NewObject("shop/Shop");
    const std::pair<const char *, Value> NUMBERS[] = {{"z", true},
                                                      {"b", -3},
                                                      {"c", 'x'},
                                                      {"s", -300},
                                                      {"i", -70000},
                                                      {"after", -1},
                                                      {"j", int64_t(1) << 40},
                                                      {"f", 5.0},
                                                      {"d", -6.0},
                                                      {"floors", 3},
                                                      {"gap", -1}};
    for (const auto &[name, value] : NUMBERS)
        Set(shop, name, value);
    Set(shop, "name", NewString("Corner"));
    Object *sign = NewObject("java/lang/StringBuffer");
    Set(sign, "value", NewChars("open or shut"));
    Set(sign, "count", 4);
    Set(shop, "sign", sign);
    Set(shop, "chars", NewChars("letters"));
    Object *numbers = NewArray("[I", 3), *names = NewArray("[Ljava/lang/String;", 3),
           *grid = NewArray("[[Ljava/lang/String;", 2);
    for (int i = 0; i < 3; i++)
        SetElement(numbers, i, i - 1);
    SetElement(names, 1, NewString("Ann"));
    SetElement(grid, 0, names);
    SetElement(grid, 1, NewArray("[Ljava/lang/String;", 0));
    Shop made = {shop, {NewShelf(7), NewShelf(-8)}, nullptr, nullptr};
    Object *shelves = NewArray("[Ljava/lang/Object;", 4);
    SetElement(shelves, 1, made.shelf[0]);
    SetElement(shelves, 2, numbers);
    SetElement(shelves, 3, NewChars("c"));
    Object *table = NewObject("java/util/Hashtable"), *entries = NewArray("[Ljava/util/Hashtable$Entry;", 3);
    made.last = NewEntry(NewString("blue"), made.shelf[1], nullptr);
    made.first = NewEntry(NewString("red"), made.shelf[0], made.last);
    SetElement(entries, 1, made.first);
    Set(table, "table", entries);
    const std::pair<const char *, Object *> OBJECTS[] = {
        {"numbers", numbers}, {"grid", grid}, {"any", made.shelf[1]}, {"shelves", shelves}, {"table", table}};
    for (const auto &[name, object] : OBJECTS)
        Set(shop, name, object);
    SetStatic(FindClass("shop/Shop"), "rate", 2.0);
    SetStatic(FindClass("shop/Shop"), "names", names);
    SetStatic(FindClass("shop/Building"), "total", 11);
    SetStatic(FindClass("shop/Building"), "owner", made.shelf[0]);
    return made;
}

class DirectObjects : public testing::TestWithParam<int> {};

} // namespace

TEST_P(DirectObjects, AreShownAndClickedFieldByField) {
    WithAgent(Collector(GetParam()), [] {
        const Shop made = NewShop();
        EXPECT_EQ(ExpectViews(made.shop), 15u);
        Collect();
        EXPECT_EQ(ExpectViews(made.shop), 15u);
        const Class *type = FindClass("shop/Shop");
        EXPECT_EQ(AskFor(Hex(type->klass), "1"), ClassView(type, nullptr));
        std::string midst;
        Collect([&] { midst = AskFor(Hex(made.shop->address), "0"); });
        EXPECT_EQ(midst, "Unable to complete Request GC running\x1f");
    });
}

TEST_P(DirectObjects, MayHaveAnyAddress) {
    WithAgent(Collector(GetParam()), [] {
        const Shop made = NewShop();
        EXPECT_EQ(AskFor("0", "0"), "Null Oop\x1f");
        EXPECT_EQ(AskFor("0", "-2"), "This Array Object is NULL\x1f");
        for (Word address :
             {Word(1), made.shop->address + 8, made.shop->address + 4, ~Word(7), Word(7) << 60, vm.heap})
            for (const char *flag : {"0", "1", "-2"})
                EXPECT_EQ(AskFor(Hex(address), flag), "Invalid Object\x1f") << address;
        EXPECT_EQ(AskFor(Hex(made.shop->address), "1"), "Invalid Object\x1f"); // no class
        EXPECT_NE(AskFor(Hex(Intern("shop/Shop")), "0").find("No Information available for this Object\x1f"),
                  std::string::npos);
    });
}

TEST(DirectPaths, LeadThroughFieldsArraysAndTables) {
    WithAgent(Collector::SERIAL, [] {
        const Shop made = NewShop();
        for (Object *entry : {made.first, made.last})
            Set(Get(entry, "key").object, "hash", entry == made.first ? 112785 : -5);
        const std::string BUCKETS = "table,Ljava/util/Hashtable;|table,[Ljava/util/Hashtable$Entry;|";
        const std::pair<std::string, Word> PATHS[] = {
            {"i,I", Word(-70000)},
            {"z,Z", 1},
            {"b,B", Word(-3)},
            {"s,S", Word(-300)},
            {"c,C", 'x'},
            {"j,J", Word(1) << 40},
            {"floors,B", 3},
            {"rate,D", 0x4000000000000000},
            {"total,I", 11},
            {"any,Ljava/lang/Object;|count,I", Word(-8)},
            {"any,Ljava/lang/Object;|missing,I", 0},
            {"none,Ljava/lang/Object;|count,I", 0},
            {"i,J", 0},
            {"i", 0},
            {"", 0},
            {"shelves,[Ljava/lang/Object;|count,I", 7},
            {BUCKETS + "value,Ljava/lang/Object;,112785", made.shelf[0]->address},
            {BUCKETS + "value,Ljava/lang/Object;,5|count,I", 0},
            {BUCKETS + "value,Ljava/lang/Object;,0|count,I", 7},
            {BUCKETS + "key,Ljava/lang/Object;", Get(made.first, "key").object->address},
            {BUCKETS + "value,Ljava/lang/Object;,shop/Shelf|count,I", 7},
            {BUCKETS + "value,Ljava/lang/Object;,shop/Till", 0},
        };
        Refresh();
        for (const auto &[path, found] : PATHS)
            EXPECT_EQ(ParseObjectMap(path.c_str(), made.shop->address), found) << path;
        EXPECT_EQ(ParseObjectMap("i,I", reinterpret_cast<Word>(&made.shop->address)),
                  Word(-70000)); // a handle
        const Word table = Get(made.shop, "table").object->address;
        EXPECT_EQ(search_hash_table(table, "blue"), made.shelf[1]->address);
        EXPECT_EQ(search_hash_table(table, "green"), 0u);
        // The second of a chain, and a chain that is a ring.
        Set(made.first, "value", nullptr);
        Set(made.last, "next", made.first);
        Refresh();
        EXPECT_EQ(
            ParseObjectMap((BUCKETS + "value,Ljava/lang/Object;,0|count,I").c_str(), made.shop->address),
            Word(-8));
        EXPECT_EQ(search_hash_table(table, "green"), 0u);
        Set(Get(made.shop, "table").object, "table", nullptr);
        Refresh();
        EXPECT_EQ(search_hash_table(table, "blue"), 0u);
        for (Word address : {Word(0), Word(2), made.shop->address + 8, ~Word(7)})
            EXPECT_EQ(ParseObjectMap("i,I", address), 0u) << address;
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DirectObjects, testing::Range(0, 3));
