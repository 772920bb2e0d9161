// Moving an entry from one folder descriptor to another without ever replacing what is at the
// target (renameat2 with RENAME_NOREPLACE), and reading back where an open descriptor really is.
// Free functions; thread-safe.
#pragma once
#include <expected>
#include <string>

namespace vantle {

// Fails with EEXIST when anything, even a dangling link, has the target name; EXDEV across disks.
// The error is the errno.
std::expected<void, int> renameNoReplace(int fromDirFd, const char* fromName, int toDirFd,
                                         const char* toName);

// The path the kernel knows an open descriptor by (its link in /proc/self/fd). The error is the errno.
std::expected<std::string, int> pathOfDescriptor(int fd);

} // namespace vantle
