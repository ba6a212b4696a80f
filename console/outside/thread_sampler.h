// Registers and the top of the stack of a running thread, of one moment, without stopping it: the kernel's
// own timer takes them while the thread runs. Only user code is sampled.
#pragma once

#include "stack_walk.h"

#include <sys/types.h>

namespace qorctl::outside {

struct MomentOfThread {
    Registers registers;
    std::vector<char> stack; // from registers.sp on
};

class ThreadSampler {
public:
    explicit ThreadSampler(pid_t tid);
    ThreadSampler(const ThreadSampler &) = delete;
    ThreadSampler &operator=(const ThreadSampler &) = delete;
    ~ThreadSampler();

    // Why there are no samples, "perf_event_open: Permission denied"; empty when there may be some.
    const std::string &Problem() const { return problem_; }
    bool HasSamples() const;

    // Ends the sampling: what was taken.
    std::vector<MomentOfThread> Take();

private:
    bool Map(size_t pages);
    void Copy(uint64_t at, void *to, size_t size) const;

    int fd_ = -1;
    char *ring_ = nullptr;
    size_t size_ = 0; // of the ring without its first page
    std::string problem_;
};

// The same of a thread that is stopped for it, for where the kernel refuses samples. A child stops it, and is
// ended after 20 ms whatever happens, which lets the thread go. Nothing and `*problem` when that fails.
std::optional<MomentOfThread> StopAndSample(pid_t tid, std::string *problem);

} // namespace qorctl::outside
