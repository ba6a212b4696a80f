// Objects and frames for those who read fields, elements, arguments and locals.
#include "stage.h"

#include <climits>

namespace simvm {

namespace {

// A class with fields of all kinds, a static in it and one above, and a field that hides another.
Object *NewAll(Object *any, Object *table) {
    for (const char *line :
         {"readers/Base *shared,I *label,Ljava/lang/String; id,J top,Ljava/lang/Object;",
          "readers/All < readers/Base *count,J *last,Lreaders/All; z,Z b,B c,C s,S i,I j,J f,F d,D "
          "text,Ljava/lang/String; buffer,Ljava/lang/StringBuffer; chars,[C ints,[I "
          "names,[Ljava/lang/String; "
          "grid,[[I any,Ljava/lang/Object; table,Ljava/util/Hashtable; nothing,Ljava/lang/Object; id,J",
          "readers/Plain", "readers/Unknown ? x,I"})
        DefineClass(line);
    Object *all =
        New("readers/All",
            {{"z", true},
             {"b", SCHAR_MIN},
             {"c", 0x20ac},
             {"s", SHRT_MIN},
             {"i", INT_MIN},
             {"j", LONG_MIN + 7},
             {"f", 2.5f},
             {"d", -1e-3},
             {"text", NewString("all")},
             {"buffer", NewBuffer("in a buffer")},
             {"chars", NewChars("letters")},
             {"ints", NewElements("[I", {1, -2, 3})},
             {"names", NewElements("[Ljava/lang/String;", {NewString("a"), nullptr, NewString("c")})},
             {"grid", NewElements("[[I", {NewElements("[I", {1}), NewArray("[I", 0)})},
             {"any", any},
             {"table", table},
             {"id", 77},
             {"top", any}});
    SetStatic(FindClass("readers/Base"), "shared", -3);
    SetStatic(FindClass("readers/Base"), "label", NewString("static text"));
    SetStatic(FindClass("readers/All"), "count", 1L << 40);
    SetStatic(FindClass("readers/All"), "last", all);
    return all;
}

void NameTexts(Scene *scene) {
    std::u16string odd = u"odd ";
    for (char16_t c : {0x80, 0xe9, 0xff, 0, 29, 30, 31, int('|')})
        odd.push_back(c);
    Object *negative = NewPartOf(u"negative", 0, 8), *far = NewPartOf(u"far", 0, 3);
    Set(negative, "count", -1);
    Set(far, "offset", 1 << 20);
    scene->named.insert({{"odd text", NewPartOf(odd, 0, int(odd.size()))},
                         {"part", NewPartOf(u"a part of it", 2, 4)},
                         {"long text", NewString(std::string(3000, 'x'))},
                         {"empty text", NewString("")},
                         {"negative count", negative},
                         {"far offset", far},
                         {"buffer", NewBuffer("buffered")}});
}

void NameArrays(Scene *scene) {
    for (char kind : std::string("ZBCSIFJD"))
        scene->named[std::string("[") + kind] = NewElements(std::string("[") + kind, {1, 0, 65});
    Object *text = NewString("in an array"), *row = NewElements("[J", {LONG_MAX, -1}),
           *plane = NewElements("[[J", {row, nullptr, row});
    scene->named["texts"] = NewElements("[Ljava/lang/String;", {text, nullptr, NewString("last")});
    scene->named["objects"] =
        NewElements("[Ljava/lang/Object;", {text, row, NewObject("readers/Plain"), nullptr});
    scene->named["plane"] = plane;
    scene->named["space"] = NewElements("[[[J", {plane});
    scene->named["many"] = NewElements("[I", std::vector<Value>(20000, 4));
    scene->named["none"] = NewArray("[Ljava/lang/Object;", 0);
}

void NameTables(Scene *scene) {
    auto three = [] {
        return std::vector<TableEntry>{{NewString("one"), NewString("1"), 2},
                                       {NewString("two"), NewString("2"), 2},
                                       {NewString("three"), NewString("3"), 2},
                                       {NewString("apart"), NewString("4"), 5}};
    };
    scene->named["hashtable"] = NewTable("java/util/Hashtable", 7, three());
    scene->named["properties"] = NewTable("java/util/Properties", 11, three());
    scene->named["hashmap"] = NewTable("java/util/HashMap", 8, three());
    scene->named["cyclic"] = NewTable("java/util/Hashtable", 7, three(), true);
    scene->named["empty table"] = NewTable("java/util/Hashtable", 3, {});
    scene->named["other keys"] = New("java/util/Hashtable", {});
    Object *entry = New("java/util/Hashtable$Entry", {{"key", NewObject("readers/Plain")}});
    Set(scene->named["other keys"], "table", NewElements("[Ljava/util/Hashtable$Entry;", {nullptr, entry}));
}

// One of each kind of argument, then locals; up to `slots` of them.
std::vector<Variable> Variables(Scene *scene, size_t count) {
    Object *all = scene->named["all"];
    std::vector<Variable> variables = {{"I", -5},
                                       {"Ljava/lang/String;", scene->named["part"]},
                                       {"J", 1L << 33},
                                       {"D", 0.5},
                                       {"[Ljava/lang/String;", scene->named["texts"]},
                                       {"Ljava/lang/StringBuffer;", scene->named["buffer"]},
                                       {"Z", true},
                                       {"F", 1.5f},
                                       {"[[J", scene->named["plane"]},
                                       {"Lreaders/All;", all},
                                       {"C", 'q'},
                                       {"Lreaders/All;", nullptr}};
    while (variables.size() < count)
        variables.push_back(variables.size() % 2 ? Variable{"Lreaders/All;", all}
                                                 : Variable{"I", int(variables.size())});
    return variables;
}
const char SIGNATURE[] = "(ILjava/lang/String;JD[Ljava/lang/String;Ljava/lang/StringBuffer;ZF[[J)V";

void AddInterpreted(Scene *scene) {
    Object *all = scene->named["all"];
    std::vector<Variable> few = Variables(scene, 12), many = Variables(scene, 50);
    Add(scene, "interpreted",
        {Run("readers/Thread"),
         {F::INTERPRETED, {In("readers/All", "plain", 31, all, {}, SIGNATURE, few)}},
         {F::INTERPRETED, {In("readers/Far", "withMany", 32, all, {}, SIGNATURE, many)}},
         {F::INTERPRETED, {In("readers/Statics", "ofClass", 33, nullptr, {}, SIGNATURE, few)}},
         // one entry for both: the second isn't in it
         {F::INTERPRETED, {In("readers/Twice", "first", 34, all, {}, "()V", few)}},
         {F::INTERPRETED, {In("readers/Twice", "second", 35, all, {}, "()V", few)}},
         {F::NATIVE,
          {Native("readers/Native", "call", all, "(ILjava/lang/String;J)V",
                  {few.begin(), few.begin() + 3})}}},
        Rest::SLEEP);
}

// Each fourth variable is kept in another way.
void AddCompiled(Scene *scene) {
    Object *all = scene->named["all"], *plain = scene->named["plain"];
    std::vector<Variable> stacked = Variables(scene, 12), mixed = Variables(scene, 24);
    for (size_t i = 0; i < mixed.size(); i++)
        mixed[i].kept = Kept(i % 4);
    Add(scene, "compiled",
        {Run("readers/Thread"),
         {F::COMPILED,
          {In("readers/All", "outer", 41, all, {plain}, SIGNATURE, stacked),
           In("readers/Plain", "inlined", 42, plain, {}, SIGNATURE, mixed),
           In("readers/Statics", "inner", 43, nullptr, {all}, SIGNATURE, stacked)}},
         {F::COMPILED, {Native("readers/Native", "wrapped", all, "(I)V", {{"I", 3}})}}},
        Rest::SLEEP);
}

// Methods whose lines end without a mark, or that have none, or whose file isn't known.
void AddLines(Scene *scene) {
    auto method = [](const char *holder, const char *name, std::vector<MethodLine> lines) {
        return DefineMethod(holder, name, "()V", std::move(lines), METHOD_STATIC, 40, LineEnd::UNMARKED);
    };
    Add(scene, "lines",
        {{F::INTERPRETED, {{method("readers/Lines", "unmarked", {{0, 7}, {5, 60000}, {20, 25}}), 20}}},
         {F::INTERPRETED, {{method("readers/Lines", "none", {}), 12}}},
         {F::INTERPRETED, {{method("readers/Lines", "early", {{0, 3}, {39, 90}}), 30}}},
         {F::INTERPRETED, {{method("readers/Unknown", "file", {{0, 40}, {8, 44}}), 8}}}},
        Rest::SLEEP);
}

} // namespace

void StageReaders(Scene *scene) {
    NameTables(scene);
    scene->named["all"] = NewAll(NewObject("readers/Plain"), scene->named["hashtable"]);
    scene->named["plain"] = NewObject("readers/Plain");
    scene->named["thread"] = vm.threadGroup;
    NameTexts(scene);
    NameArrays(scene);
    AddInterpreted(scene);
    AddCompiled(scene);
    AddLines(scene);
}

} // namespace simvm
