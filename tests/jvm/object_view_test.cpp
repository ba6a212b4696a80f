// The views of a frame's locals and of one object.
#include "LogCapture.h"
#include "Replies.h"
#include "RequestHandler/RequestHandler.h"
#include "RequestHandler/local_objects.h"
#include "RequestHandler/object_fields.h"
#include "qorStrUtils.h"

#include <regex>
#include <sys/resource.h>

namespace {

constexpr jlong SOME_TAG = 7777;

std::vector<char> page(PAGEBUF_SIZE);

// The view in the page, without the two fields of rows that lead to no object, and blank for an empty value.
std::string View() {
    return std::regex_replace(Legible(page.data()), std::regex("\\^\\|\\^\\|| (?=\n)"), "");
}

std::string ObjectView(int32_t tag) {
    page[0] = 0;
    QorShowObjectRequest(tag, 0, QORREQ_SHOW_OBJECT, page.data(), PAGEBUF_SIZE);
    return View();
}

std::string LocalsView(int64_t tid, int64_t method) {
    page[0] = 0;
    QorHandlePrintLocalRequest(static_cast<int32_t>(tid), method, 0, 0, 0, page.data(), PAGEBUF_SIZE);
    return View();
}

struct ObjectViews : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        gbiQorLocalVariableCounter = FIRST_OBJECT_TAG;
    }

    jobject make(const char *kind) { return Java<jobject>("Specimens", "make", kind); }
    std::string viewOf(jobject object) {
        EXPECT_EQ(jvmti->SetTag(object, SOME_TAG), JVMTI_ERROR_NONE);
        const std::string view = ObjectView(SOME_TAG);
        jvmti->SetTag(object, 0);
        return view;
    }
    std::string viewOf(const char *kind) { return viewOf(make(kind)); }
};

// What a frame's row gives the console to ask for its locals.
int64_t MethodOf(const std::string &kind, const char *method) {
    for (const qorctl::Frame &frame : Find(AllThreads(true), "zoo-" + kind)->stack)
        if (frame.method == method)
            return frame.method_id;
    ADD_FAILURE() << "no " << method << " on the stack";
    return 0;
}

// Both frames of hold(), the inner one first.
constexpr char HELD[] = R"(Method Locals
String|a text1
Int Array| 1 2 3
String|a text
Int Array| 1 2 3
5004|0|[Ljava/lang/Object;|
5005|0|Lqoragent/testing/Specimens$Values;|
5006|0|Ljava/lang/Class;|
Active$
)";

constexpr char VALUES[] = R"(Message
Object Name :Lqoragent/testing/Specimens$Values;$
Object Description
5000|1|Static: Ljava/lang/Object;|shared|view object
Static: Boolean|flag|True
Static: [Ljava/lang/String;|none|
Static: Double|quarter|-0.250000
Static: String|word|static
Static: Int Array|list| 4 5
Public: Boolean|yes|True
Private: Boolean|no|False
Protected: Byte|upper|A
Char|wide|
Short|aShort|-1500
Int|anInt|-310000
Long|aLong|-63000000000
Float|aFloat|0.750000
String|text|a b  é
String|empty|
String|missing|
Boolean Array|booleans| True False
Byte Array|bytes| A   9
Char Array|chars| a   Z
Short Array|shorts| 3 -4
Int Array|ints| 5 -6
Long Array|longs| 7 5
Float Array|floats| 1 0 0
Double Array|doubles| -9 0
Int Array|emptyInts|
Int Array|noInts|
5001|1|[[I|grid|view object
5002|1|Ljava/lang/Object;|any|view object
Ljava/lang/Object;|nothing|
Lqoragent/testing/Specimens$Values;|own|
Active$
Parent of the Object above:
Lqoragent/testing/Specimens$Values;$
)";

} // namespace

TEST_F(ObjectViews, ShowAFieldOfEveryKind) {
    jobject object = make("Values");
    EXPECT_EQ(viewOf(object), VALUES);
    EXPECT_EQ(ObjectView(5002).find("Message\nObject Name :Lqoragent/testing/Fields;$"), 0u)
        << "a link leads to its object";
    KeepsNothing(100, [&] { viewOf(object); }); // fewer than there are numbers up to the tag

    object = make("Big");
    rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    EXPECT_NE(viewOf(object), "");
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 8 << 10) << "no big value is copied";
}

