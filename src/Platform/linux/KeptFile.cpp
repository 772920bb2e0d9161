#include "Platform/KeptFile.h"

#include "Platform/SystemError.h"
#include "Platform/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace vantle {

namespace {
std::string fill(std::string_view sentence, const std::filesystem::path& file, std::string_view key,
                 std::string_view value) {
    std::string out(sentence);
    auto replace = [&](std::string_view name, std::string_view with) {
        if (auto at = out.find(name); at != std::string::npos) out.replace(at, name.size(), with);
    };
    replace("{path}", file.string());
    if (!key.empty()) replace(key, value);
    return out;
}

std::unexpected<KeptFileFailure> failed(KeptFileFailure::Case what, int error, std::string sentence) {
    return std::unexpected(KeptFileFailure{what, error, std::move(sentence)});
}

std::unexpected<KeptFileFailure> unreadable(const std::filesystem::path& file, int error) {
    return failed(KeptFileFailure::Case::unreadable, error,
                  fill(KeptFileFailure::unreadableSentence, file, "{reason}", systemErrorText(error)));
}
} // namespace

std::expected<std::string, KeptFileFailure> readKeptFd(int fd, const std::filesystem::path& file,
                                                       std::size_t boundBytes) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return unreadable(file, errno);
    if (!S_ISREG(st.st_mode))
        return failed(KeptFileFailure::Case::notAFile, 0,
                      fill(KeptFileFailure::notAFileSentence, file, {}, {}));
    auto tooLarge = [&] {
        return failed(KeptFileFailure::Case::tooLarge, 0,
                      fill(KeptFileFailure::tooLargeSentence, file, "{bound}", std::to_string(boundBytes)));
    };
    if (static_cast<std::size_t>(st.st_size) > boundBytes) return tooLarge();

    // The size seen by fstat is only a hint: the file may grow while it is read, so the bound is
    // enforced on the bytes actually read.
    std::string out;
    out.resize(static_cast<std::size_t>(st.st_size) + 1);
    std::size_t have = 0;
    for (;;) {
        if (have == out.size()) {
            if (have > boundBytes) return tooLarge();
            out.resize(std::min(out.size() * 2 + 4096, boundBytes + 1));
        }
        ssize_t n = ::pread(fd, out.data() + have, out.size() - have, static_cast<off_t>(have));
        if (n < 0) {
            if (errno == EINTR) continue;
            return unreadable(file, errno);
        }
        if (n == 0) break;
        have += static_cast<std::size_t>(n);
        if (have > boundBytes) return tooLarge();
    }
    out.resize(have);
    return out;
}

std::expected<std::string, KeptFileFailure> readKeptFile(const std::filesystem::path& file,
                                                         std::size_t boundBytes) {
    UniqueFd fd(::open(file.c_str(), O_RDONLY | keptFileOpenFlags));
    if (!fd) {
        int err = errno;
        if (err == ENOENT)
            return failed(KeptFileFailure::Case::missing, err,
                          fill(KeptFileFailure::unreadableSentence, file, "{reason}", systemErrorText(err)));
        // O_NOFOLLOW on a link at the last component.
        if (err == ELOOP)
            return failed(KeptFileFailure::Case::notAFile, err,
                          fill(KeptFileFailure::notAFileSentence, file, {}, {}));
        return unreadable(file, err);
    }
    return readKeptFd(fd.get(), file, boundBytes);
}

} // namespace vantle
