// Objects and frames for those who read fields, elements, arguments and locals.
#include "stage.h"

namespace simvm {

namespace {

// Tables with a chain of three, a cyclic one and one whose keys are no texts; a class with fields of all
// kinds, a static in it and one above, and a field that hides another; texts and arrays.
const char OBJECTS[] = R"(
let CHAIN "one"@2 "1" "two"@2 "2" "three"@2 "3" "apart"@5 "4"
hashtable := java/util/Hashtable#7($CHAIN)
properties := java/util/Properties#11($CHAIN)
hashmap := java/util/HashMap#8($CHAIN)
cyclic := java/util/Hashtable#7!($CHAIN)
empty-table := java/util/Hashtable#3()
other-keys := java/util/Hashtable{table=[Ljava/util/Hashtable$Entry;(null java/util/Hashtable$Entry{key=readers/Plain})}

class readers/Base *shared,I *label,Ljava/lang/String; id,J top,Ljava/lang/Object;
class readers/All < readers/Base *count,J *last,Lreaders/All; z,Z b,B c,C s,S i,I j,J f,F d,D text,Ljava/lang/String;
  buffer,Ljava/lang/StringBuffer; chars,[C ints,[I names,[Ljava/lang/String; grid,[[I any,Ljava/lang/Object;
  table,Ljava/util/Hashtable; nothing,Ljava/lang/Object; id,J
class readers/Unknown ? x,I
any = readers/Plain
all := readers/All{z=true b=-128 c=0x20ac s=-32768 i=-2147483648 j=-9223372036854775801 f=2.5 d=-0.001 text="all"
  buffer=inside chars=letters ints=[I(1 -2 3) names=[Ljava/lang/String;("a" null "c") grid=[[I([I(1) [I()) any=any
  table=hashtable id=77 top=any}
static readers/Base.shared = -3
static readers/Base.label = "static text"
static readers/All.count = 0x10000000000
static readers/All.last = all
plain := readers/Plain

far-offset := far
set far.offset = 0x100000
negative-count := negative
set negative.count = -1
odd-text := odd
part := part
wide-text := wide
long-text := long
empty-text := ""
buffer := buffered

Z := [Z(1 0 65)
B := [B(1 0 65)
C := [C(1 0 65)
S := [S(1 0 65)
I := [I(1 0 65)
F := [F(1 0 65)
J := [J(1 0 65)
D := [D(1 0 65)
text = "in an array"
row = [J(0x7fffffffffffffff -1)
plane := [[J(row null row)
texts := [Ljava/lang/String;(text null "last")
objects := [Ljava/lang/Object;(text row readers/Plain null)
space := [[[J(plane)
none := [Ljava/lang/Object;()
)";

// One of each kind of argument, then locals. Two methods share one entry of the cache: the second isn't in
// it.
const char FRAMES[] = R"(
let SIG (ILjava/lang/String;JD[Ljava/lang/String;Ljava/lang/StringBuffer;ZF[[J)V
let ARGS %-5 %part %0x200000000 %0.5 %texts %buffer %true %1.5 %plane
let FEW $ARGS %all %C=113 %Lreaders/All;=null
let UNTYPED %I=-5 %part %J=0x200000000 %D=0.5 %texts %buffer %Z=true %F=1.5 %plane %all %C=113 %Lreaders/All;=null
let SIX %20 %all %21 %all %22 %all
let MORE $SIX $SIX
thread interpreted: SLEEP run readers/Thread ; i readers/All.plain$SIG:31 @all $FEW ;
  i readers/Far.withMany$SIG:32 @all $FEW $MORE $MORE $MORE ; i readers/Statics.ofClass$SIG:33 $FEW ;
  i readers/Twice.first:34 @all $UNTYPED ; i readers/Twice.second:35 @all $UNTYPED ;
  n readers/Native.call(ILjava/lang/String;J)V @all %-5 %part %0x200000000
)";

// Each fourth variable of the inlined method is kept in another way.
void AddCompiled(Scene *scene, SceneText *text) {
    Script script = {
        text->Frames("run readers/Thread ; c readers/All.outer$SIG:41 @all ^plain $FEW > "
                     "readers/Plain.inlined$SIG:42 @plain $FEW $MORE > readers/Statics.inner$SIG:43 "
                     "^all $FEW ; c readers/Native.wrapped(I)V @all %3"),
        Rest::SLEEP};
    std::vector<Variable> &mixed = script.frames[1].scopes[1].variables;
    for (size_t i = 0; i < mixed.size(); i++)
        mixed[i].kept = Kept(i % 4);
    Add(scene, "compiled", std::move(script));
}

// Methods whose lines end without a mark, or that have none, or whose file isn't known.
void AddLines(Scene *scene) {
    auto frame = [](const char *holder, const char *name, std::vector<MethodLine> lines, int32_t bci) {
        MethodInfo *method =
            DefineMethod(holder, name, "()V", std::move(lines), METHOD_STATIC, 40, LineEnd::UNMARKED);
        return Frame{F::INTERPRETED, {{method, bci}}};
    };
    Add(scene, "lines",
        {{frame("readers/Lines", "unmarked", {{0, 7}, {5, 60000}, {20, 25}}, 20),
          frame("readers/Lines", "none", {}, 12), frame("readers/Lines", "early", {{0, 3}, {39, 90}}, 30),
          frame("readers/Unknown", "file", {{0, 40}, {8, 44}}, 8)},
         Rest::SLEEP});
}

} // namespace

void StageReaders(Scene *scene) {
    SceneText text(scene);
    std::u16string odd = u"odd ";
    for (char16_t c : {0x80, 0xe9, 0xff, 0, 29, 30, 31, int('|')})
        odd.push_back(c);
    const std::u16string wide = {'a', 0xd83d, 0xde00, 0xd83d, 'b', 0xde00, 0x20ac};
    for (auto &[name, value] : {std::pair<const char *, Object *>{"odd", NewPartOf(odd, 0, int(odd.size()))},
                                {"wide", NewPartOf(wide, 0, int(wide.size()))},
                                {"part", NewPartOf(u"a part of it", 2, 4)},
                                {"far", NewPartOf(u"far", 0, 3)},
                                {"negative", NewPartOf(u"negative", 0, 8)},
                                {"long", NewString(std::string(3000, 'x'))},
                                {"inside", NewBuffer("in a buffer")},
                                {"buffered", NewBuffer("buffered")},
                                {"letters", NewChars("letters")}})
        text.Name(name, value);
    scene->named["many"] = NewElements("[I", std::vector<Value>(20000, 4));
    scene->named["thread"] = vm.threadGroup;
    text.Read(OBJECTS);
    text.Read(FRAMES);
    AddCompiled(scene, &text);
    AddLines(scene);
}

} // namespace simvm
