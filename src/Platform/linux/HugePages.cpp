#include "Platform/HugePages.h"

#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vantle {

void adviseHugePages(void* block, std::size_t bytes) {
    constexpr std::uintptr_t huge = std::uintptr_t{2} << 20;
    auto begin = reinterpret_cast<std::uintptr_t>(block);
    auto first = (begin + huge - 1) & ~(huge - 1);
    auto last = (begin + bytes) & ~(huge - 1);
    if (last <= first) return;
    ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

void growHeapInLargePages() {
    ::mallopt(M_ARENA_MAX, 1);
    ::mallopt(M_MMAP_THRESHOLD, 32 << 20);
    ::mallopt(M_TOP_PAD, 128 << 20);
    ::mallopt(M_TRIM_THRESHOLD, 256 << 20);
    auto* before = static_cast<char*>(::sbrk(0));
    // Makes the heap grow now, by the block and the pad; volatile so the pair is not left out.
    void* volatile block = std::malloc(1 << 20);
    std::free(block);
    auto* after = static_cast<char*>(::sbrk(0));
    if (before != reinterpret_cast<char*>(-1) && after > before)
        adviseHugePages(before, static_cast<std::size_t>(after - before));
}

} // namespace vantle
