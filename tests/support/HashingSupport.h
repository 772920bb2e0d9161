// What the fingerprint tests share: an independent SHA-256, so a reader's slicing is checked against
// plain concatenation, and the identity a file has right now, as the scan would hand it over.
#pragma once
#include "VantleLibrary/FingerprintReader.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <chrono>
#include <filesystem>
#include <string_view>

namespace vantle::testing {

inline Digest sha256(std::string_view bytes) {
    Digest d{};
    EVP_Digest(bytes.data(), bytes.size(), d.data(), nullptr, EVP_sha256(), nullptr);
    return d;
}

inline FingerprintReader::Expected expectedOf(const std::filesystem::path& file) {
    auto s = fileStatus(file);
    EXPECT_TRUE(s) << file;
    return {s->number, s->size, s->modified};
}

// A modification time no test file has, for an identity that must not match.
inline const TimePoint farFuture = std::chrono::sys_days{std::chrono::year{2100} / 1 / 1};

} // namespace vantle::testing
