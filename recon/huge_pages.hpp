// Large work arrays ask for 2 MB pages before their first touch: on the virtual machines the
// library runs on, a fresh array of tens of megabytes otherwise spends more time in page faults
// than the work on it takes. Advice only; without it the pages are small.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace mrkit {

constexpr std::size_t kHugePage = std::size_t{2} << 20;

// Advises huge pages for the whole 2 MB pages inside [p, p + bytes).
inline void advise_huge_pages(void* p, std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t begin = (at + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t end = (at + bytes) & ~(kHugePage - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)p;
    (void)bytes;
#endif
}

}  // namespace mrkit
