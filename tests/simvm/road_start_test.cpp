// A start on the simulated VM: on which it succeeds, and that nothing keeps the agent from leaving.
#include "with_scene.h"

#include "direct/direct_start.h"
#include "qoragent/agent_state.h"
#include "qoragent/requests/dispatch.h"
#include "qorrequest.h"

#include <thread>

using namespace simvm;

namespace {

// No method is where an interpreted frame has it.
void BeCompiled() {
    Self()->Java().anchorFp += sizeof(Word);
}

// A collection that doesn't end isn't waited for without end.
void BeCollecting() {
    vm.heap->collecting = 1;
}

} // namespace

TEST(RoadStart, SucceedsOnTheJvmThatTheVersionNamesAndOnNoOther) {
    struct Case {
        std::string vm, claimed; // the version that the agent is given
        int status;
        void (*spoil)() = [] {};
    };
    std::vector<Case> cases = {
        {"22", "09", START_UNSUPPORTED},
        {"22", "07", START_FAILED},
        {"22", "22", START_FAILED, BeCompiled},
        {"22", "22", START_OK, BeCollecting},
    };
    for (const std::string &build : Split("07 08 10 11 12 13 14 15 16 17 18 19 20 21", ' '))
        cases.push_back({build, build, START_OK});
    const auto start = [](const Case &c) {
        Boot(On(c.vm));
        RunAsMain([&] {
            c.spoil();
            vm.options.version = "1.5.0_" + c.claimed;
            EXPECT_EQ(StartAgent(), c.status);
            EXPECT_EQ(direct_ready, c.status == START_OK);
            EXPECT_EQ(QorCanInspect(), c.status == START_OK);
            _exit(testing::Test::HasFailure()); // what was spoilt stays so
        });
    };
    for (const Case &c : cases)
        EXPECT_EXIT(start(c), testing::ExitedWithCode(0), "") << c.vm << " as " << c.claimed;
}

// A request on another thread, which waits for a collection that doesn't end, until the agent is asked to
// leave.
TEST(RoadStart, RequestsHeedACollectionAndNeverKeepTheAgentFromLeaving) {
    WithScene("nothing", {}, [](Scene &) {
        for (int start = 0; start < 2; start++) {
            ASSERT_EQ(StartAgent(), START_OK);
            auto &collecting = vm.heap->collecting;
            __atomic_store_n(&collecting, 1, __ATOMIC_SEQ_CST);
            EXPECT_NE(Ask("2|showqor|8192|").find("Garbage Collector currently running."), std::string::npos);
            std::string reply;
            std::thread asker([&reply] {
                const Attached self("asker");
                const jstring text =
                    Java_qoragent_Agent_dataFromNative(EnvOf(self.info), nullptr, NewText("3|showqor|8192|"));
                reply = text ? ObjectOf(text)->text : "(null)";
            });
            while (workerBusy == 0 || qorlocks[1] == 0) // the worker may still be busy with the one before
                usleep(1000);
            StopAgent();
            asker.join();
            EXPECT_NE(reply, "(null)"); // the refusal, or the time-out's text
            EXPECT_EQ(qorlocks[0], 0);
            __atomic_store_n(&collecting, 0, __ATOMIC_SEQ_CST);
        }
    });
}
