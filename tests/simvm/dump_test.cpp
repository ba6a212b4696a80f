// Heap dumps of the simulated VM, made by a copy of the process while all threads in Java code are held.
#include "with_scene.h"

#include "platforms/forked_child.h"
#include "qorrequest.h"
#include "qorthreads/dump_hold.h"
#include "qorthreads/held_slots.h"

#include <cerrno>
#include <fstream>
#include <sys/resource.h>
#include <sys/wait.h>

using namespace simvm;

namespace {

const std::string STARTED = "JVM Heap dump started.\x1f", FAILED = "JVM Heap:Heap dump failed, ",
                  COMPLETED = STARTED + "JVM Heap:Heap dump completed sucessfully";

std::string Dump() {
    return Ask("513|showmem|256|dump|7");
}

std::string TextOfFile(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool IsWhole(const std::string &dump) {
    return dump.compare(0, 8, "heap_id=") == 0 && dump.rfind(" secs\n") == dump.size() - 6;
}

bool HasNoChild() {
    return waitpid(-1, nullptr, WNOHANG | __WALL) == -1 && errno == ECHILD;
}

} // namespace

// Threads come and go, collections run, signals of others arrive: no dump hangs, harms or leaves anything.
TEST(DirectDump, UnderTheStormKeepsNobodyStillAndLeavesNothing) {
    WithScene("nothing", {}, [=](Scene &) {
        const DumpFolder in;
        Dump();
        const size_t before = OpenDescriptors();
        StartStorm({});
        int completed = 0;
        for (int dumps = 0; dumps < 5; dumps++) {
            const std::string reply = Dump();
            completed += reply == COMPLETED;
            EXPECT_TRUE(reply == COMPLETED || reply.find(FAILED + "the heap didn't keep still") != reply.npos)
                << reply;
            EXPECT_EQ(IsWhole(TextOfFile(in("dump"))), reply == COMPLETED);
            EXPECT_TRUE(HasNoChild());
        }
        EXPECT_GT(completed, 0);
        StopStorm();
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_EQ(Handler31(), VmSignalHandler);
    });
}

// Whatever becomes of file and copy, the reply says so, no half file is left, and the VM goes on.
TEST(DirectDump, ThatComesToNoGoodEndIsReported) {
    WithScene("shop", {}, [](Scene &) {
        const DumpFolder in;
        const rlimit small = {4096, RLIM_INFINITY}, none = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_EQ(Dump(), STARTED + FAILED + strerror(EFBIG));
        setrlimit(RLIMIT_FSIZE, &none);
        EXPECT_EQ(std::filesystem::file_size(in("dump")), 0u);

        std::string inCollection;
        Collect([&] { inCollection = Ask("514|showmem|256|dump|7"); }); // refused, not waited for
        EXPECT_NE(inCollection.find("Garbage Collector currently running"), std::string::npos);
    });
}

// A thread that has come to the list's head since the others were held doesn't change whose registers are
// whose. All go on at once, not when their hold's time is over.
TEST(DirectDump, TakesRegistersByThreadNotByPlace) {
    static constexpr Word STACK = 1 << 20; // of each thread; they lie further apart
    WithScene("shop", {}, [](Scene &scene) {
        const auto looping = std::count_if(scene.runners.begin(), scene.runners.end(),
                                           [](const Runner *runner) { return Loops(*runner); });
        const uint32_t ended = qorHoldsEnded;
        int held = 0;
        for (int tries = 0; tries < 50 && held < looping; tries++) {
            QorHoldForDump([] { return false; });
            {
                const Attached visitor("visitor");
                held = 0;
                for (const Runner *runner : scene.runners)
                    if (QorRegisters at = {}; QorDumpRegisters(runner->info->address, &at)) {
                        held++;
                        EXPECT_LT(runner->stackHigh - at.sp, STACK) << runner->info->name;
                    }
            }
            QorResumeAfterDump();
            while (!QorSlotsLeftBy(0))
                usleep(100);
            EXPECT_EQ(qorHoldsEnded, ended);
            QorTendHolds();
        }
        EXPECT_EQ(held, looping);
        EXPECT_GT(looping, 1);
    });
}
