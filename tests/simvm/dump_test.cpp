// Heap dumps of the simulated VM, made by a copy of the process while all threads in Java code are held.
#include "scenes.h"
#include "with_scene.h"

#include "platforms/forked_child.h"
#include "qorrequest.h"
#include "qorthreads/dump_hold.h"
#include "qorthreads/held_slots.h"

#include <cerrno>
#include <fstream>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace simvm;

namespace {

const std::string STARTED = "JVM Heap dump started.\x1f", FAILED = "JVM Heap:Heap dump failed, ",
                  COMPLETED = STARTED + "JVM Heap:Heap dump completed sucessfully";

std::string Dump(const char *name = "dump") {
    return Ask(std::string("513|showmem|256|") + name + "|7");
}

std::string TextOfFile(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool IsWhole(const std::string &dump) {
    return dump.compare(0, 8, "heap_id=") == 0 && dump.rfind(" secs\n") == dump.size() - 6;
}

// What a dump may leave: descriptors, mappings, children.
struct Left {
    size_t descriptors = OpenDescriptors(), mappings = 0;
    Left() {
        const std::string maps = TextOfFile("/proc/self/maps");
        mappings = size_t(std::count(maps.begin(), maps.end(), '\n'));
    }
};

bool HasNoChild() {
    return waitpid(-1, nullptr, WNOHANG | __WALL) == -1 && errno == ECHILD;
}

// Sends a signal to the first copies that come up, one each.
struct Disturber {
    const size_t copies;
    const int signal;
    const pid_t earlier = QorForkedPid();
    std::atomic<bool> answered{false};
    std::set<pid_t> met = {};
    std::thread thread{[this] {
        while (met.size() < copies && !answered) {
            const pid_t pid = QorForkedPid();
            if (pid > 0 && pid != earlier && met.insert(pid).second)
                kill(pid, signal);
        }
    }};

    // The reply, once it has met them all: a loaded machine may let a copy end unseen.
    bool Disturbs(std::string *reply) {
        *reply = Dump();
        answered = true;
        thread.join();
        return met.size() == copies;
    }
};

} // namespace

// Threads come and go, collections run, signals of others arrive: no dump hangs, harms or leaves anything.
// QOR_DUMPS=COUNT asks for more of them.
TEST(DirectDump, UnderTheStormKeepsNobodyStillAndLeavesNothing) {
    const char *more = getenv("QOR_DUMPS");
    const int wanted = more ? atoi(more) : 5;
    WithScene("nothing", {}, [=](Scene &) {
        const DumpFolder in;
        Dump();
        const Left before;
        StartStorm({});
        int dumps = 0, moved = 0;
        for (; dumps < wanted && !testing::Test::HasFailure(); dumps++) {
            const std::string reply = Dump();
            const bool gaveUp = reply.find(FAILED + "the heap didn't keep still") != std::string::npos;
            moved += gaveUp;
            EXPECT_TRUE(gaveUp || reply == COMPLETED) << reply;
            EXPECT_EQ(IsWhole(TextOfFile(in("dump"))), !gaveUp);
            EXPECT_TRUE(HasNoChild());
        }
        const StormFigures figures = StopStorm();
        printf("%d dumps, %d given up; longest stop %.3f ms\n", dumps, moved, figures.longestStop / 1e6);
        EXPECT_LT(moved, dumps);
        EXPECT_EQ(figures.foreignSent, figures.foreignArrived + figures.foreignMerged);
        const Left after;
        EXPECT_EQ(after.descriptors, before.descriptors);
#ifndef __SANITIZE_ADDRESS__
        EXPECT_LT(figures.longestStop, 150'000'000);
        EXPECT_LT(after.mappings, before.mappings + 40); // stacks that the C library keeps
#endif
        struct sigaction action;
        sigaction(31, nullptr, &action);
        EXPECT_EQ(action.sa_sigaction, VmSignalHandler);
    });
}

// Whatever becomes of file and copy, the reply says so, no half file is left, and the VM goes on.
TEST(DirectDump, ThatComesToNoGoodEndIsReported) {
    WithScene("shop", {}, [](Scene &) {
        const DumpFolder in;
        std::ofstream(in("other")) << "kept";
        std::filesystem::create_symlink(in("other"), in("link"));
        EXPECT_EQ(Dump("link"), "Unable to start Heap Dump: the file can't be opened.\x1f");
        EXPECT_EQ(TextOfFile(in("other")), "kept");

        const rlimit small = {4096, RLIM_INFINITY}, none = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_EQ(Dump(), STARTED + FAILED + strerror(EFBIG));
        setrlimit(RLIMIT_FSIZE, &none);
        EXPECT_EQ(std::filesystem::file_size(in("dump")), 0u);

        gbiForkStandstill = 1500;
        const struct {
            int signal;
            size_t copies;
            std::string reply;
        } cases[] = {{SIGSTOP, 1, COMPLETED},
                     {SIGKILL, 3, COMPLETED},
                     {SIGSEGV, 4, STARTED + FAILED + "a fault in its process"}};
        for (const auto &c : cases) {
            std::string reply;
            // A signal may meet a copy that has just ended.
            for (int tries = 0; tries < 50; tries++)
                if (Disturber{c.copies, c.signal}.Disturbs(&reply) && reply == c.reply)
                    break;
            EXPECT_EQ(reply, c.reply) << c.signal;
            EXPECT_EQ(IsWhole(TextOfFile(in("dump"))), reply == COMPLETED);
            EXPECT_TRUE(HasNoChild());
        }
        EXPECT_EQ(std::filesystem::file_size(in("dump")), 0u);
        struct stat facts;
        EXPECT_EQ(Dump(), COMPLETED);
        EXPECT_EQ(stat(in("dump").c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 0777, 0600u);

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
        ThreadInfo *visitor = NewThread("visitor");
        const uint32_t ended = qorHoldsEnded;
        int held = 0;
        for (int tries = 0; tries < 50 && held < looping; tries++) {
            QorHoldForDump([] { return false; });
            LinkThread(visitor);
            held = 0;
            for (const Runner *runner : scene.runners) {
                QorRegisters at = {};
                if (!QorDumpRegisters(runner->info->address, &at))
                    continue;
                held++;
                EXPECT_LT(runner->stackHigh - at.sp, STACK) << runner->info->name;
            }
            UnlinkThread(visitor);
            QorResumeAfterDump();
            while (!QorSlotsLeftBy(0))
                usleep(100);
            EXPECT_EQ(qorHoldsEnded, ended);
            QorTendHolds();
        }
        EXPECT_EQ(held, looping);
        EXPECT_GT(looping, 1);
        FreeThread(visitor);
    });
}
