// A JVM inside the test process, and short ways to call Java from a test.
//
// The first suite that runs creates the process's JVM, with -Xcheck:jni, on gtest's main thread; that thread
// is the "worker" of every test here. A test fails when the JVM has complained of any JNI use in it.
#pragma once

#include "jvmti/Session.h"

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
    // Each test has a local frame of its own, so that what it leaves doesn't pile up over the tests of a
    // process.
    void SetUp() override;
    void TearDown() override;

    // Creates the JVM unless there is one. `options` are added to the harness's own.
    static void StartJvm(const std::vector<std::string> &options);

private:
    bool framePushed_ = false;
};

// A test with an open session; the test's thread stands in for the worker.
class SessionTest : public JvmTest {
protected:
    void SetUp() override;
    void TearDown() override;
};

// The environment of the test's thread.
JNIEnv *Env();

// Lines of JVM output, since the last call, that complain of JNI use.
std::string TakeJvmComplaints();

// Calls of static methods of a class ("java/lang/System"); the test fails if they throw.
std::string CallText(const char *klass, const char *method, const char *signature, ...);
int64_t CallLong(const char *klass, const char *method, const char *signature, ...);
jobject CallObject(const char *klass, const char *method, const char *signature, ...);
void CallVoid(const char *klass, const char *method, const char *signature, ...);

// A Java string, a local reference; and the text of one.
jstring Text(const std::string &text);
std::string TextOf(jobject string);

// The agent's name for Java's test classes.
constexpr char ZOO[] = "qoragent/testing/Zoo";
constexpr char TRUTH[] = "qoragent/testing/Truth";

// Starts the kinds of the zoo that are named (all for ""), and ends them with the scope.
struct ZooVisit {
    explicit ZooVisit(const char *kinds);
    ~ZooVisit();
};

// What the JVM says of a thread.
struct TrueFrame {
    std::string call, file; // "class->method"; "-" for no file
    int line;
};

// Classes that the JVM makes at run time have names of their own making, and are hidden from Java.
bool IsMadeByJvm(const std::string &call);

struct TrueLock {
    int depth; // -1 for the lock waited for
    std::string className;
    int64_t hash, owner; // owner of the lock waited for, -1 for nobody
};
struct TrueThread {
    int64_t id;
    std::string name, state;
    std::vector<TrueFrame> frames;
    std::vector<TrueLock> owned, wanted;
};

// All live threads by Java thread id.
std::map<int64_t, TrueThread> ThreadTruth();
