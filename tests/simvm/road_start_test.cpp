// A start on the simulated VM: on which it succeeds, and what the agent's lowest readers make of it then.
#include "natives.h"
#include "own_process.h"
#include "simvm.h"

#include "qoragent/agent_state.h"
#include "qoragent/requests/dispatch.h"
#include "qoragent/worker.h"
#include "qorrequest.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"
#include "qorutil/vm_threads.h"

#include <csignal>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace simvm;

namespace {

constexpr char VENDOR[] = "Sun Microsystems Inc.";

// An interpreted frame, as far as a start looks at it: the method lies 16 below the frame pointer.
struct Frame {
    Word method, unused, fp[2];
};

struct Caller {
    ThreadInfo *thread;
    Frame frame;
};

ThreadInfo *CallNative(Caller *caller, Word methodOop) {
    caller->thread = NewThread("main");
    caller->frame = {methodOop, 0, {}};
    At(caller->thread->address, &JavaThread::anchorFp) = reinterpret_cast<Word>(&caller->frame.fp);
    LinkThread(caller->thread);
    return caller->thread;
}

int StartAgent(ThreadInfo *thread, const std::string &version) {
    JNIEnv *env = EnvOf(thread);
    jobject samples[] = {NewHandle(thread, NewObject("java/lang/Object")),
                         NewHandle(thread, NewObject("java/lang/ref/WeakReference")),
                         NewHandle(thread, NewArray("[Ljava/lang/Object;", 1)),
                         NewHandle(thread, NewArray("[I", 1))};
    return Java_qoragent_Agent_initvar(env, nullptr, 0, 2, 0, 10, 0, NewText(VENDOR), NewText(version),
                                       NewText("Linux-2.6"), samples[0], samples[1], samples[2], samples[3],
                                       nullptr, nullptr, NewText("stderr"), NewText("test"), 0, 0, 0, 0, 100,
                                       100);
}

Options On(const char *version, const char *library = "server", Collector collector = Collector::SERIAL) {
    Options options;
    options.library = std::string(SIMVM_FOLDER) + "/" + library + "/libjvm.so";
    options.version = version;
    options.collector = collector;
    return options;
}

jint LaterJni(JNIEnv *) {
    return JNI_VERSION_1_6;
}

void TellLaterJni(Caller *caller) {
    auto *table = const_cast<JNINativeInterface_ *>(EnvOf(caller->thread)->functions);
    table->GetVersion = LaterJni;
}

void BeCompiled(Caller *caller) {
    At(caller->thread->address, &JavaThread::anchorFp) = reinterpret_cast<Word>(&caller->frame);
}

void BeAnotherThread(Caller *caller) {
    At(caller->thread->osThread, &OSThread::kernelId) = getpid() + 1;
}

// A compiled caller, and an older thread with an interpreted frame.
void BeCompiledBesideAnother(Caller *caller) {
    static Frame frame;
    frame = caller->frame;
    ThreadInfo *other = NewThread("other");
    At(other->address, &JavaThread::anchorFp) = reinterpret_cast<Word>(&frame.fp);
    At(caller->thread->address, &JavaThread::next) = other->address;
    BeCompiled(caller);
}

} // namespace

TEST(RoadStart, SucceedsOnTheJvmThatTheVersionNamesAndOnNoOther) {
    std::vector<Options> listed;
    for (const char *version :
         {"07", "08", "10", "11", "12", "13", "14", "15", "16", "17", "18", "19", "20", "21", "22"})
        listed.push_back(On((std::string("1.5.0_") + version).c_str()));
    listed.push_back(On("1.5.0_22", "client"));
    listed.push_back(On("1.5.0_07", "server", Collector::PARALLEL));
    listed.push_back(On("1.5.0_22", "server", Collector::CONCURRENT));
    struct Case {
        const char *what;
        Options vm;
        int status;
        const char *claimed; // the version that the agent is given; null: the VM's
        void (*spoil)(Caller *);
    };
    std::vector<Case> cases = {
        {"no row", On("1.5.0_22"), START_UNSUPPORTED, "1.5.0_09", nullptr},
        {"stripped", On("1.5.0_22", "stripped/server"), START_FAILED, nullptr, nullptr},
        {"another build's row", On("1.5.0_22"), START_FAILED, "1.5.0_07", nullptr},
        {"moved", On("1.5.0_22"), START_FAILED, nullptr, nullptr},
        {"later JNI", On("1.5.0_22"), START_FAILED, nullptr, TellLaterJni},
        {"another thread's environment", On("1.5.0_22"), START_FAILED, nullptr, BeAnotherThread},
        {"no interpreted frame", On("1.5.0_22"), START_FAILED, nullptr, BeCompiled},
        {"another's interpreted frame", On("1.5.0_22"), START_OK, nullptr, BeCompiledBesideAnother},
    };
    cases[3].vm.moved = 16;
    for (const Options &options : listed)
        cases.push_back({options.library.c_str(), options, START_OK, nullptr, nullptr});
    for (const Case &c : cases)
        InOwnProcess([&c] {
            Boot(c.vm);
            Caller caller;
            CallNative(&caller, DefineMethod("demo/Main", "run", "()V", {})->oop);
            if (c.spoil)
                c.spoil(&caller);
            EXPECT_EQ(StartAgent(caller.thread, c.claimed ? c.claimed : c.vm.version), c.status)
                << c.what << c.vm.version;
            EXPECT_EQ(direct_ready, c.status == START_OK) << c.what;
            EXPECT_EQ(QorCanInspect(), c.status == START_OK) << c.what;
        });
}

