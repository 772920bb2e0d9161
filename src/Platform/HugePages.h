// Asks the system to back a large block of this program's memory with large pages where it allows
// them (transparent huge pages in "madvise" mode), before the block is first written: a 100 MB list
// then costs a few dozen page faults instead of tens of thousands. Only the whole large pages inside
// the block are asked for; nothing changes where the system does not allow it. Thread-safe.
#pragma once
#include <cstddef>

namespace vantle {

void adviseHugePages(void* block, std::size_t bytes);

// Grows the heap now, in one large step backed by large pages, and keeps its later growth and its
// lists of up to 32 MiB in large steps inside it, for a one-shot command that makes and drops tens
// of thousands of small records. The step is address space: only what is written becomes memory.
// Other threads allocate from the same heap rather than from pools of their own, which would grow a
// small page at a time. Call once, early, before other threads allocate.
void growHeapInLargePages();

} // namespace vantle
