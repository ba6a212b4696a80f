// A JVM inside the test process, and short ways to call Java from a test.
//
// The first suite that runs creates the process's JVM, with -Xcheck:jni, on gtest's main thread; that thread
// is the "worker" of every test here. A test fails when the JVM has complained of any JNI use in it.
#pragma once

#include "jvmti/Session.h"
#include "qorsettings.h"

#include <functional>
#include <gtest/gtest.h>
#include <jni.h>
#include <map>
#include <set>
#include <string>
#include <vector>

class JvmTest : public testing::Test {
public:
    static void SetUpTestSuite() { StartJvm({}); }

protected:
    // Each test has its own local frame, so that what it leaves doesn't pile up over the tests of a process.
    void SetUp() override;
    void TearDown() override;

    // Creates the JVM unless there is one. `options` are added to the harness's own.
    static void StartJvm(const std::vector<std::string> &options);
};

// A test with an open session, whose thread is the worker. It ends the zoo.
class SessionTest : public JvmTest {
protected:
    void SetUp() override;
    void TearDown() override;
};

// Tests for each of some collectors, by the names of their flags, in a JVM of its own; one that the JVM
// hasn't got leaves it with its default.
template <class Fixture>
struct WithCollector : Fixture, testing::WithParamInterface<const char *> {
    static void SetUpTestSuite() {}
    void SetUp() override {
        Fixture::StartJvm(
            {"-Xmx64m", "-XX:+Use" + std::string(this->GetParam()) + "GC", "-XX:+ZGenerational"});
        Fixture::SetUp();
    }
};
constexpr auto COLLECTOR_NAME = [](const auto &row) { return std::string(row.param); };

// The environment of the test's thread.
JNIEnv *Env();

// Lines of JVM output, since the last call, that complain of JNI use.
std::string TakeJvmComplaints();

// A Java string, a local reference; and the text of one, "" for null.
jstring Text(const std::string &text);
std::string TextOf(jobject string);

// What a call into Java takes, with its type: references are Object there, but for a class named by its type.
struct JavaArgument {
    JavaArgument(int32_t value) : type("I") { word.i = value; }
    JavaArgument(int64_t value) : type("J") { word.j = value; }
    JavaArgument(bool value) : type("Z") { word.z = value; }
    JavaArgument(jobject value) : type("Ljava/lang/Object;") { word.l = value; }
    JavaArgument(const std::string &value) : type("Ljava/lang/String;"), text(value) {}
    JavaArgument(const char *value) : JavaArgument(std::string(value)) {}

    std::string type;
    jvalue word = {};
    std::string text;
};
jvalue CallJava(const std::string &klass, const char *method, const char *result,
                std::vector<JavaArgument> arguments);

// A static method, of a class of qoragent.testing or of one named with its package ("java/lang/System").
// void, int64_t (long), std::string (String, "" for null) or jobject (Object). The test fails if it throws.
template <class Result = void, class... Arguments>
Result Java(const char *klass, const char *method, Arguments... arguments) {
    constexpr bool isLong = std::is_same_v<Result, int64_t>, isText = std::is_same_v<Result, std::string>;
    const char *type = std::is_void_v<Result> ? "V" : isLong ? "J" : isText ? "Ljava/lang/String;" : nullptr;
    const jvalue value = CallJava(klass, method, type ? type : "Ljava/lang/Object;", {arguments...});
    if constexpr (isLong)
        return value.j;
    else if constexpr (isText)
        return TextOf(value.l);
    else if constexpr (!std::is_void_v<Result>)
        return value.l;
}

// Starts the kinds of the zoo that are named (all for ""), and ends them with the scope.
struct ZooVisit {
    explicit ZooVisit(const char *kinds) { Java("Zoo", "start", kinds); }
    ~ZooVisit() { Java("Zoo", "stop"); }
};

// The Java id of a thread of the zoo, and the key that the wire has for it.
int64_t ZooId(const std::string &kind);
std::string ZooKey(const std::string &kind);

// What the JVM says of a thread: a line for each frame, without those of classes made at run time, and lock.
struct TrueThread {
    std::string name;
    std::vector<std::string> lines;
};

// Classes that the JVM makes at run time have names of their own making, and are hidden from Java.
bool IsMadeByJvm(const std::string &call);

// All live threads by Java thread id.
std::map<int64_t, TrueThread> ThreadTruth();

// Does `body` so many times, again and again until it has kept nothing: no descriptor, no global reference,
// no block of the agent's, no memory of the JVM's. What keeps something each time never passes.
void KeepsNothing(int times, const std::function<void()> &body);
