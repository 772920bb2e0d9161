// SHA-256 that can hash two messages at once. On a processor with the SHA extensions the blocks of
// two independent messages are interleaved: each round instruction waits on the one before it in
// its own message, so a second message fills those waits (1.5 times the bytes a second of one
// message alone, on the machines we measured). No library in the distribution hashes two messages
// together, hence our own rounds; one message alone runs as fast as OpenSSL's. Without the
// extensions, or when asked for by name, OpenSSL does all of it. A value: a copy carries the hash of
// what was given so far.
#pragma once
#include "VantleLibrary/Fingerprint.h"

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>

struct evp_md_ctx_st;

namespace vantle {

class Sha256 {
  public:
    // The library's SHA-256 can be asked for by name, so that both are checked on any machine.
    enum class Engine { fastest, library };
    explicit Sha256(Engine engine = Engine::fastest);
    ~Sha256();
    Sha256(const Sha256& other);
    Sha256& operator=(const Sha256& other);

    // Forgets what was given: the start of a new message.
    void restart();
    void update(std::span<const std::uint8_t> bytes);
    // The digest of everything given since the last restart. Restart before giving more.
    Digest finish();

    // Hashes the front of `x` into `a` and of `y` into `b`, as much as can be hashed together, and says
    // how many bytes of each it took: some of at least one of them, unless both are empty.
    static std::pair<size_t, size_t> updateTogether(Sha256& a, std::span<const std::uint8_t> x, Sha256& b,
                                                    std::span<const std::uint8_t> y);
    // Two streams of messages hashed side by side, one into `a` and one into `b`: `more(lane)` gives a
    // lane's next bytes once all it gave before are hashed, and nothing when that lane is done. Between
    // two calls a lane may finish its message and restart its state for the next one.
    static void hashTwoStreams(Sha256& a, Sha256& b,
                               const std::function<std::span<const std::uint8_t>(size_t lane)>& more);

  private:
    // Fills a part-filled block from the front of `bytes`; returns what is left of them.
    std::span<const std::uint8_t> topUp(std::span<const std::uint8_t> bytes);
    // Hashes `bytes` after what was given, without counting them in the length.
    void absorb(std::span<const std::uint8_t> bytes);

    std::array<std::uint32_t, 8> state_{};
    std::array<std::uint8_t, 64> pending_{};
    std::uint32_t pendingBytes_ = 0;
    std::uint64_t length_ = 0;
    evp_md_ctx_st* library_ = nullptr; // set only where the processor has no SHA extensions
};

} // namespace vantle
