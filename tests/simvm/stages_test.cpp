// The simulated VM by itself: whatever it stages comes to rest, survives collections and returns. A frame
// that isn't laid out as described ends the process.
#include "scenes.h"
#include "storm.h"

#include <gtest/gtest.h>
#include <unistd.h>

using namespace simvm;

class Stages : public testing::TestWithParam<int> {};

TEST_P(Stages, AndReturns) {
    const char *const VERSIONS[] = {"1.5.0_07", "1.5.0_22", "1.5.0_10"};
    Options options;
    options.library =
        std::string(SIMVM_FOLDER) + (GetParam() == 2 ? "/client/libjvm.so" : "/server/libjvm.so");
    options.version = VERSIONS[GetParam()];
    options.collector = Collector(GetParam());
    options.wide = GetParam() == 1;
    options.guarded = GetParam() == 2 ? int32_t(ID_CONST_METHOD) : STRUCT_COUNT;
    Boot(options);
    Scene scene;
    StageScene("shop", &scene);
    Object *till = NewObject("shop/Till");
    for (int turn = 0; turn < 20; turn++) {
        Word before = till->address;
        Collect();
        EXPECT_NE(before, till->address);
        EXPECT_EQ(FindClass("shop/Till")->klass, As<Oop>(till->address).klass);
    }
    for (Runner *runner : scene.runners) {
        int64_t laps = runner->control.laps;
        bool loops = runner->script->rest == Rest::SPIN || runner->script->rest == Rest::CALLS;
        while (loops && __atomic_load_n(&runner->control.laps, __ATOMIC_RELAXED) == laps)
            usleep(100);
    }
    EndScene(&scene);
    EXPECT_TRUE(vm.threads.empty());
}

TEST(Storm, KeepsNobodyWaitingByItself) {
    Options options;
    options.library = SIMVM_FOLDER "/server/libjvm.so";
    Boot(options);
    StartStorm({});
    while (LivedSoFar().size() < 80)
        usleep(1000);
    StormFigures figures = StopStorm();
    EXPECT_TRUE(vm.threads.empty());
    EXPECT_EQ(figures.foreignSent, figures.foreignArrived);
    EXPECT_GT(figures.collections, 0);
    printf("%ld collections, %ld threads, %ld and %ld signals, longest stop %.3f ms\n", figures.collections,
           figures.threadsEnded, figures.profileSignals, figures.foreignArrived, figures.longestStop / 1e6);
}

INSTANTIATE_TEST_SUITE_P(Simvm, Stages, testing::Range(0, 3));
