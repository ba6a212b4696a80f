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
    std::vector<HeapPool> pools; // of a JVM read by address
    std::vector<Collector> collectors;
    std::optional<uint64_t> jvm_microseconds;
};

// What a space holds, by kinds of objects: classes, methods, instances, arrays, constant pools, symbols,
// holders of compiled calls, and what is of none of these.
enum : size_t { KINDS = 8, OTHER_KINDS = 7 };
constexpr std::string_view KIND_NAMES[KINDS] = {"classes", "methods", "instances", "arrays",
                                                "pools",   "symbols", "holders",   "other"};

struct SpaceKinds {
    std::string name;
    int64_t used_kib = 0, max_kib = 0, objects = 0;
    int64_t kib[KINDS] = {}, count[KINDS] = {}; // the size of the last isn't reported
};

struct ClassCount {
    std::string class_name;
    int64_t instances = 0, kib = 0;
};

struct Histogram {
    std::vector<ClassCount> classes; // largest first, as many as the agent reports: 302 at most
    std::optional<uint64_t> jvm_microseconds;
    std::optional<int64_t> age_seconds; // of figures that were kept for whoever asks next
    bool cut = false;
};

// The pools of the heap, and the collectors.
HeapView DecodeHeap(const Reply &reply);

// The JVM's own collectors; none when the agent doesn't know the question.
std::vector<CollectorBean> DecodeCollectors(std::string_view reply);

// The heap as a whole, and the collectors. Of a JVM read by address its spaces too.
MemoryView DecodeMemory(const Reply &reply);

// The spaces of a JVM read by address and what they hold; another JVM doesn't count that.
std::vector<SpaceKinds> DecodeKinds(const Reply &reply);

// The classes that hold the most heap.
Histogram DecodeHistogram(const Reply &reply);

} // namespace qorctl
