// Reading a file once without pushing other files out of memory: which of its pages were in the page
// cache before a read, so that afterwards only the pages the read brought in are let go. Pages that
// were there already (another program's, or an earlier scan's) stay. A value owned by its caller;
// not thread-safe, one per read.
#pragma once
#include <cstdint>
#include <optional>
#include <vector>

namespace vantle {

// The share of the pages that `length` bytes from `offset` in `fd` touch that are in memory now
// (1 for no bytes), from one cachestat; nothing where the kernel cannot say (before Linux 6.5).
std::optional<double> residentShare(int fd, std::int64_t offset, std::int64_t length);

class ResidentPages {
  public:
    // Notes which pages of the first `size` bytes of `fd` are in memory now (cachestat where the
    // kernel has it, mincore over a mapping otherwise). Where neither answers, nothing will be let go.
    static ResidentPages before(int fd, std::int64_t size);

    // Lets go of the pages of `fd` that were not in memory when `before` looked.
    void releaseNew(int fd) const;

    enum class State { none, all, some, unknown };
    State state() const { return state_; }

  private:
    State state_ = State::unknown;
    std::int64_t size_ = 0;
    std::vector<unsigned char> resident_; // one byte a page, for State::some
};

} // namespace vantle
