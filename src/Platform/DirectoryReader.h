// Reads a folder's entries in bulk with getdents64 on a descriptor the caller opened (the Linux
// counterpart of a bulk folder read). Yields name, inode and the type the file system reports
// (DT_UNKNOWN means: ask statx). "." and ".." are never yielded. One reader per thread.
#pragma once
#include <cstdint>
#include <memory>
#include <string_view>

namespace vantle {

class DirectoryReader {
  public:
    struct Entry {
        std::string_view name; // valid until the next call to next()
        std::uint64_t inode = 0;
        unsigned char type = 0; // DT_REG, DT_DIR, DT_LNK, ... or DT_UNKNOWN
    };

    // Does not take ownership of `dirFd`; reads from its current offset.
    explicit DirectoryReader(int dirFd, size_t bufferBytes = 64 * 1024);
    ~DirectoryReader();

    // False at the end or on an error; error() tells which (0 at the end).
    bool next(Entry& entry);
    int error() const { return error_; }

  private:
    int fd_;
    std::unique_ptr<char[]> buffer_;
    size_t capacity_;
    size_t filled_ = 0;
    size_t offset_ = 0;
    int error_ = 0;
};

} // namespace vantle
