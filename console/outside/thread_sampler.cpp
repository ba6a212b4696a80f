#include "thread_sampler.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/perf_event.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qorctl::outside {

namespace {

constexpr uint64_t PERIOD_NS = 2000000;
constexpr uint32_t STACK_BYTES = 8192;
constexpr size_t RING_PAGE = 4096, MANY_PAGES = 64, FEW_PAGES = 16; // users other than root may map few
constexpr size_t LARGEST_RECORD = 16384;
constexpr int STOP_MS = 20;

// The kernel's numbers of the registers; it stores them in this order.
constexpr uint64_t REGISTERS = 1 << 6 | 1 << 7 | 1 << 8 | 1 << 21; // bp, sp, ip, r13
enum Word { HEADER, ABI, BP, SP, IP, R13, STACK_SIZE, STACK };

perf_event_attr Attributes() {
    perf_event_attr attributes = {};
    attributes.type = PERF_TYPE_SOFTWARE;
    attributes.size = sizeof attributes;
    attributes.config = PERF_COUNT_SW_TASK_CLOCK;
    attributes.sample_period = PERIOD_NS;
    attributes.sample_type = PERF_SAMPLE_REGS_USER | PERF_SAMPLE_STACK_USER;
    attributes.sample_regs_user = REGISTERS;
    attributes.sample_stack_user = STACK_BYTES;
    attributes.exclude_kernel = 1;
    attributes.exclude_hv = 1;
    return attributes;
}

std::optional<MomentOfThread> Decode(const std::vector<uint64_t> &record) {
    if (record.size() <= STACK || record[ABI] != PERF_SAMPLE_REGS_ABI_64)
        return std::nullopt;
    MomentOfThread moment;
    moment.registers = {record[IP], record[SP], record[BP], record[R13]};
    // The bytes asked for, then how many of them there are.
    const uint64_t size = std::min<uint64_t>(record[STACK_SIZE], 8 * (record.size() - STACK - 1));
    const uint64_t there = size != 0 ? std::min(record[STACK + size / 8], size) : 0;
    const char *bytes = reinterpret_cast<const char *>(&record[STACK]);
    moment.stack.assign(bytes, bytes + there);
    return moment;
}

struct StoppedThread {
    user_regs_struct registers;
    size_t size;
    char stack[STACK_BYTES];
};

// In the child: the timer's signal ends it at the limit, and the kernel lets a thread go whose tracer has
// ended.
void StopInChild(pid_t tid, int out) {
    static StoppedThread stopped;
    signal(SIGALRM, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const itimerval limit = {{0, 0}, {0, STOP_MS * 1000}};
    setitimer(ITIMER_REAL, &limit, nullptr);
    if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) != 0)
        _exit(errno);
    int status = 0;
    if (ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr) != 0 || waitpid(tid, &status, __WALL) != tid ||
        ptrace(PTRACE_GETREGS, tid, nullptr, &stopped.registers) != 0)
        _exit(errno);
    iovec local{stopped.stack, STACK_BYTES},
        remote{reinterpret_cast<void *>(stopped.registers.rsp), STACK_BYTES};
    stopped.size = static_cast<size_t>(std::max<ssize_t>(process_vm_readv(tid, &local, 1, &remote, 1, 0), 0));
    // It may have stopped for a signal that came first: without this the signal would be lost.
    const long signal_of_its_own = status >> 16 == 0 ? WSTOPSIG(status) : 0;
    ptrace(PTRACE_DETACH, tid, nullptr, signal_of_its_own);
    _exit(write(out, &stopped, sizeof stopped) == sizeof stopped ? 0 : EIO);
}

} // namespace

ThreadSampler::ThreadSampler(pid_t tid) {
    perf_event_attr attributes = Attributes();
    fd_ = static_cast<int>(syscall(SYS_perf_event_open, &attributes, tid, -1, -1, PERF_FLAG_FD_CLOEXEC));
    if (fd_ < 0 || !(Map(MANY_PAGES) || Map(FEW_PAGES)))
        problem_ = std::string("perf_event_open: ") + strerror(errno);
}

ThreadSampler::~ThreadSampler() {
    if (ring_)
        munmap(ring_, RING_PAGE + size_);
    if (fd_ >= 0)
        close(fd_);
}

bool ThreadSampler::Map(size_t pages) {
    void *ring = mmap(nullptr, RING_PAGE * (1 + pages), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    ring_ = ring == MAP_FAILED ? nullptr : static_cast<char *>(ring);
    size_ = RING_PAGE * pages;
    return ring_ != nullptr;
}

bool ThreadSampler::HasSamples() const {
    return ring_ && __atomic_load_n(&reinterpret_cast<perf_event_mmap_page *>(ring_)->data_head,
                                    __ATOMIC_ACQUIRE) != 0;
}

void ThreadSampler::Copy(uint64_t at, void *to, size_t size) const {
    for (size_t i = 0; i < size; ++i)
        static_cast<char *>(to)[i] = ring_[RING_PAGE + (at + i) % size_];
}

std::vector<MomentOfThread> ThreadSampler::Take() {
    std::vector<MomentOfThread> moments;
    if (!ring_)
        return moments;
    ioctl(fd_, PERF_EVENT_IOC_DISABLE, 0);
    const auto *page = reinterpret_cast<perf_event_mmap_page *>(ring_);
    const uint64_t end = __atomic_load_n(&page->data_head, __ATOMIC_ACQUIRE);
    for (uint64_t at = page->data_tail; at < end;) {
        perf_event_header header;
        Copy(at, &header, sizeof header);
        if (header.size < sizeof header || header.size > LARGEST_RECORD)
            break;
        std::vector<uint64_t> record(header.size / 8);
        Copy(at, record.data(), record.size() * 8);
        if (header.type == PERF_RECORD_SAMPLE)
            if (std::optional<MomentOfThread> moment = Decode(record))
                moments.push_back(std::move(*moment));
        at += header.size;
    }
    return moments;
}

std::optional<MomentOfThread> StopAndSample(pid_t tid, std::string *problem) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        *problem = std::string("pipe: ") + strerror(errno);
        return std::nullopt;
    }
    const pid_t child = fork();
    *problem = child < 0 ? std::string("fork: ") + strerror(errno) : "";
    if (child == 0)
        StopInChild(tid, ends[1]);
    close(ends[1]);
    static StoppedThread stopped;
    size_t got = 0;
    for (ssize_t n = 1; child > 0 && got < sizeof stopped && n > 0; got += n > 0 ? static_cast<size_t>(n) : 0)
        n = read(ends[0], reinterpret_cast<char *>(&stopped) + got, sizeof stopped - got);
    close(ends[0]);
    int status = 0;
    if (child > 0)
        waitpid(child, &status, 0);
    if (got == sizeof stopped) {
        MomentOfThread moment;
        moment.registers = {stopped.registers.rip, stopped.registers.rsp, stopped.registers.rbp,
                            stopped.registers.r13};
        moment.stack.assign(stopped.stack, stopped.stack + std::min<size_t>(stopped.size, STACK_BYTES));
        return moment;
    }
    if (child > 0)
        *problem = WIFEXITED(status) ? std::string("ptrace: ") + strerror(WEXITSTATUS(status))
                                     : "it didn't stop within 20 ms";
    return std::nullopt;
}

} // namespace qorctl::outside
