// A start on the simulated VM: on which it succeeds, and that nothing keeps the agent from leaving.
#include "with_scene.h"

#include "qoragent/agent_state.h"
#include "qoragent/requests/dispatch.h"
#include "qorrequest.h"

#include <thread>

using namespace simvm;

namespace {

// An interpreted frame, as far as a start looks at it: the method lies 16 below the frame pointer.
struct Caller {
    struct {
        Word method, unused, fp[2];
    } frame;
    ThreadInfo *thread;
};

void CallNative(Caller *caller) {
    caller->thread = NewThread("main");
    caller->frame = {DefineMethod("demo/Main", "run", "()V", {})->oop, 0, {}};
    At(caller->thread->address, &JavaThread::anchorFp) = reinterpret_cast<Word>(&caller->frame.fp);
    LinkThread(caller->thread);
    natives = {Java_qoragent_Agent_initvar, Java_qoragent_Agent_dataFromNative};
}

void TellLaterJni(Caller *caller) {
    auto *table = const_cast<JNINativeInterface_ *>(EnvOf(caller->thread)->functions);
    table->GetVersion = [](JNIEnv *) -> jint { return JNI_VERSION_1_6; };
}

void BeCompiled(Caller *caller) {
    At(caller->thread->address, &JavaThread::anchorFp) = reinterpret_cast<Word>(&caller->frame);
}

void BeAnotherThread(Caller *caller) {
    At(caller->thread->osThread, &OSThread::kernelId) = getpid() + 1;
}

// A compiled caller, and an older thread with an interpreted frame.
void BeCompiledBesideAnother(Caller *caller) {
    static auto frame = caller->frame;
    ThreadInfo *other = NewThread("other");
    At(other->address, &JavaThread::anchorFp) = reinterpret_cast<Word>(&frame.fp);
    At(caller->thread->address, &JavaThread::next) = other->address;
    BeCompiled(caller);
}

} // namespace

TEST(RoadStart, SucceedsOnTheJvmThatTheVersionNamesAndOnNoOther) {
    struct Case {
        const char *vm, *claimed; // the version that the agent is given
        int status;
        void (*spoil)(Caller *) = nullptr;
    };
    std::vector<Case> cases = {{"22", "09", START_UNSUPPORTED},
                               {"22 stripped", "22", START_FAILED},
                               {"22", "07", START_FAILED},
                               {"22 shuffled", "22", START_FAILED},
                               {"22", "22", START_FAILED, TellLaterJni},
                               {"22", "22", START_FAILED, BeAnotherThread},
                               {"22", "22", START_FAILED, BeCompiled},
                               {"22", "22", START_OK, BeCompiledBesideAnother},
                               {"22 client", "22", START_OK},
                               {"07 parallel", "07", START_OK},
                               {"22 cms", "22", START_OK}};
    for (const char *build :
         {"07", "08", "10", "11", "12", "13", "14", "15", "16", "17", "18", "19", "20", "21"})
        cases.push_back({build, build, START_OK});
    for (const Case &c : cases)
        InOwnProcess([&] {
            SCOPED_TRACE(&c - cases.data());
            Boot(On(c.vm));
            Caller caller;
            CallNative(&caller);
            if (c.spoil)
                c.spoil(&caller);
            vm.options.version = std::string("1.5.0_") + c.claimed;
            EXPECT_EQ(StartAgent(), c.status);
            EXPECT_EQ(direct_ready, c.status == START_OK);
            EXPECT_EQ(QorCanInspect(), c.status == START_OK);
        });
}

// A request on another thread, which waits for a collection that doesn't end, until the agent is asked to
// leave.
TEST(RoadStart, RequestsHeedACollectionAndNeverKeepTheAgentFromLeaving) {
    WithScene("nothing", {}, [](Scene &) {
        for (int start = 0; start < 2; start++) {
            ASSERT_EQ(StartAgent(), START_OK);
            auto &collecting = At(vm.heap, &CollectedHeap::collecting);
            __atomic_store_n(&collecting, 1, __ATOMIC_SEQ_CST);
            EXPECT_NE(Ask("2|showqor|8192|").find("Garbage Collector currently running."), std::string::npos);
            std::string reply;
            std::thread asker([&reply] {
                ThreadInfo *thread = NewThread("asker");
                LinkThread(thread);
                jstring text =
                    Java_qoragent_Agent_dataFromNative(EnvOf(thread), nullptr, NewText("3|showqor|8192|"));
                reply = text ? TextOf(text) : "(null)";
                UnlinkThread(thread);
            });
            while (workerBusy == 0 || qorlocks[1] == 0) // the worker may still be busy with the one before
                usleep(1000);
            Ask("SHUTDOWN");
            while (QorWorkerLives()) // a hang is the test's time-out
                usleep(1000);
            asker.join();
            EXPECT_NE(reply, "(null)"); // the refusal, or the time-out's text
            EXPECT_EQ(qorlocks[0], 0);
            __atomic_store_n(&collecting, 0, __ATOMIC_SEQ_CST);
        }
    });
}
