// What Java adds to a sample of the simulated VM: on the caller's thread, thread by thread.
#include "simvm.h"
#include "with_scene.h"

#include <cstring>

using namespace simvm;

namespace {

constexpr char SYSTEM[] = "JVM Load\x1e"
                          "42\x1f";
constexpr char TIMING[] = "Time spent in JVM for processing request\x1e";

std::string ShownName(const ThreadInfo &thread) {
    std::string name = thread.name;
    std::replace(name.begin(), name.end(), '|', ' ');
    return name;
}

bool silent;

std::string Answer(const JavaCall &call) {
    std::string text = call.withSystem ? SYSTEM : "";
    for (int i = 0; i < call.count && !silent; i++)
        for (const ThreadInfo *thread : vm.threads)
            if (thread->object == call.threads[i])
                text += '\x1d' + ("who=" + ShownName(*thread)) + '\x1d' + call.texts[10 * i] + '\x1e';
    return text;
}

// What each thread's part of the reply says of it: by name, what Java added.
std::map<std::string, std::string> Added(const std::string &reply, char end) {
    std::map<std::string, std::string> added;
    for (const std::string &part : Split(reply.substr(0, reply.find(TIMING)), end)) {
        const std::vector<std::string> fields = Split(part.substr(part.rfind(30, part.find(29)) + 1), 29);
        const auto who =
            std::find_if(fields.begin(), fields.end(), [](auto &one) { return one.find("who=") == 0; });
        if (fields.size() > 1 && (fields[0] == "user" || fields[0] == "sys"))
            added[fields[1]] = who == fields.end() ? "" : who->substr(4);
    }
    return added;
}

void ExpectEachItsOwn(const std::map<std::string, std::string> &added, const std::string &without) {
    EXPECT_EQ(added.size(), vm.threads.size());
    for (const auto &[name, who] : added)
        EXPECT_EQ(who, name == without ? "" : name);
}

// On a busy machine a running thread may miss a sample.
std::string AskForAll(const std::string &request) {
    const auto isIn = [](const std::string &reply) {
        return std::all_of(vm.threads.begin(), vm.threads.end(), [&](const ThreadInfo *thread) {
            return reply.find("\x1d" + ShownName(*thread) + "\x1d") != std::string::npos;
        });
    };
    std::string reply = Ask(request);
    for (int tries = 0; tries < 100 && !isIn(reply); ++tries)
        reply = Ask(request);
    return reply;
}

// Every view, every row, the last one included; the timing stays last.
void ExpectJavasPart(const std::string &without = "") {
    for (const std::string request : {"showstack|8192", "showstack|128"}) {
        const std::string reply = AskForAll("777|" + request);
        ExpectEachItsOwn(Added(reply.substr(reply.find(30) + 1), 30), without);
        EXPECT_EQ(Split(reply, 31).back().find(TIMING), 0u) << reply;
    }
    ExpectEachItsOwn(Added(AskForAll("793|showstack|32768"), 31), without);
    const std::string reply = AskForAll("905|showstack|8192");
    ExpectEachItsOwn(Added(reply.substr(reply.find(30) + 1, reply.find(SYSTEM) - reply.find(30) - 1), 30),
                     without);
    EXPECT_EQ(reply.find(SYSTEM) + strlen(SYSTEM), reply.find(TIMING)) << reply;
}

std::vector<Object *> ThreadObjects() {
    jobjectArray array = Java_qoragent_Agent_getThreadObjects(EnvOf(Self()), nullptr);
    return array ? TakeArray(array) : std::vector<Object *>();
}

} // namespace

TEST(JavasPart, GoesToItsThread) {
    WithScene("shop", {}, [](Scene &scene) { // a host without the class
        AskForAll("777|showstack|8192");
        const std::vector<Object *> objects = ThreadObjects();
        EXPECT_EQ(objects.size(), vm.threads.size());
        for (const ThreadInfo *thread : vm.threads)
            EXPECT_EQ(std::count(objects.begin(), objects.end(), thread->object), 1) << thread->name;
        EXPECT_TRUE(ThreadObjects().empty());
        DefineJavaSide(Answer);
        ASSERT_EQ(StartAgent(), 0);
        ExpectJavasPart();
        Collect();
        ExpectJavasPart();
        // Java says another address than the sample: one that has just ended, and one that has taken
        // another's.
        const ThreadInfo *ended = scene.runners[0]->info;
        for (const Word address : {Word(0), scene.runners[1]->info->address}) {
            Set(ended->object, "eetop", address);
            ExpectJavasPart(ShownName(*ended));
        }
        Set(ended->object, "eetop", ended->address);
        silent = true;
        const std::string plain = Ask("777|showstack|8192"); // Java has no answer
        EXPECT_EQ(plain.find("who="), std::string::npos);
        EXPECT_NE(plain.find(TIMING), std::string::npos);
        EXPECT_TRUE(ThreadObjects().empty());
        EXPECT_EQ(LocalReferences(Self()), size_t(As<HandleBlock>(Self()->handles).top));
    });
}