namespace {

// The kinds that the description knows, as the agent has to see them.
void CompareObjects() {
    for (const Object &object : vm.objects) {
        EXPECT_TRUE(valid_oop(object.address)) << object.space;
        EXPECT_FALSE(valid_oop(object.address + 4));
        EXPECT_TRUE(valid_klass(object.klass));
    }
    char text[VM_SYMBOL_SIZE];
    for (const auto &[name, symbol] : vm.symbols)
        EXPECT_STREQ(sym2str(text, sizeof text, symbol), name.c_str());
    for (const MethodInfo &info : vm.methods)
        EXPECT_TRUE(QorIsOfType(info.oop, TYPE_METHOD));
    for (const auto &[name, type] : vm.classes)
        EXPECT_TRUE(QorIsOfType(type.klass, TYPE_INSTANCE_KLASS_KLASS) || name[0] == '[' || name.empty())
            << name;
}

void CompareThreads() {
    static uint64_t threads[MAX_VM_THREADS];
    char name[VM_TEXT_SIZE];
    ASSERT_EQ(QorListThreads(threads), static_cast<int32_t>(vm.threads.size()));
    for (size_t i = 0; i < vm.threads.size(); i++) {
        const ThreadInfo *thread = vm.threads[i];
        EXPECT_EQ(threads[i], thread->address);
        EXPECT_TRUE(QorIsListed(thread->address, thread->kernelId));
        EXPECT_FALSE(QorIsListed(thread->address, thread->kernelId + 1));
        const Word chars = As<JavaThreadObject>(thread->object->address).name;
        EXPECT_STREQ(QorCharArrayText(name, sizeof name, chars), thread->name.c_str());
    }
    At(vm.threads.back()->address, &JavaThread::next) = vm.threads.front()->address; // a ring
    QorForgetPages();
    EXPECT_EQ(QorListThreads(threads), static_cast<int32_t>(vm.threads.size()));
}

void CompareTexts() {
    char text[VM_TEXT_SIZE];
    const struct {
        std::vector<uint16_t> chars;
        const char *text, *inThreeBytes;
    } cases[] = {
        {{'a', 0xe9, 0x20ac}, "a\xc3\xa9\xe2\x82\xac", "a"},
        {{0xd83d, 0xde00, 'z'}, "\xf0\x9f\x98\x80z", ""},
        {{'a', 0xd83d, 'b', 0xde00}, "a?b?", "a?"},
        {{0, 29, 30, 31, '\n', 127}, "     \x7f", "  "},
    };
    for (const auto &c : cases) {
        Object *string = NewString(std::string(c.chars.size(), 'x'));
        const Word array = As<JavaString>(string->address).value;
        memcpy(&As<uint16_t>(array + sizeof(JavaArray)), c.chars.data(), 2 * c.chars.size());
        QorForgetPages();
        QorNoteSpaces();
        EXPECT_STREQ(QorStringText(text, sizeof text, string->address), c.text);
        EXPECT_STREQ(QorStringText(text, 3, string->address), c.inThreeBytes);
    }
    Object *longString = NewString(std::string(3000, 'x'));
    QorForgetPages();
    QorNoteSpaces();
    QorStringText(text, sizeof text, longString->address);
    EXPECT_EQ(strlen(text), size_t{VM_TEXT_CHARS});
    for (const auto &[offset, count] :
         {std::pair<int, int>{2990, 11}, {-1, 4}, {0, -1}, {INT32_MAX, INT32_MAX}}) {
        As<JavaString>(longString->address).offset = offset;
        As<JavaString>(longString->address).count = count;
        QorForgetPages();
        EXPECT_STREQ(QorStringText(text, sizeof text, longString->address), "") << offset << " " << count;
    }
    EXPECT_EQ(sym2str(text, sizeof text, longString->address), nullptr);
}

// A from space that moves is found at the next look, if a sample asked for it; free chunks are no objects.
void CompareSpaces(Collector collector) {
    Object *object = NewObject("java/lang/Object", 'F');
    EXPECT_TRUE(is_in_heap(vm.eden.top - 5));
    EXPECT_FALSE(is_in_heap(vm.eden.top - 4));
    for (uint64_t refused : {uint64_t{0}, UINT64_MAX - 3, UINT64_MAX})
        EXPECT_FALSE(is_in_heap(refused) || valid_oop(refused) || valid_klass(refused));
    EXPECT_EQ(is_in_heap(vm.perm.end - 64), collector == Collector::CONCURRENT);
    EXPECT_FALSE(valid_oop(vm.perm.end - 64) || valid_oop(vm.perm.top));
    for (int32_t refresh : {0, 1}) {
        refresh_heap = refresh;
        const Word young =
            collector == Collector::PARALLEL ? *vm.statics.psYoung : At(vm.heap, &CollectedHeap::young);
        auto &from = collector == Collector::PARALLEL ? At(young, &ParallelGeneration::from)
                                                      : At(young, &YoungGeneration::from);
        from = vm.to.structure;
        QorForgetPages();
        QorNoteSpaces();
        EXPECT_EQ(valid_oop(object->address), !refresh);
        from = vm.from.structure;
        QorForgetPages();
        QorNoteSpaces();
        EXPECT_TRUE(valid_oop(object->address));
    }
}

} // namespace

