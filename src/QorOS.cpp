#include "QorOS.h"

#include "qorlog.h"
#include "qorsettings.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int BACKTRACE_LIMIT = 200;

// What a request of `size` bytes takes: wherever the allocator puts it, one whole page fits after them.
size_t BlockSize(int32_t size) {
    return static_cast<size_t>(size) + 2 * static_cast<size_t>(getpagesize()) - 1;
}

// The guard of a block: the last whole page in it.
void *GuardPage(void *block, int32_t size) {
    const auto page = static_cast<uintptr_t>(getpagesize());
    const uintptr_t end = reinterpret_cast<uintptr_t>(block) + BlockSize(size);
    return reinterpret_cast<void *>(end / page * page - page);
}

unsigned long Printable(const void *address) {
    return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address));
}

} // namespace

void *QorMalloc(int32_t size) {
    void *block = nullptr;
    if (size > 0)
        block = malloc(BlockSize(size));
    else
        errno = EINVAL;
    if (!block) {
        perror("malloc failed");
        QORLOG(LOG_ERROR, "Malloc failed for size : %d. Requested %d",
               size > 0 ? static_cast<int>(BlockSize(size)) : 0, size);
        return nullptr;
    }
    QORLOG(LOG_DETAIL, "Malloc for %d successful: %lx", size, Printable(block));
    void *guard = GuardPage(block, size);
    if (mprotect(guard, static_cast<size_t>(getpagesize()), PROT_NONE) != 0)
        perror("mprotect failed");
    else
        QORLOG(LOG_TRACE, "mprotect PROT_NONE successful: %lx for size %d", Printable(guard), size);
    return block;
}

void QorFree(void *address, int32_t size) {
    if (!address)
        return;
    void *guard = GuardPage(address, size);
    if (mprotect(guard, static_cast<size_t>(getpagesize()), PROT_READ | PROT_WRITE) != 0) {
        perror("mprotect failed");
        QORLOG(LOG_ERROR, "mprotect PROT_READ|PROT_WRITE failed at %lx for size %d", Printable(guard), size);
        return;
    }
    free(address);
}

int32_t QorLoadLibrary(void **handle, const char *name) {
    *handle = nullptr;
    if (!name) {
        QORLOG(LOG_NOTE, "QorLoadLibrary : Library name is NULL");
        return -1;
    }
    *handle = dlopen(name, RTLD_LAZY);
    if (*handle)
        return 0;
    if (const char *reason = dlerror())
        QORLOG(LOG_NOTE, "LoadLibrary jvm failed %s", reason);
    else
        QORLOG(LOG_NOTE, "LoadLibrary jvm failed ");
    return -1;
}

void *QorFindSymbol(void *handle, const char *name) {
    return handle && name ? dlsym(handle, name) : nullptr; // a null handle would search the whole process
}

int32_t QorCloseLibrary(void *handle) {
    return gbNimbJvm || !handle ? 0 : dlclose(handle);
}

void QorBacktrace() {
    void *addresses[BACKTRACE_LIMIT];
    const int count = backtrace(addresses, BACKTRACE_LIMIT);
    QORLOG(LOG_NOTE, "backtrace() returned %d addresses", count);
    char **symbols = backtrace_symbols(addresses, count);
    if (!symbols) {
        perror("backtrace_symbols");
        return;
    }
    for (int i = 0; i < count; i++)
        QORLOG(LOG_NOTE, "Symbol %s", symbols[i]);
    free(symbols);
}
