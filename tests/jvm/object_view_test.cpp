// The views of a frame's locals and of one object.
#include "Descriptors.h"
#include "LogCapture.h"
#include "Replies.h"
#include "RequestHandler/RequestHandler.h"
#include "Walk.h"
#include "jvmti/objects/LocalObjects.h"
#include "jvmti/objects/ObjectFields.h"
#include "qorStrUtils.h"

#include <cstring>
#include <functional>

namespace {

constexpr jlong SOME_TAG = 7777;

std::string View(const std::function<void(char *page)> &show) {
    std::vector<char> page(PAGEBUF_SIZE);
    show(page.data());
    return Legible(page.data());
}

std::string ObjectView(int64_t tag) {
    return View([&](char *page) {
        QorShowObjectRequest(static_cast<int32_t>(tag), 0, QORREQ_SHOW_OBJECT, page, PAGEBUF_SIZE);
    });
}

std::string LocalsView(int64_t tid, int64_t method) {
    return View([&](char *page) {
        QorHandlePrintLocalRequest(static_cast<int32_t>(tid), method, 0, 0, 0, page, PAGEBUF_SIZE);
    });
}

// The class of the first section of an object view, "" without any.
std::string FirstClass(const std::string &view) {
    const std::string head = "Message\nObject Name :";
    if (view.compare(0, head.size(), head) != 0)
        return "";
    return view.substr(head.size(), view.find("$\n") - head.size());
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

// What a frame's row of the stack view gives the console to ask for its locals.
int64_t MethodOf(const char *method, bool native = false, const char *thread = "specimen") {
    Walk walk;
    EXPECT_TRUE(walk.find(thread));
    for (walk.frames.index = 0; walk.frames.index < walk.frames.count; walk.frames.index++) {
        char name[NAME_SIZE] = "";
        QorGetMethodInfo(&walk.frames, name);
        if (strcmp(name, method) != 0)
            continue;
        EXPECT_EQ(walk.frames.frames[walk.frames.index].location < 0, native);
        return reinterpret_cast<int64_t>(walk.frames.frames[walk.frames.index].method);
    }
    ADD_FAILURE() << "no " << method << " on the stack";
    return 0;
}

struct Holder {
    explicit Holder(const char *start = "startHolder") { Java("Specimens", start); }
    ~Holder() { Java("Specimens", "end"); }
    int64_t tid() const { return Java<int64_t>("Specimens", "id"); }
};

// Both frames of hold(), the inner one first.
constexpr char HELD[] = "Method Locals\n"
                        "^|^|String|a text1\n"
                        "^|^|Int Array| 1 2 3\n"
                        "^|^|String|a text\n"
                        "^|^|Int Array| 1 2 3\n"
                        "5004|0|[Ljava/lang/Object;| \n"
                        "5005|0|Lqoragent/testing/Specimens$Values;| \n"
                        "5006|0|Ljava/lang/Class;| \n"
                        "Active$\n";

} // namespace

TEST_F(ObjectViews, ShowAFieldOfEveryKind) {
    const std::string name = "Lqoragent/testing/Specimens$Values;";
    std::string aDouble(400, 0);
    aDouble.resize(static_cast<size_t>(snprintf(aDouble.data(), aDouble.size(), "%f", 1e300)));
    EXPECT_EQ(viewOf("Values"), "Message\nObject Name :" + name +
                                    "$\n"
                                    "Object Description\n"
                                    "5000|1|Static: Ljava/lang/Object;|shared|view object\n"
                                    "^|^|Static: Long|number|64000000000\n"
                                    "^|^|Static: Boolean|flag|True\n"
                                    "^|^|Static: [Ljava/lang/String;|none| \n"
                                    "^|^|Static: Char|letter|z\n"
                                    "^|^|Static: Byte|digit|7\n"
                                    "^|^|Static: Short|small|-3\n"
                                    "^|^|Static: Int|plain|12\n"
                                    "^|^|Static: Float|half|0.500000\n"
                                    "^|^|Static: Double|quarter|-0.250000\n"
                                    "^|^|Static: String|word|static\n"
                                    "^|^|Static: Int Array|list| 4 5\n"
                                    "^|^|Public: Boolean|yes|True\n"
                                    "^|^|Private: Boolean|no|False\n"
                                    "^|^|Protected: Byte|upper|A\n"
                                    "^|^|Byte|dash| \n"
                                    "^|^|Char|wide| \n"
                                    "^|^|Char|lower|q\n"
                                    "^|^|Short|aShort|-1500\n"
                                    "^|^|Int|anInt|-310000\n"
                                    "^|^|Long|aLong|-63000000000\n"
                                    "^|^|Float|aFloat|0.750000\n"
                                    "^|^|Double|aDouble|" +
                                    aDouble +
                                    "\n"
                                    "^|^|String|text|a b  \u00e9\n"
                                    "^|^|String|empty| \n"
                                    "^|^|String|missing| \n"
                                    "^|^|Boolean Array|booleans| True False\n"
                                    "^|^|Byte Array|bytes| A   9\n"
                                    "^|^|Char Array|chars| a   Z\n"
                                    "^|^|Short Array|shorts| 3 -4\n"
                                    "^|^|Int Array|ints| 5 -6\n"
                                    "^|^|Long Array|longs| 7 5\n"
                                    "^|^|Float Array|floats| 1 0 0\n"
                                    "^|^|Double Array|doubles| -9 0\n"
                                    "^|^|Int Array|emptyInts| \n"
                                    "^|^|Int Array|noInts| \n"
                                    "5001|1|[[I|grid|view object\n"
                                    "5002|1|Ljava/lang/Object;|any|view object\n"
                                    "^|^|Ljava/lang/Object;|nothing| \n"
                                    "^|^|" +
                                    name +
                                    "|own| \n"
                                    "Active$\n"
                                    "Parent of the Object above:\n" +
                                    name + "$\n");
    EXPECT_EQ(FirstClass(ObjectView(5002)), "Lqoragent/testing/Fields;") << "a link leads to its object";
}

TEST_F(ObjectViews, GoUpTheChainWithoutItsTop) {
    const auto section = [](const std::string &kind, const std::string &row) {
        const std::string name = "Lqoragent/testing/Specimens$" + kind + ";$\n";
        return "Message\nObject Name :" + name +
               (row.empty() ? "Object Description - No Information available\nNo Information Available$\n"
                            : "Object Description\n" + row + "\nActive$\n") +
               "Parent of the Object above:\n" + name;
    };
    const std::string leaf = section("Leaf", "^|^|Private: Int|inLeaf|1");
    const std::string base = section("Base", "^|^|Protected: Int|inBase|2");
    EXPECT_EQ(viewOf("Leaf"), leaf + section("Bare", "") + base);
    EXPECT_EQ(viewOf("plain"), "");
    // Elements one after the other; a pair holds the lower of two classes, the last pair isn't shown.
    EXPECT_EQ(viewOf("pairs"), leaf + leaf + section("Bare", "") + base + base);
    EXPECT_EQ(CountOf(viewOf("forty"), "Object Name :"), 49u) << "no more are shown";
}

TEST_F(ObjectViews, OfWhatIsNotThereAreEmpty) {
    LogCapture log(1); // what is null, empty or gone isn't an error
    for (const char *kind : {"hole", "empty", "ints", "single"})
        EXPECT_EQ(viewOf(kind), "") << kind;
    EXPECT_EQ(ObjectView(SOME_TAG) + ObjectView(49999) + log.text(), "");
    EXPECT_EQ(ObjectView(0) + ObjectView(-5), "");
}

TEST_F(ObjectViews, CutLongValuesAtACharacter) {
    bufferOverflowCount = 0;
    const std::string view = viewOf("Long");
    EXPECT_EQ(bufferOverflowCount, 0) << "no value may pass for a reply that is full";
    const auto row = [](const std::string &field, const std::string &part, int count) {
        std::string text = "|" + field + "|";
        for (int i = 0; i < count; i++)
            text += part;
        return text + "\n";
    };
    for (const std::string &shown : {row("ascii", "x", 1023), row("accents", "x", 1022),
                                     row("ones", " 1", 300), row("many", " -100000000", 93)})
        EXPECT_NE(view.find(shown), view.npos) << shown.substr(0, 20);
}

TEST_F(ObjectViews, KeepNothingAndCopyNoBigValue) {
    jobject object = make("Values"), big = make("Big");
    KeepsNothing(1000, [&] { viewOf(object); });
    FILE *file = fopen("/proc/self/clear_refs", "we"); // the peak starts anew
    fputs("5", file);
    fclose(file);
    const int64_t before = KilobytesOf("VmRSS:");
    EXPECT_NE(viewOf(big), "");
    EXPECT_LT(KilobytesOf("VmHWM:") - before, 8 << 10);
}

TEST_F(ObjectViews, ShowObjectsOfAClassInItsInitialiser) {
    const std::string view = viewOf(Java<jobject>("Obstacles", "inInitializer"));
    EXPECT_NE(view.find("String|servletPath|/born\n"), std::string::npos) << view;
    Java("Obstacles", "release");
}

struct Locals : ObjectViews {};

TEST_F(Locals, AreThoseOfTheFrame) {
    Holder holder;
    const int64_t method = MethodOf("hold");
    EXPECT_EQ(LocalsView(holder.tid(), method), HELD);
    EXPECT_EQ(FirstClass(ObjectView(5005)), "Lqoragent/testing/Specimens$Values;");
    gbiQorLocalVariableCounter = FIRST_OBJECT_TAG;
    EXPECT_EQ(LocalsView(holder.tid(), static_cast<int32_t>(method)), HELD) << "as the stack view shows it";
    const int64_t wrong = method ^ (int64_t{1} << 40);
    EXPECT_EQ(LocalsView(holder.tid() + 100000, method), "$\n");
    EXPECT_EQ(LocalsView(holder.tid(), wrong), "$\n") << "whole ids are compared whole";
    EXPECT_EQ(LocalsView(holder.tid(), MethodOf("park", true)), "$\n") << "a native frame without references";
}

TEST_F(Locals, NeverBreakTheirRowOfNumbers) {
    Holder holder;
    const int64_t method = MethodOf("hold");
    gbiQorLocalVariableCounter = LAST_OBJECT_TAG - 2;
    EXPECT_NE(LocalsView(holder.tid(), method).find("50004|0|Ljava/lang/Class;"), std::string::npos);
    EXPECT_EQ(LocalsView(holder.tid(), method), HELD) << "numbering starts anew";
}

// Its argument brings it to a rest with a reference of its own.
void JNICALL Rest(JNIEnv *env, jclass, jobject gate) {
    jstring own = env->NewStringUTF("made in native code");
    jclass klass = env->GetObjectClass(gate);
    env->CallVoidMethod(gate, env->GetMethodID(klass, "pass", "()V"));
    env->DeleteLocalRef(own);
}

TEST_F(Locals, OfANativeMethodAreItsReferences) {
    JNINativeMethod rest = {const_cast<char *>("rest"),
                            const_cast<char *>("(Lqoragent/testing/Resident$Gate;)V"),
                            reinterpret_cast<void *>(Rest)};
    ASSERT_EQ(Env()->RegisterNatives(Env()->FindClass("qoragent/testing/Specimens"), &rest, 1), 0);
    const Holder holder("startResting");
    const std::string view = LocalsView(holder.tid(), MethodOf("rest", true));
    EXPECT_NE(view.find("^|^|String|made in native code\n"), std::string::npos) << view;
}

// From JDK 11 on the JVM reports these beside a frame's locals.
TEST_F(Locals, AreNotTheConstantsOfCompiledCode) {
    Java("Stage", "enter", "hot", "hot", make("Leaf"), jobject{}, jobject{});
    const std::string view = LocalsView(ZooId("hot"), MethodOf("hot", false, "zoo-hot"));
    EXPECT_EQ(view.find("Leaf"), view.npos) << view;
}
