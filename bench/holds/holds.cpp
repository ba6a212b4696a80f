// What holding threads by signal costs: how long one hold takes, and what threads that only compute lose by
// it. usage: holds [THREADS [SECONDS]]
#include "qorthreads/qorthreads.h"
#include "qorutil/vm_reader.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int FRAMES = 50;
constexpr uint64_t FRAME_SIZE = 96;
constexpr int64_t USEC = 1000;
constexpr QorHoldTests TESTS = {[](uint64_t, int32_t) { return true; },
                                [](uint64_t, int32_t) { return true; }, [](uint64_t, char *, size_t) {}};

void Sleep(long msec) {
    const timespec pause = {msec / 1000, msec % 1000 * 1000000};
    nanosleep(&pause, nullptr);
}

// A thread that spins, or sleeps a millisecond at a time, 8 KB below the start of its stack.
struct Target {
    explicit Target(bool spins)
        : thread([this, spins] {
              volatile char stack[2 * VM_PAGE_SIZE] = {};
              id = static_cast<int32_t>(syscall(SYS_gettid));
              for (; !over; count.fetch_add(1, std::memory_order_relaxed)) {
                  stack[0] = stack[0] + 1;
                  if (!spins)
                      Sleep(1);
              }
          }) {
        while (id == 0)
            Sleep(1);
    }
    ~Target() {
        over = true;
        thread.join();
    }
    std::atomic<int32_t> id{0};
    std::atomic<uint64_t> count{0};
    std::atomic<bool> over{false};
    std::thread thread;
};

// Reads as much as a walk over so many frames, two words each.
void ReadStack(uint64_t sp) {
    uint64_t words[2];
    for (int i = 0; i < FRAMES; i++)
        QorPeek(sp + i * FRAME_SIZE, words, sizeof words);
}

struct Costs {
    std::vector<int64_t> arrival, held;
    int missed = 0;
};

void Sample(std::deque<Target> &targets, Costs *costs) {
    for (Target &target : targets) {
        const int64_t start = QorMonotonicNsec();
        const QorHold hold = qor_suspend_thread(1, target.id, HOLD_NULL_SP);
        QorRegisters at;
        const bool came = QorAwaitHeld(hold, &at);
        const int64_t there = QorMonotonicNsec();
        if (came)
            ReadStack(at.sp);
        const bool whole = came && QorStillHeld(hold);
        qor_resume_thread(hold);
        costs->missed += !whole;
        if (whole) {
            costs->arrival.push_back(there - start);
            costs->held.push_back(QorMonotonicNsec() - there);
        }
    }
    QorTendHolds();
}

int64_t Percentile(std::vector<int64_t> *values, double share) {
    if (values->empty())
        return 0;
    std::sort(values->begin(), values->end());
    return (*values)[std::min(values->size() - 1, static_cast<size_t>(share * values->size()))] / USEC;
}

void Print(const char *what, Costs *costs) {
    printf("| %s | %zu | %d | %ld | %ld | %ld | %ld | %ld |\n", what, costs->held.size(), costs->missed,
           Percentile(&costs->arrival, 0.5), Percentile(&costs->arrival, 0.99), Percentile(&costs->held, 0.5),
           Percentile(&costs->held, 0.99), Percentile(&costs->held, 1));
}

// Steps, and the time in which they were made. Time that a thread was ready and had no processor isn't
// counted, as other programs take it; time in which it was held is.
struct Work {
    double steps = 0, time = 0;
};

Work WorkOf(const std::deque<Target> &targets) {
    Work all;
    for (const Target &target : targets) {
        char path[64];
        snprintf(path, sizeof path, "/proc/self/task/%d/schedstat", target.id.load());
        long ran = 0, waited = 0;
        if (FILE *file = fopen(path, "re")) {
            if (fscanf(file, "%ld %ld", &ran, &waited) != 2)
                waited = 0;
            fclose(file);
        }
        all.steps += static_cast<double>(target.count);
        all.time += static_cast<double>(QorMonotonicNsec() - waited);
    }
    return all;
}

// What the targets do in a second, with or without a sample in it.
double Window(std::deque<Target> &targets, bool sampled, Costs *costs) {
    const Work before = WorkOf(targets);
    const int64_t end = QorMonotonicNsec() + 1000000 * USEC;
    if (sampled)
        Sample(targets, costs);
    while (QorMonotonicNsec() < end)
        Sleep(1);
    const Work after = WorkOf(targets);
    return (after.steps - before.steps) / (after.time - before.time);
}

} // namespace

int main(int argc, char **argv) {
    const int threads = argc > 1 ? atoi(argv[1]) : 200;
    const int seconds = std::max(1, argc > 2 ? atoi(argv[2]) : 10);
    if (!QorPrepareHolds(&TESTS))
        return 1;
    printf("stack that a hold takes: %u bytes; times in us\n\n"
           "| threads | holds | missed | arrival, median | 99 %% | held, median | 99 %% | longest |\n"
           "|---|---|---|---|---|---|---|---|\n",
           QorHandlerDepth());
    {
        std::deque<Target> targets;
        for (int i = 0; i < threads; i++)
            targets.emplace_back(false);
        Costs costs;
        for (const int64_t end = QorMonotonicNsec() + seconds * 1000000 * USEC; QorMonotonicNsec() < end;)
            Sample(targets, &costs);
        Print("mostly asleep, back to back", &costs);
    }
    std::deque<Target> targets;
    for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); i++)
        targets.emplace_back(true);
    Costs costs, burst;
    std::vector<double> ratios;
    for (int i = 0; i < seconds; i++) {
        const double with = Window(targets, true, &costs);
        ratios.push_back(with / Window(targets, false, &costs));
    }
    Print("one spinning per processor, once a second", &costs);
    for (const int64_t end = QorMonotonicNsec() + seconds * 1000000 * USEC; QorMonotonicNsec() < end;)
        Sample(targets, &burst);
    Print("the same, back to back", &burst);
    std::sort(ratios.begin(), ratios.end());
    printf("\nwork of the spinning threads with one sample a second / without, median: %.4f\n",
           ratios[ratios.size() / 2]);
    return 0;
}
