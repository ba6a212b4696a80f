// Objects and the locals of frames as the agent reads and shows them.
#include "with_scene.h"

#include "qorutil/vm_klass.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"

#include <regex>

using namespace simvm;

namespace {

// The views of the scene's objects and the locals of its frames: "|", ";" and "/" between fields, rows and
// sections. An address is shown as what the VM has there.
const char SHOWN[] = R"(
ALL = <readers/All>|0|readers.All
THIS = This Object; $ALL
PART = <java/lang/String>|0|java.lang.String
NAMES = <[Ljava/lang/String;>|-8|Array java.lang.String|[]
ARGS = Method Arguments; Integer|-5; $PART|part; Long|8589934592; Double|0.500000; $NAMES
LOCALS = Method Locals; $ALL|->; ^|113; ^|0
TOP = < java.lang.Object/No Fields exist/
STATICS = static Long|count|1099511627776; <readers/All>|0|static readers.All|last|->
SHARED = static Integer|shared|-3; static java.lang.String|label|static text
all = readers.All/: $STATICS; Boolean|z|True; Byte|b|-128; Char|c|8364; Short|s|-32768; Integer|i|-2147483648;
 Long|j|-9223372036854775801; Float|f|2.500000; Double|d|-0.001000; java.lang.String|text|all;
 java.lang.StringBuffer|buffer|in a buffer; Char Array D-1|chars|letters; <[I>|-2|Integer Array D-1|ints|[];
 <[Ljava/lang/String;>|-8|java.lang.String Array D-1|names|[]; <[[I>|-2|Integer Array D-1 Array D-2|grid|[];
 <readers/Plain>|0|java.lang.Object|any|->; java.lang.Object|nothing|Null Oop; Long|id|77; / < readers.Base/: $SHARED;
 Long|id|0; <readers/Plain>|0|java.lang.Object|top|->; / $TOP
class of all = readers.All/: $STATICS; / < readers.Base/: $SHARED; / $TOP
C = Char Array D-1/: Char Array D-1|^|  A; /
objects = java.lang.Object Array D-1/: $PART|at [0]|->; <[J>|-2|Long Array D-1|at [1]|[];
 <readers/Plain>|0|readers.Plain|at [2]|->; /
texts = java.lang.String Array D-1/: String at[0] : in an array/String at[2] : last/
FRAME = Frame; readers
interpreted 0 = $FRAME.Native->call/$THIS/Method Arguments; Integer|-5; $PART|part; Long|8589934592/
interpreted 1 = $FRAME.Twice->second/$THIS/Method Locals; ^|-5; ^|<half of java/lang/String>/
SIX = ^|20; $ALL|->; ^|21; $ALL|->; ^|22; $ALL|->
HALF = <half of readers/All>
interpreted 3 = $FRAME.Far->withMany/$THIS/$ARGS/$LOCALS; $SIX; $SIX; $SIX; ^|20; $ALL|->; ^|21; ^|$HALF; ^|22;
 ^|$HALF/
interpreted 4 = $FRAME.All->plain/$THIS/$ARGS/$LOCALS/
compiled 0 = No Locals available/
compiled 1 = $FRAME.Statics->inner/This Class; <class readers/Statics>|1|readers.Statics/$ARGS/$LOCALS/
KEPT = ^|^; ^|^; $ALL|->
compiled 2 = $FRAME.Plain->inlined/This Object; <readers/Plain>|0|readers.Plain/Method Arguments; Integer|-5;
 java.lang.String|^; Long|^; Double|0.500000; $NAMES/Method Locals; ^|^; ^|^; ^|0; ^|20; $KEPT; ^|22; $KEPT; ^|21; $KEPT/
)";

// By name, or by thread and place in its stack.
Texts AllShown() {
    Texts shown;
    for (const std::string &line : WholeLines(SHOWN)) {
        const size_t at = line.find(" = ");
        shown[line.substr(0, at)] = Expanded(line.substr(at + 3), shown);
    }
    return shown;
}

// Names of what an address, or the lower half of one, may lead to.
std::map<std::string, std::string> AllNames() {
    std::map<std::string, std::string> names;
    for (const Object &object : vm.objects)
        names[Hex(object.address)] = "<" + object.type->name + ">",
        names[std::to_string(int32_t(object.address))] = "<half of " + object.type->name + ">";
    for (const auto &[name, type] : vm.classes)
        names[Hex(type.klass)] = "<class " + name + ">";
    return names;
}

std::string Legible(std::string view) {
    static const std::regex number("[0-9a-f]{8,}|-?[0-9]{8,}");
    static const std::pair<const char *, const char *> SHORTER[] = {
        {"\x1d", "|"},
        {"\x1e", "; "},
        {"\x1f", "/"},
        {"; /", "; / "},
        {"Message; Object Name : ", ""},
        {"Parent of the Object above:; ", "< "},
        {"\\^\\|\\^\\|", ""},
        {"View Array Contents", "[]"},
        {"View Object", "->"},
        {"Array Element", "at"},
        {"Object Description; ", ": "},
        {" +$", ""},
    };
    for (auto &[from, to] : SHORTER)
        view = std::regex_replace(view, std::regex(from), to);
    const std::map<std::string, std::string> names = AllNames();
    std::string out, rest = view;
    for (std::sregex_iterator at(view.begin(), view.end(), number), none; at != none; ++at) {
        const auto known = names.find(at->str());
        out += at->prefix().str() + (known == names.end() ? at->str() : known->second);
        rest = at->suffix();
    }
    return out + rest;
}

std::string AskFor(const std::string &address, const std::string &flag) {
    return Untimed(Ask("525|showstack|1024|ARG=x,0=" + address + ",1=" + flag));
}
class DirectObjects : public testing::TestWithParam<const char *> {};

} // namespace

TEST_P(DirectObjects, AreShownFieldByField) {
    WithScene("readers", On(GetParam()), [](Scene &scene) {
        const auto shown = AllShown();
        for (int turn = 0; turn < 2; turn++, Collect())
            for (const auto &[name, flag] :
                 Texts{{"all", "0"}, {"C", "-2"}, {"objects", "-2"}, {"texts", "-8"}})
                EXPECT_EQ(Legible(AskFor(Hex(scene.named[name]->address), flag)), shown.at(name)) << name;
        const Object *all = scene.named["all"];
        EXPECT_EQ(Legible(AskFor(Hex(all->type->klass), "1")), shown.at("class of all"));
        std::string midst;
        Collect([&] { midst = AskFor(Hex(all->address), "0"); });
        EXPECT_EQ(midst, "Unable to complete Request GC running\x1f");

        EXPECT_EQ(AskFor("0", "0"), "Null Oop\x1f");
        EXPECT_EQ(AskFor("0", "-2"), "This Array Object is NULL\x1f");
        for (Word address :
             {Word(1), all->address + 8, all->address + 4, ~Word(7), Word(7) << 60, Word(vm.heap)})
            for (const char *flag : {"0", "1", "-2"})
                EXPECT_EQ(AskFor(Hex(address), flag), "Invalid Object\x1f") << address;
        EXPECT_EQ(AskFor(Hex(all->address), "1"), "Invalid Object\x1f"); // no class
        EXPECT_NE(
            AskFor(Hex(Intern("readers/All")), "0").find("No Information available for this Object\x1f"),
            std::string::npos);
        // An array whose length is torn ends with the heap, not after two billion failed reads.
        const Object *names = Get(all, "names").object;
        const std::string whole = AskFor(Hex(names->address), "-8");
        As<JavaArray>(names->address).length = INT32_MAX;
        EXPECT_EQ(AskFor(Hex(names->address), "-8").find(whole), 0u);
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DirectObjects, testing::ValuesIn(BUILDS));

// As names and SQL are shown: with pairs in four bytes, cut before a character that doesn't fit.
TEST(DirectTexts, AreCutBetweenCharacters) {
    WithScene("readers", {}, [](Scene &scene) {
        const struct {
            const char *name, *text, *inThreeBytes;
        } CASES[] = {{"wide-text", "a\xf0\x9f\x98\x80?b?\xe2\x82\xac", "a"},
                     {"odd-text", "odd \xc2\x80\xc3\xa9\xc3\xbf    |", "od"}};
        char text[VM_TEXT_SIZE];
        for (const auto &c : CASES) {
            EXPECT_STREQ(QorStringText(text, sizeof text, scene.named[c.name]->address), c.text);
            EXPECT_STREQ(QorStringText(text, 3, scene.named[c.name]->address), c.inThreeBytes);
        }
        const Word longText = scene.named["long-text"]->address;
        EXPECT_EQ(strlen(QorStringText(text, sizeof text, longText)), size_t{VM_TEXT_CHARS});
        EXPECT_EQ(sym2str(text, sizeof text, longText), nullptr);
    });
}

TEST(DirectLocals, EqualWhatTheirFramesHold) {
    WithScene("readers", {}, [](Scene &scene) {
        auto shown = AllShown();
        for (const Runner *runner : scene.runners) {
            const std::string stack = Ask("521|showstack|512|ARG=x,1=" + Key(*runner->info));
            size_t frames = 0;
            for (const std::vector<std::string> &fields : Records(stack.substr(stack.find("Call Stack")))) {
                if (fields.size() != 9)
                    continue;
                const std::string name = runner->info->name + " " + std::to_string(frames++);
                if (shown.count(name)) {
                    EXPECT_EQ(Legible(Untimed(AskLocals(fields, 1))), shown.at(name)) << name;
                }
            }
            EXPECT_EQ(frames, ShadowStack(*runner->script).size());
        }
    });
}