TEST_F(ObjectViews, GoUpTheChainWithoutItsTop) {
    const std::string view = viewOf("Leaf");
    for (const char *part :
         {"Private: Int|inLeaf|1\n", "No Information Available", "Protected: Int|inBase|2\n"})
        EXPECT_EQ(CountOf(view, part), 1) << part;
    EXPECT_EQ(CountOf(view, "Object Name :"), 3);
    EXPECT_EQ(CountOf(viewOf("forty"), "Object Name :"), 49) << "no more are shown";
}

TEST_F(ObjectViews, OfWhatIsNotThereAreEmpty) {
    LogCapture log(1); // what is null, empty or gone isn't an error
    for (const char *kind : {"hole", "empty", "ints", "plain"})
        EXPECT_EQ(viewOf(kind), "") << kind;
    EXPECT_EQ(ObjectView(SOME_TAG) + ObjectView(0) + ObjectView(-5) + log.text(), "");
}

TEST_F(ObjectViews, CutLongValuesAtACharacter) {
    bufferOverflowCount = 0;
    const std::string view = viewOf("Long");
    EXPECT_EQ(bufferOverflowCount, 0) << "no value may pass for a reply that is full";
    for (const std::string &shown : {"ascii|" + std::string(1023, 'x'), "accents|" + std::string(1022, 'x')})
        EXPECT_NE(view.find(shown + "\n"), view.npos);
    EXPECT_EQ(CountOf(view, " -100000000"), 93);
}

TEST_F(ObjectViews, ShowObjectsOfAClassInItsInitialiser) {
    const std::string view = viewOf(Java<jobject>("Obstacles", "inInitializer"));
    EXPECT_NE(view.find("String|servletPath|/born\n"), std::string::npos) << view;
    Java("Obstacles", "release");
}

struct Locals : ObjectViews {};

TEST_F(Locals, AreThoseOfTheFrame) {
    Java("Specimens", "startHolder");
    const int64_t tid = ZooId("specimen"), method = MethodOf("specimen", "hold");
    EXPECT_EQ(LocalsView(tid, method), HELD);
    EXPECT_EQ(ObjectView(5005).find("Message\nObject Name :Lqoragent/testing/Specimens$Values;$"), 0u);
    gbiQorLocalVariableCounter = FIRST_OBJECT_TAG;
    EXPECT_EQ(LocalsView(tid, static_cast<int32_t>(method)), HELD) << "as the stack view shows it";
    const int64_t wrong = method ^ (int64_t{1} << 40);
    EXPECT_EQ(LocalsView(tid + 100000, method), "$\n");
    EXPECT_EQ(LocalsView(tid, wrong), "$\n") << "whole ids are compared whole";
    EXPECT_EQ(LocalsView(tid, MethodOf("specimen", "park")), "$\n") << "a native frame without references";
    gbiQorLocalVariableCounter = LAST_OBJECT_TAG - 2;
    EXPECT_NE(LocalsView(tid, method).find("50004|0|Ljava/lang/Class;"), std::string::npos)
        << "no row of numbers is broken";
    EXPECT_EQ(LocalsView(tid, method), HELD) << "numbering starts anew";
}

// From JDK 11 on the JVM reports these beside a frame's locals.
TEST_F(Locals, AreNotTheConstantsOfCompiledCode) {
    Java("Hot", "start", make("Leaf"));
    const std::string view = LocalsView(ZooId("hot"), MethodOf("hot", "hot"));
    EXPECT_EQ(view.find("Leaf"), view.npos) << view;
}
