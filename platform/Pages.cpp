#include "platform/Pages.h"

#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 // Linux 5.14; older kernels answer EINVAL
#endif

namespace ovalto::platform {

void Pages::populate(void* begin, std::size_t size) {
    // A few pages fault cheaper than the call costs (a live window's reload allocates a few KB).
    constexpr std::size_t worthwhile = 64 * 1024;
    if (size < worthwhile) return;
    static const auto pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    // The pages that hold the range: its first page may hold the allocation's own first bytes,
    // which are as writable as the rest.
    const auto first = reinterpret_cast<std::uintptr_t>(begin) & ~(pageSize - 1);
    const auto end = reinterpret_cast<std::uintptr_t>(begin) + size;
    ::madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE);
}

void Pages::preferHuge(void* begin, std::size_t size) {
    constexpr std::uintptr_t hugePage = std::uintptr_t{2} << 20;
    const auto first = (reinterpret_cast<std::uintptr_t>(begin) + hugePage - 1) & ~(hugePage - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(begin) + size) & ~(hugePage - 1);
    if (end > first) ::madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
}

} // namespace ovalto::platform