namespace {

// On a VM that has been booted.
void StartAndCompare(const Options &options) {
    Caller caller;
    CallNative(&caller, DefineMethod("demo/Main", "run", "()V", {})->oop);
    ASSERT_EQ(StartAgent(caller.thread, options.version), START_OK);
    for (const char *name : {"worker-1", "worker-2"})
        LinkThread(NewThread(name));
    QorForgetPages();
    QorNoteSpaces();
    CompareObjects();
    CompareSpaces(options.collector);
    CompareTexts();
    CompareThreads();
}

} // namespace

TEST(RoadStart, LeavesReadersThatSeeWhatTheVmHolds) {
    for (Collector collector : {Collector::SERIAL, Collector::PARALLEL, Collector::CONCURRENT})
        for (int32_t guarded :
             {int32_t{STRUCT_COUNT}, int32_t{ID_KLASS}, int32_t{ID_METHOD}, int32_t{ID_CONST_METHOD}})
            InOwnProcess([=] {
                Options options = On("1.5.0_22", "server", collector);
                options.guarded = guarded;
                Boot(options);
                StartAndCompare(options);
            });
}

TEST(RoadStart, KnowsPlacesByItsRowAlone) {
    for (uint32_t seed = 1; seed <= 20; seed++)
        InOwnProcess([=] {
            Options options = On("1.5.0_22");
            options.shuffle = seed;
            Boot(options);
            TellAgentPlaces();
            StartAndCompare(options);
        });
}

namespace {

std::string Ask(ThreadInfo *thread, const char *request) {
    jstring reply = Java_qoragent_Agent_dataFromNative(EnvOf(thread), nullptr, NewText(request));
    return reply ? TextOf(reply) : "(null)";
}

// A request on another thread, which waits for a collection that doesn't end, until the agent is asked to
// leave.
void LeaveWhileWaiting(ThreadInfo *shutter) {
    std::string reply;
    std::thread asker([&reply] {
        ThreadInfo *thread = NewThread("asker");
        LinkThread(thread);
        reply = Ask(thread, "3|showqor|8192|");
        UnlinkThread(thread);
    });
    while (workerBusy == 0 || qorlocks[1] == 0) // the worker may still be busy with the one before
        usleep(1000);
    Ask(shutter, "SHUTDOWN");
    while (QorWorkerLives()) // a hang is the test's time-out
        usleep(1000);
    asker.join();
    EXPECT_NE(reply, "(null)"); // the refusal, or the time-out's text
}

} // namespace

TEST(RoadStart, RequestsHeedACollectionAndNeverKeepTheAgentFromLeaving) {
    InOwnProcess([] {
        const Options options = On("1.5.0_22");
        Boot(options);
        Caller caller;
        CallNative(&caller, DefineMethod("demo/Main", "run", "()V", {})->oop);
        for (int start = 0; start < 2; start++) {
            ASSERT_EQ(StartAgent(caller.thread, options.version), START_OK);
            auto &collecting = At(vm.heap, &CollectedHeap::collecting);
            __atomic_store_n(&collecting, 1, __ATOMIC_SEQ_CST);
            EXPECT_NE(Ask(caller.thread, "2|showqor|8192|").find("Garbage Collector currently running."),
                      std::string::npos);
            LeaveWhileWaiting(caller.thread);
            EXPECT_EQ(qorlocks[0], 0);
            __atomic_store_n(&collecting, 0, __ATOMIC_SEQ_CST);
        }
    });
}
