/*
 * Stacks with guard pages: an anonymous mapping of the usable size (whole
 * pages) plus one guard page on each side, the usable part filled with the
 * stack marker. Releasing one gives its memory back to the system at once.
 */
#include <errno.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include "abstraction/kvos_task.h"
#include "linux/kvos_log.h"

namespace {

size_t roundToPages(size_t size)
{
    size_t p = get_pagesize();
    return size == 0 ? p : (size + p - 1) / p * p;
}

}  // namespace

size_t get_pagesize(void)
{
    static const size_t pagesize = [] {
        long p = sysconf(_SC_PAGESIZE);
        if (p == -1) {
            KVLOG_ERROR(kvos_logger(), kvp("Detail", "Call to sysconf(_SC_PAGESIZE) failed. Setting pagesize to 4k."));
            return static_cast<size_t>(4096);
        }
        return static_cast<size_t>(p);
    }();
    return pagesize;
}

void* allocate_stack(size_t size)
{
    size_t p = get_pagesize();
    size_t usable = roundToPages(size);
    if (usable < size || usable > SIZE_MAX - 2 * p) {
        errno = ENOMEM;
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Allocation of stack failed"));
        errno = ENOMEM;
        return nullptr;
    }
    void* block = mmap(nullptr, usable + 2 * p, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK,
                       -1, 0);
    if (block == MAP_FAILED) {
        int err = errno;
        KVLOG_ERROR(kvos_logger(), kvp("Detail", "Allocation of stack failed"));
        errno = err;
        return nullptr;
    }
    auto* base = static_cast<char*>(block);
    mprotect(base, p, PROT_NONE);
    mprotect(base + p + usable, p, PROT_NONE);
    auto* word = reinterpret_cast<uint32_t*>(base + p);
    for (size_t i = 0; i < usable / sizeof(uint32_t); ++i) {
        word[i] = KVOS_STACK_MARKER;
    }
    return base + p;
}

void deallocate_stack(void* stack, size_t size)
{
    if (stack == nullptr) {
        return;
    }
    size_t p = get_pagesize();
    size_t usable = roundToPages(size);
    auto* base = static_cast<char*>(stack) - p;
    mprotect(base, p, PROT_READ | PROT_WRITE);
    mprotect(base + p + usable, p, PROT_READ | PROT_WRITE);
    munmap(base, usable + 2 * p);
}
