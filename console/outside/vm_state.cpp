#include "vm_state.h"

#include <ctime>

namespace qorctl::outside {

namespace {

constexpr const char *PHASE = "_ZN20SafepointSynchronize6_stateE";
constexpr const char *COUNTER = "_ZN20SafepointSynchronize18_safepoint_counterE";
constexpr const char *WAITING = "_ZN20SafepointSynchronize17_waiting_to_blockE";
constexpr const char *BEGIN_TIME = "_ZN16SafepointTracing29_last_safepoint_begin_time_nsE";
// JDK 11 keeps it as the time since the JVM's start, and that.
constexpr const char *BEGIN_SINCE_START = "_ZN14RuntimeService16_safepoint_timerE",
                     *START = "_ZL18initial_time_count";
constexpr const char *OPERATION = "_ZN8VMThread17_cur_vm_operationE";
constexpr Address OPERATION_CALLER = 8; // after the pointer to its class's table
constexpr double YEAR = 365.0 * 86400;

std::optional<double> SecondsSince(int64_t begin_ns) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const double seconds = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 -
                           static_cast<double>(begin_ns) / 1e9;
    return begin_ns > 0 && seconds >= 0 && seconds < YEAR ? std::optional(seconds) : std::nullopt;
}

// 0 when it isn't known.
int64_t BeginTime(Memory &memory, const VmSymbols &symbols) {
    if (symbols.Find(BEGIN_TIME) != 0)
        return memory.FreshAt<int64_t>(symbols.Find(BEGIN_TIME));
    const auto since_start = memory.FreshAt<int64_t>(symbols.Find(BEGIN_SINCE_START));
    const auto start = memory.FreshAt<int64_t>(symbols.Find(START));
    int64_t begin = 0;
    return since_start > 0 && start > 0 && !__builtin_add_overflow(since_start, start, &begin) ? begin : 0;
}

} // namespace

SafepointState ReadSafepoint(Memory &memory, const VmTable &table, const VmSymbols &symbols) {
    SafepointState state;
    int phase = 0, waiting = 0;
    uint32_t counter = 0; // all of it, or its lower half
    if (memory.ReadFresh(symbols.Find(PHASE), &phase, sizeof phase) &&
        memory.ReadFresh(symbols.Find(COUNTER), &counter, sizeof counter)) {
        state.phase = phase;
        state.counter = counter;
    }
    if (memory.ReadFresh(symbols.Find(WAITING), &waiting, sizeof waiting))
        state.waiting_for = waiting;

    if (const Address operation = memory.FreshWord(symbols.Find(OPERATION))) {
        const std::string name = symbols.ClassAt(memory.FreshWord(operation));
        state.operation = name.empty() ? "of an unknown kind" : name;
        state.asked_by = memory.FreshWord(operation + OPERATION_CALLER);
    }
    if (state.phase.value_or(NO_SAFEPOINT) != NO_SAFEPOINT)
        state.seconds = SecondsSince(BeginTime(memory, symbols));
    uint8_t collects = 0;
    const Address heap = memory.FreshWord(table.Static(Vm::HEAP));
    if (heap != 0 && memory.ReadFresh(table.In(heap, Vm::HEAP_COLLECTS), &collects, 1))
        state.collects = collects != 0;
    return state;
}

} // namespace qorctl::outside
