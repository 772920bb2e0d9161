#include "Platform/DirectoryReader.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantle {

namespace {
struct LinuxDirent64 {
    std::uint64_t d_ino;
    std::int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[];
};
} // namespace

DirectoryReader::DirectoryReader(int dirFd, size_t bufferBytes)
    : fd_(dirFd), buffer_(new char[bufferBytes]), capacity_(bufferBytes) {}

DirectoryReader::~DirectoryReader() = default;

bool DirectoryReader::next(Entry& entry) {
    for (;;) {
        if (offset_ >= filled_) {
            long n = ::syscall(SYS_getdents64, fd_, buffer_.get(), capacity_);
            if (n < 0) {
                if (errno == EINTR) continue;
                error_ = errno;
                return false;
            }
            if (n == 0) return false;
            filled_ = static_cast<size_t>(n);
            offset_ = 0;
        }
        auto* d = reinterpret_cast<LinuxDirent64*>(buffer_.get() + offset_);
        offset_ += d->d_reclen;
        const char* name = d->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        entry.name = std::string_view(name, std::strlen(name));
        entry.inode = d->d_ino;
        entry.type = d->d_type;
        return true;
    }
}

} // namespace vantle
