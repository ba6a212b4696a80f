// Heap and collectors to text and JSON.
#pragma once

#include "base/terminal.h"
#include "json.h"
#include "wire/memory.h"

namespace qorctl {

constexpr int64_t KIB = 1024;

// A size for people: "512 K", "11.8 M", "5.9 G".
std::string SizeText(int64_t bytes);

// A count for people, with commas.
std::string CountText(int64_t count);

// A clock time, now.
std::string ClockText();

std::string HeapText(const HeapView &heap, const MemoryView &memory, const Style &style);
Json HeapJson(const HeapView &heap, const MemoryView &memory);

// What the spaces hold.
std::string KindsText(const std::vector<SpaceKinds> &spaces, const Style &style);
Json KindsJson(const std::vector<SpaceKinds> &spaces);

// One line of a series, and the line that names its columns.
std::string HeapHeader();
std::string HeapLine(const MemoryView &memory);

// The kinds of collections, and the JVM's own collectors with their times.
std::string CollectorTable(const std::vector<Collector> &kinds, const std::vector<CollectorBean> &beans,
                           const Style &style);
Json CollectorsJson(const MemoryView &heap, const std::vector<CollectorBean> &beans);

// One line of a series: counts, and how many were added since the line before.
std::string CollectorHeader(const std::vector<Collector> &collectors);
std::string CollectorLine(const std::vector<Collector> &now, const std::vector<Collector> &before);

std::string HistogramText(const Histogram &histogram, size_t top, const Style &style);
Json HistogramJson(const Histogram &histogram, size_t top);

} // namespace qorctl
