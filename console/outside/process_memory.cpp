#include "process_memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

namespace qorctl::outside {

namespace {

constexpr Address PAGE = 4096;
constexpr size_t MOST_PAGES = 16384;
constexpr size_t LARGEST_KEPT = 256; // larger reads are made once, as a whole

} // namespace

bool Memory::Read(Address from, void *to, size_t size) {
    const Address page = from & ~(PAGE - 1);
    if (size == 0)
        return true; // with nothing to copy to
    if (size > LARGEST_KEPT || from - page + size > PAGE)
        return ReadFresh(from, to, size);
    if (pages_.size() >= MOST_PAGES)
        pages_.clear();
    auto [kept, is_new] = pages_.try_emplace(page);
    if (is_new) {
        kept->second.resize(PAGE);
        if (!ReadFresh(page, kept->second.data(), PAGE))
            kept->second.clear();
    }
    if (kept->second.empty())
        return false;
    memcpy(to, kept->second.data() + (from - page), size);
    return true;
}

bool Memory::ReadFresh(Address from, void *to, size_t size) {
    return from >= PAGE && from + size > from && Fetch(from, to, size);
}

std::string Memory::Text(Address from, size_t most) {
    std::string text;
    while (from != 0 && text.size() < most) {
        char part[64];
        const size_t size = sizeof part - from % sizeof part; // never across a page's end
        if (!Read(from, part, size))
            return "";
        const size_t length = strnlen(part, size);
        text.append(part, std::min(length, most - text.size()));
        if (length < size)
            break;
        from += size;
    }
    return text;
}

ProcessMemory::ProcessMemory(pid_t pid)
    : pid_(pid), file_(open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDONLY | O_CLOEXEC)) {}

ProcessMemory::~ProcessMemory() {
    if (file_ >= 0)
        close(file_);
}

bool ProcessMemory::Fetch(Address from, void *to, size_t size) {
    iovec local{to, size}, remote{reinterpret_cast<void *>(from), size};
    const ssize_t got = process_vm_readv(pid_, &local, 1, &remote, 1, 0);
    if (got == static_cast<ssize_t>(size))
        return true;
    if (got < 0 && (errno == EPERM || errno == ENOSYS))
        refusal_ = std::string("process_vm_readv: ") + strerror(errno);
    if (file_ >= 0 && pread(file_, to, size, static_cast<off_t>(from)) == static_cast<ssize_t>(size)) {
        refusal_.clear();
        return true;
    }
    return false;
}

} // namespace qorctl::outside
