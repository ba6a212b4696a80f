// What a sample costs where the JVM is read by address, on the simulated VM.
// usage: direct samples         200 threads at rest; answers each line of input with times of its samples
//        direct holds SECONDS   the same crowd, two of its threads looping
//        direct census GIB      objects of so many GiB, counted
#include "scenes.h"

#include "qorthreads/qorthreads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

using namespace simvm;

namespace {

constexpr int THREADS = 200, FRAMES = 50, LOOPING = 2, CALLS_A_TURN = 5;
constexpr char SAMPLE[] = "793|showstack|32768", TIMING[] = "Time spent in JVM for processing request";

std::vector<double> arrivals, holds; // milliseconds
int missed;
int64_t heldSince;

double Msec(int64_t since) {
    return double(QorMonotonicNsec() - since) / 1e6;
}

double Percentile(std::vector<double> values, double share) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(share * double(values.size())))];
}

} // namespace

// The agent's own holds, on its worker.
extern "C" bool __real__Z12QorAwaitHeldmP12QorRegisters(QorHold, QorRegisters *);
extern "C" void __real__Z17qor_resume_threadm(QorHold);

extern "C" bool __wrap__Z12QorAwaitHeldmP12QorRegisters(QorHold hold, QorRegisters *out) {
    const int64_t start = QorMonotonicNsec();
    const bool came = __real__Z12QorAwaitHeldmP12QorRegisters(hold, out);
    heldSince = came ? QorMonotonicNsec() : 0;
    missed += !came;
    if (came)
        arrivals.push_back(Msec(start));
    return came;
}

extern "C" void __wrap__Z17qor_resume_threadm(QorHold hold) {
    __real__Z17qor_resume_threadm(hold);
    if (heldSince)
        holds.push_back(Msec(heldSince));
    heldSince = 0;
}

namespace {

struct Sample {
    double call, worker;
    size_t bytes;
};

Sample Take() {
    const int64_t start = QorMonotonicNsec();
    const std::string reply = Ask(SAMPLE);
    const double call = Msec(start);
    const size_t at = reply.find(TIMING);
    return {call, at == reply.npos ? 0 : atof(reply.c_str() + at + sizeof TIMING) / 1e3, reply.size()};
}

double MedianOf(const std::vector<Sample> &samples, double Sample::*figure) {
    std::vector<double> values;
    for (const Sample &sample : samples)
        values.push_back(sample.*figure);
    return Percentile(values, 0.5);
}

// A turn for each line of input: the medians of its calls.
void AnswerTurns() {
    for (int c; (c = getchar()) != EOF;) {
        std::vector<Sample> samples;
        for (int i = 0; c == '\n' && i < CALLS_A_TURN; i++)
            samples.push_back(Take());
        if (c != '\n')
            continue;
        printf("%.3f %.3f %zu\n", MedianOf(samples, &Sample::worker), MedianOf(samples, &Sample::call),
               samples[0].bytes);
        fflush(stdout);
    }
}

// Laps, and the time in which they were made. Time that a thread was ready and had no processor isn't
// counted, as other programs take it; time in which it was held is.
struct Work {
    double laps = 0, time = 0;
};

Work WorkSoFar() {
    Work all;
    for (Runner *runner : StormRunners()) {
        char path[64];
        snprintf(path, sizeof path, "/proc/self/task/%d/schedstat", runner->info->kernelId);
        long ran = 0, waited = 0;
        FILE *file = runner->script->rest == Rest::SPIN ? fopen(path, "re") : nullptr;
        if (!file)
            continue;
        if (fscanf(file, "%ld %ld", &ran, &waited) != 2)
            waited = 0;
        fclose(file);
        all.laps += double(__atomic_load_n(&runner->control.laps, __ATOMIC_RELAXED));
        all.time += double(QorMonotonicNsec() - waited);
    }
    return all;
}

// What the looping threads do in a second, with or without a sample in it.
double Window(bool sampled) {
    const int64_t start = QorMonotonicNsec();
    const Work before = WorkSoFar();
    if (sampled)
        Take();
    while (Msec(start) < 1000)
        usleep(1000);
    const Work after = WorkSoFar();
    return (after.laps - before.laps) / (after.time - before.time);
}

void PrintHolds(const char *what) {
    printf("| %s | %zu | %d | %.3f | %.3f | %.3f | %.3f | %.3f |\n", what, holds.size(), missed,
           Percentile(arrivals, 0.5), Percentile(arrivals, 0.99), Percentile(holds, 0.5),
           Percentile(holds, 0.99), Percentile(holds, 1));
    arrivals.clear();
    holds.clear();
    missed = 0;
}

void MeasureHolds(int seconds) {
    std::vector<double> ratios;
    printf("| samples | holds | missed | arrival, median | 99 %% | held, median | 99 %% | longest |\n"
           "|---|---|---|---|---|---|---|---|\n");
    for (int i = 0; i < seconds; i++) {
        const double with = Window(true);
        ratios.push_back(with / Window(false));
    }
    PrintHolds("once a second");
    for (const int64_t start = QorMonotonicNsec(); Msec(start) < 1000 * seconds;)
        Take();
    PrintHolds("back to back");
    printf("\nwork of the looping threads with one sample a second / without, median: %.4f\n",
           Percentile(ratios, 0.5));
}

// The old space's objects over and over, as so much memory.
void MeasureCensus(size_t bytes) {
    FillHeap("O objects 20000", 1);
    const size_t filled = vm.old.top - vm.old.bottom;
    auto *memory =
        static_cast<char *>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    size_t at = 0;
    for (; memory != MAP_FAILED && at + filled <= bytes; at += filled)
        memcpy(memory + at, reinterpret_cast<void *>(vm.old.bottom), filled);
    const Word bottom = reinterpret_cast<Word>(memory);
    At(vm.old.structure, &Space::bottom) = bottom;
    At(vm.old.structure, &Space::top) = At(vm.old.structure, &Space::end) = bottom + at;
    const double objects = double(CensusOf(vm.old).all.objects) * double(at / filled),
                 gib = double(at) / (1 << 30);
    printf("| asked for | GiB | million objects | ms | ms a GiB |\n|---|---|---|---|---|\n");
    for (const char *word : {"", "ClassHistogramOnly"}) {
        std::vector<double> times;
        for (int i = 0; i < CALLS_A_TURN; i++) {
            const std::string reply = Ask(std::string("1|showmem|512|") + word);
            const size_t timing = reply.find(TIMING);
            times.push_back(timing == reply.npos ? 0 : atof(reply.c_str() + timing + sizeof TIMING) / 1e3);
        }
        const double median = Percentile(times, 0.5);
        printf("| %s | %.1f | %.1f | %.0f | %.0f |\n", *word ? "classes" : "kinds", gib, objects / 1e6,
               median, median / gib);
    }
}

} // namespace

int main(int count, char **words) {
    const bool census = count > 2 && strcmp(words[1], "census") == 0;
    const int seconds = count > 2 ? atoi(words[2]) : 0;
    Boot({});
    if (!census)
        StartStorm({THREADS, FRAMES, seconds ? LOOPING : 0, FRAMES, false});
    bool started = false;
    RunAsMain([&] {
        started = StartAgent({"", "bench", 1, 1}) == 0;
        if (started && census)
            MeasureCensus(size_t(seconds) << 30);
        else if (started && seconds)
            MeasureHolds(seconds);
        else if (started)
            AnswerTurns();
        Ask("SHUTDOWN");
    });
    if (!census)
        StopStorm();
    return started ? 0 : 1;
}
