// What Java adds to a sample of the simulated VM: on the caller's thread, thread by thread.
#include "with_scene.h"

#include <regex>

using namespace simvm;

namespace {

constexpr char SYSTEM[] = "JVM Load\x1e"
                          "42\x1f";
constexpr char TIMING[] = "Time spent in JVM for processing request\x1e";

bool silent;

std::string Answer(const JavaCall &call) {
    std::string text = call.withSystem ? SYSTEM : "";
    for (int i = 0; i < call.count && !silent; i++)
        for (const ThreadInfo *thread : vm.threads)
            if (thread->object == call.threads->values[i].object)
                text += "\x1dwho=" + ShownName(*thread) + '\x1d' + call.texts->values[10 * i].object->text +
                        '\x1e';
    return text;
}

// What Java added to which thread's part of the reply.
std::map<std::string, std::string> Added(const std::string &reply) {
    static const std::regex place("(?:user|sys)\x1d([^\x1d]+)|\x1dwho=([^\x1d\x1e]+)");
    std::map<std::string, std::string> added;
    std::string *last = nullptr;
    for (std::sregex_iterator at(reply.begin(), reply.end(), place), none; at != none; ++at)
        if ((*at)[1].matched)
            last = &added[at->str(1)];
        else
            *last = at->str(2);
    return added;
}

// Every view, every row, the last one included; the timing stays last. On a busy machine a running thread may
// miss a sample.
void ExpectJavasPart(const std::string &without = "") {
    std::map<std::string, std::string> wanted;
    for (const ThreadInfo *thread : vm.threads)
        wanted[ShownName(*thread)] = ShownName(*thread) == without ? "" : ShownName(*thread);
    for (const std::string request : {"777|showstack|8192", "793|showstack|32768", "905|showstack|8192"}) {
        std::map<std::string, std::string> added;
        std::string reply;
        for (int tries = 0; tries < 100 && added.size() < wanted.size(); tries++)
            added = Added(reply = Ask(request));
        EXPECT_EQ(added, wanted) << reply;
        const std::string system = request[0] == '9' ? SYSTEM : "\x1f";
        EXPECT_EQ(reply.find(system + TIMING), reply.rfind(TIMING) - system.size()) << reply;
    }
}

std::set<Object *> ThreadObjects() {
    const jobjectArray array = Java_qoragent_Agent_getThreadObjects(EnvOf(Self()), nullptr);
    std::set<Object *> objects;
    for (const Value &value : array ? ObjectOf(array)->values : std::vector<Value>())
        objects.insert(value.object);
    return objects;
}

} // namespace

TEST(JavasPart, GoesToItsThread) {
    WithScene("shop", {}, [](Scene &scene) { // a host without the class
        std::set<Object *> objects, found;
        for (const ThreadInfo *thread : vm.threads)
            objects.insert(thread->object);
        for (int tries = 0; tries < 100 && found != objects; tries++) { // on a busy machine some are missing
            Ask("777|showstack|8192");
            found = ThreadObjects();
        }
        EXPECT_EQ(found, objects);
        EXPECT_TRUE(ThreadObjects().empty());
        DefineJavaSide(Answer);
        ASSERT_EQ(StartAgent(), 0);
        ExpectJavasPart();
        Collect();
        ExpectJavasPart();
        // Java says another address than the sample.
        const ThreadInfo *ended = scene.runners[0]->info;
        Set(ended->object, "eetop", Word(0));
        ExpectJavasPart(ShownName(*ended));
        Set(ended->object, "eetop", ended->address);
        silent = true;
        const std::string plain = Ask("777|showstack|8192"); // Java has no answer
        EXPECT_EQ(plain.find("who="), std::string::npos);
        EXPECT_NE(plain.find(TIMING), std::string::npos);
        EXPECT_TRUE(ThreadObjects().empty());
    });
}
