#include "Platform/HugePages.h"

#include <cstdint>
#include <sys/mman.h>

namespace vantle {

void adviseHugePages(void* block, std::size_t bytes) {
    constexpr std::uintptr_t huge = std::uintptr_t{2} << 20;
    auto begin = reinterpret_cast<std::uintptr_t>(block);
    auto first = (begin + huge - 1) & ~(huge - 1);
    auto last = (begin + bytes) & ~(huge - 1);
    if (last <= first) return;
    ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

} // namespace vantle
