// The commands about heap and collectors.
#include "command_tools.h"
#include "memory.h"
#include "render_memory.h"
#include "request.h"

namespace qorctl {

namespace {

HeapView AskForHeap(const Settings &settings, pid_t pid, bool repeated) {
    std::string reply = AskOnce(settings, pid, HeapRequest(repeated));
    return DecodeHeap(OpenReply(reply));
}

MemoryView AskForMemory(const Settings &settings, pid_t pid, bool repeated) {
    std::string reply = AskOnce(settings, pid, MemoryRequest(repeated));
    return DecodeMemory(OpenReply(reply));
}

} // namespace

void RunHeap(const Settings &settings, pid_t pid, double watch) {
    int line = 0;
    Repeat(watch, [&] {
        MemoryView memory = AskForMemory(settings, pid, watch > 0);
        if (watch > 0 && !settings.json) {
            Print((line++ % HEADER_EVERY == 0 ? HeapHeader() : "") + HeapLine(memory));
            return;
        }
        HeapView heap = AskForHeap(settings, pid, watch > 0);
        PrintView(settings, watch, HeapJson(heap, memory), HeapText(heap, memory, TerminalStyle(settings)));
    });
}

void RunGc(const Settings &settings, pid_t pid, double watch) {
    int line = 0;
    std::vector<Collector> before;
    Repeat(watch, [&] {
        HeapView heap = AskForHeap(settings, pid, watch > 0);
        if (watch <= 0 || settings.json) {
            auto beans = DecodeCollectors(AskOnce(settings, pid, CollectorsRequest(watch > 0)));
            PrintView(settings, watch, CollectorsJson(heap, beans),
                      CollectorTable(heap.collectors, beans, TerminalStyle(settings)));
        } else
            Print((line++ % HEADER_EVERY == 0 ? CollectorHeader(heap.collectors) : "") +
                  CollectorLine(heap.collectors, before));
        before = heap.collectors;
    });
}

void RunHistogram(const Settings &settings, pid_t pid, int top, double watch) {
    Repeat(watch, [&] {
        std::string reply = AskOnce(settings, pid, HistogramRequest());
        Histogram histogram = DecodeHistogram(OpenReply(reply));
        size_t rows = static_cast<size_t>(top);
        PrintView(settings, watch, HistogramJson(histogram, rows),
                  HistogramText(histogram, rows, TerminalStyle(settings)));
    });
}

} // namespace qorctl
