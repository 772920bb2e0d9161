// The space still free for the user on the volume a descriptor lies on (fstatvfs), read before and
// after freeing so the gain reported is what the disk itself shows. A free function; thread-safe.
#pragma once
#include <cstdint>
#include <expected>

namespace vantle {

// Bytes an unprivileged user could still write there. The error is the errno.
std::expected<std::uint64_t, int> freeBytesOn(int fd);

} // namespace vantle
