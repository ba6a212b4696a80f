// Memory of another process, read from outside: it is neither stopped nor changed.
//
// Metadata of classes and code hardly changes, and a system call for each word of it costs a hundred times
// more than the copy, so pages of it are kept for the length of one look. What belongs to a moment (threads,
// stacks, objects, the state of the safepoint) is always read afresh: ReadFresh and the readers named after
// it.
//
// Not for use by several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace qorctl::outside {

using Address = uint64_t;

class Memory {
public:
    virtual ~Memory() = default;

    // Whether all of `size` bytes could be read. Reads within one page are answered from a kept page.
    bool Read(Address from, void *to, size_t size);
    bool ReadFresh(Address from, void *to, size_t size);

    // A value, 0 where it can't be read: to a walk an address of 0 means "not there".
    template <class T>
    T At(Address from) {
        T value = {};
        return Read(from, &value, sizeof value) ? value : T();
    }
    template <class T>
    T FreshAt(Address from) {
        T value = {};
        return ReadFresh(from, &value, sizeof value) ? value : T();
    }
    Address Word(Address from) { return At<Address>(from); }
    Address FreshWord(Address from) { return FreshAt<Address>(from); }

    // A text that ends with a 0 byte, cut at `most` bytes; empty where it can't be read.
    std::string Text(Address from, size_t most);

    // Drops the kept pages: another look begins.
    void ForgetPages() { pages_.clear(); }

protected:
    // Copies memory of the target now; false unless all of it could be.
    virtual bool Fetch(Address from, void *to, size_t size) = 0;

private:
    std::unordered_map<Address, std::vector<char>> pages_; // an empty one can't be read
};

// The memory of a live process.
class ProcessMemory : public Memory {
public:
    explicit ProcessMemory(pid_t pid);
    ProcessMemory(const ProcessMemory &) = delete;
    ~ProcessMemory() override;

    // Why the kernel refuses to read any of it, "process_vm_readv: Operation not permitted"; empty when it
    // doesn't.
    const std::string &Refusal() const { return refusal_; }

protected:
    bool Fetch(Address from, void *to, size_t size) override;

private:
    pid_t pid_;
    std::string refusal_;
    int file_; // /proc/PID/mem, which also reads pages that the process itself may not
};

} // namespace qorctl::outside
