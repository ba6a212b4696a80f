// The commands about heap and collectors.
#include "base/failure.h"
#include "budget.h"
#include "command_tools.h"
#include "copy.h"
#include "jvm/session.h"
#include "show/render_memory.h"
#include "wire/memory.h"
#include "wire/protocol.h"
#include "wire/request.h"

#include <fmt/format.h>

namespace qorctl {

namespace {

HeapView AskForHeap(const Settings &settings, pid_t pid, bool repeated) {
    std::string reply = AskOnce(settings, pid, HeapRequest(repeated));
    return DecodeHeap(OpenReply(reply));
}

// The heap as a whole by the reading that the pools are of: the one before is a moment older.
void TakePools(const HeapView &heap, MemoryView *memory) {
    if (heap.pools.empty())
        return;
    memory->used_kib = memory->max_kib = 0;
    for (const HeapPool &pool : heap.pools) {
        memory->used_kib += static_cast<int64_t>(pool.used_kib);
        memory->max_kib += static_cast<int64_t>(pool.max_kib);
    }
}

MemoryView AskForMemory(const Settings &settings, pid_t pid, bool repeated) {
    std::string reply = AskOnce(settings, pid, MemoryRequest(repeated));
    return DecodeMemory(OpenReply(reply));
}

// Asks until the figures are there: a copy of the JVM may count for longer than a request can take.
std::string AskForHistogram(Connection *connection, const Settings &settings, uint32_t copy_flags) {
    for (bool counts = false;; counts = true) {
        try {
            std::string reply = AskCosted(settings, connection, HistogramRequest(copy_flags));
            if (reply.compare(0, HISTOGRAM_LATE.size(), HISTOGRAM_LATE) != 0)
                return reply;
        } catch (const Failure &) {
            if (!counts || Clock::now() < settings.Due().at)
                throw;
            throw Failure("the copy of the JVM still counts",
                          "ask again within ten minutes; --timeout waits for longer");
        }
    }
}

} // namespace

void RunHeap(Settings settings, pid_t pid, double watch) {
    int line = 0;
    Repeat(&settings, watch, [&] {
        MemoryView memory = AskForMemory(settings, pid, watch > 0);
        if (watch > 0 && !settings.json) {
            Print((line++ % HEADER_EVERY == 0 ? HeapHeader() : "") + HeapLine(memory) + CostText(settings));
            return;
        }
        HeapView heap = {memory.pools, memory.collectors, memory.jvm_microseconds};
        if (heap.pools.empty()) {
            heap = AskForHeap(settings, pid, watch > 0);
            TakePools(heap, &memory);
        }
        PrintView(settings, watch, HeapJson(heap, memory), HeapText(heap, memory, TerminalStyle(settings)));
    });
}

void RunHeapKinds(Settings settings, pid_t pid, double watch) {
    Repeat(&settings, watch, [&] {
        std::string text = AskOnce(settings, pid, KindsRequest(watch > 0));
        std::vector<SpaceKinds> spaces = DecodeKinds(OpenReply(text));
        PrintView(settings, watch, KindsJson(spaces), KindsText(spaces, TerminalStyle(settings)));
    });
}

void RunGc(Settings settings, pid_t pid, double watch) {
    int line = 0;
    std::vector<Collector> before;
    Repeat(&settings, watch, [&] {
        MemoryView heap = AskForMemory(settings, pid, watch > 0);
        if (watch <= 0 || settings.json) {
            auto beans = DecodeCollectors(AskOnce(settings, pid, CollectorsRequest(watch > 0)));
            PrintView(settings, watch, CollectorsJson(heap, beans),
                      CollectorTable(heap.collectors, beans, TerminalStyle(settings)));
        } else
            Print((line++ % HEADER_EVERY == 0 ? CollectorHeader(heap.collectors) : "") +
                  CollectorLine(heap.collectors, before) + CostText(settings));
        before = heap.collectors;
    });
}

void RunHistogram(Settings settings, pid_t pid, int top, bool stop, double watch) {
    Repeat(&settings, watch, [&] {
        const std::string why_copy = WhyByCopy(settings, pid);
        Connection connection = RequireAgent(settings, RequireProcess(pid));
        CopyChoice copy = AskForCopy(&connection, settings, "histogram", stop && why_copy.empty());
        if (!why_copy.empty() && !copy.copied)
            throw Failure(fmt::format("only a copy of the JVM would keep to the budget: {}", copy.why),
                          "raise --budget, or leave it out");
        if (!why_copy.empty())
            fmt::print(stderr, "qorctl: by a copy, to keep to the budget: {}\n", why_copy);
        std::string reply = AskForHistogram(&connection, settings, copy.flags);
        Histogram histogram = DecodeHistogram(OpenReply(reply));
        size_t rows = static_cast<size_t>(top);
        Json json = HistogramJson(histogram, rows);
        json["copied"] = copy.copied;
        PrintView(settings, watch, json,
                  HistogramText(histogram, rows, TerminalStyle(settings)) + copy.Note());
    });
}

} // namespace qorctl
