#include "VantleLibrary/SmallFileHasher.h"

#include <openssl/evp.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace vantle {

struct SmallFileHasher::Digester {
    EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    EVP_MD_CTX* sample = EVP_MD_CTX_new();
    EVP_MD_CTX* full = EVP_MD_CTX_new();
    ~Digester() {
        EVP_MD_CTX_free(full);
        EVP_MD_CTX_free(sample);
        EVP_MD_free(sha256);
    }
    const EVP_MD* md() const { return sha256 ? sha256 : EVP_sha256(); }
};

SmallFileHasher::SmallFileHasher()
    : buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(wholeInOneReadBytes)),
      digester_(std::make_unique<Digester>()) {}

SmallFileHasher::~SmallFileHasher() = default;

std::expected<SmallFileDigests, FingerprintReader::Miss>
SmallFileHasher::hash(int dirFd, const char* name, const FingerprintReader::Expected& expected) {
    using Miss = FingerprintReader::Miss;
    if (expected.size < 0 || expected.size > wholeInOneReadBytes) return std::unexpected(Miss::changedBefore);
    auto opened = FingerprintReader::openExpected(dirFd, name, expected);
    if (!opened) return std::unexpected(opened.error());
    const auto& fd = opened->fd;

    // A file that grows or shrinks under the read is caught by the status taken after it.
    const auto size = static_cast<size_t>(expected.size);
    size_t got = 0;
    while (got < size) {
        auto n = ::pread(fd.get(), buffer_.get() + got, size - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    bytesRead_ += static_cast<std::int64_t>(got);
    if (got < size) return std::unexpected(Miss::shortRead);

    SmallFileDigests out{};
    auto* sample = digester_->sample;
    EVP_DigestInit_ex(sample, digester_->md(), nullptr);
    if (expected.size <= sampleSliceBytes) {
        // The three slices of a one-slice file are the file three times over, so the sample's digest
        // holds the whole file's after its first slice: a copy of that state is the whole-file hash
        // for the price of a few hundred bytes.
        EVP_DigestUpdate(sample, buffer_.get(), size);
        auto* full = digester_->full;
        EVP_MD_CTX_copy_ex(full, sample);
        EVP_DigestFinal_ex(full, out.full.emplace().data(), nullptr);
        EVP_DigestUpdate(sample, buffer_.get(), size);
        EVP_DigestUpdate(sample, buffer_.get(), size);
    } else {
        // Past one slice a whole-file hash would cost up to as much as the sample again for every
        // file, while only the few that share a sample need it.
        for (auto [offset, length] : sampleRanges(expected.size))
            EVP_DigestUpdate(sample, buffer_.get() + offset, static_cast<size_t>(length));
    }
    EVP_DigestFinal_ex(sample, out.sample.data(), nullptr);

    if (!FingerprintReader::unchangedSinceOpened(*opened)) return std::unexpected(Miss::changedDuring);
    return out;
}

} // namespace vantle
