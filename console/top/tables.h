// What `qorctl top` shows of a sample: tables of threads, locks, statements and URLs.
#pragma once

#include "base/terminal.h"
#include "wire/decode.h"
#include "wire/memory.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qorctl {

using TopClock = std::chrono::steady_clock;

// What a thread did a second, between two samples.
struct ThreadRates {
    std::optional<double> cpu_percent;     // of one processor
    std::optional<double> allocated_bytes; // a second
};

// Rates of threads, from their figures in one sample after another.
class RateMeter {
public:
    // Takes the next sample. A thread that is new in it has no rates yet.
    void Add(const ThreadSample &sample, TopClock::time_point time);
    ThreadRates Of(const ThreadKey &key) const;

private:
    struct Reading {
        TopClock::time_point time;
        std::optional<int64_t> cpu_nanoseconds, allocated_bytes;
        ThreadRates rates;
    };
    std::map<int64_t, Reading> readings_; // by thread id
};

enum class TopView { THREADS, LOCKS, SQL, URLS };
enum class TopOrder { CPU, ALLOCATION, NAME, STATE, ID };

struct TopRow {
    std::string id;         // the selection stays with it
    std::string thread_key; // whose stack it opens; empty: nobody's
    std::string state;      // its colour
    std::vector<Cell> cells;
};

struct TopTable {
    std::vector<Column> columns;
    std::vector<TopRow> rows;
};

struct TopChoice {
    TopView view = TopView::THREADS;
    TopOrder order = TopOrder::CPU;
    bool backwards = false;
    std::string filter; // only rows that hold this text, in any case
};

// The table of a view, sorted and filtered. The order is that of threads; the other views begin with what
// most threads share.
TopTable MakeTopTable(const ThreadSample &sample, const RateMeter &rates, const TopChoice &choice);

// "12 Runnable  3 Lock ...": how many threads are in each state that any is in.
std::string StateCounts(const Summary &summary);

// Processors, heap and collections as one line; `before` are the collectors of the previous answer, if there
// was one.
std::string MachineLine(const Summary &summary, const std::vector<CollectorBean> &collectors,
                        const std::vector<CollectorBean> &before);

} // namespace qorctl
