// The views of heap and collectors: replies to values.
#pragma once

#include "decode.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qorctl {

struct HeapPool {
    std::string name;
    uint64_t max_kib = 0, used_kib = 0, available_kib = 0;
    unsigned percent = 0; // used, of the greatest size
};

struct Collector {
    std::string name;              // "Major", "Minor" or "Total"
    std::optional<uint64_t> count; // nothing when the JVM doesn't count
};

struct HeapView {
    std::vector<HeapPool> pools;
    std::vector<Collector> collectors;
    std::optional<uint64_t> jvm_microseconds;
};

// One of the JVM's own collectors.
struct CollectorBean {
    std::string name;
    std::optional<uint64_t> count, milliseconds;
};

// Heap as a whole.
struct MemoryView {
    int64_t used_kib = 0, max_kib = 0;
    std::vector<Collector> collectors;
    std::optional<uint64_t> jvm_microseconds;
};

struct ClassCount {
    std::string class_name;
    int64_t instances = 0, kib = 0;
};

struct Histogram {
    std::vector<ClassCount> classes; // largest first, as many as the agent tells: 302 at most
    std::optional<uint64_t> jvm_microseconds;
    std::optional<int64_t> age_seconds; // of figures that were kept for whoever asks next
    bool cut = false;
};

// The pools of the heap, and the collectors.
HeapView DecodeHeap(const Reply &reply);

// The JVM's own collectors; none when the agent doesn't know the question.
std::vector<CollectorBean> DecodeCollectors(std::string_view reply);

// The heap as a whole, and the collectors.
MemoryView DecodeMemory(const Reply &reply);

// The classes that hold the most heap.
Histogram DecodeHistogram(const Reply &reply);

} // namespace qorctl
