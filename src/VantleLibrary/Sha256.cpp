#include "VantleLibrary/Sha256.h"

#include "Platform/CryptoCalls.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace vantle {

namespace {

constexpr std::array<std::uint32_t, 8> initialState{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                                    0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

#if defined(__x86_64__)

alignas(16) constexpr std::uint32_t roundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

bool hasShaExtensions() {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    const bool ssse3 = c & bit_SSSE3, sse41 = c & bit_SSE4_1;
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
    return ssse3 && sse41 && (b & bit_SHA);
}

#define VANTLE_SHA_TARGET __attribute__((target("sha,sse4.1,ssse3")))

// The SHA instructions keep the state as ABEF and CDGH rather than ABCD and EFGH.
VANTLE_SHA_TARGET inline void loadState(const std::uint32_t* s, __m128i& abef, __m128i& cdgh) {
    auto abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), 0xB1);
    auto efgh = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4)), 0x1B);
    abef = _mm_alignr_epi8(abcd, efgh, 8);
    cdgh = _mm_blend_epi16(efgh, abcd, 0xF0);
}

VANTLE_SHA_TARGET inline void storeState(std::uint32_t* s, __m128i abef, __m128i cdgh) {
    auto feba = _mm_shuffle_epi32(abef, 0x1B);
    auto dchg = _mm_shuffle_epi32(cdgh, 0xB1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(s), _mm_blend_epi16(feba, dchg, 0xF0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(s + 4), _mm_alignr_epi8(dchg, feba, 8));
}

// One block's message words, four at a time: the first four groups from the bytes, the rest from the
// four groups before them.
struct Schedule {
    __m128i w[4];
    VANTLE_SHA_TARGET inline void load(const std::uint8_t* block, int i) {
        const auto bigEndian = _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
        w[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 16 * i)), bigEndian);
    }
    VANTLE_SHA_TARGET inline void extend(int i) {
        auto& x = w[i & 3];
        x = _mm_sha256msg2_epu32(_mm_add_epi32(_mm_sha256msg1_epu32(x, w[(i + 1) & 3]),
                                               _mm_alignr_epi8(w[(i + 3) & 3], w[(i + 2) & 3], 4)),
                                 w[(i + 3) & 3]);
    }
};

// Four rounds of one message.
VANTLE_SHA_TARGET inline void fourRounds(__m128i& abef, __m128i& cdgh, __m128i words, int i) {
    auto m = _mm_add_epi32(words, _mm_load_si128(reinterpret_cast<const __m128i*>(&roundConstants[4 * i])));
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, m);
    abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(m, 0x0E));
}

VANTLE_SHA_TARGET void compressOne(std::uint32_t* state, const std::uint8_t* blocks, size_t count) {
    __m128i abef, cdgh;
    loadState(state, abef, cdgh);
    for (; count > 0; --count, blocks += 64) {
        const auto abef0 = abef, cdgh0 = cdgh;
        Schedule s;
#pragma GCC unroll 16
        for (int i = 0; i < 16; ++i) {
            if (i < 4)
                s.load(blocks, i);
            else
                s.extend(i);
            fourRounds(abef, cdgh, s.w[i & 3], i);
        }
        abef = _mm_add_epi32(abef, abef0);
        cdgh = _mm_add_epi32(cdgh, cdgh0);
    }
    storeState(state, abef, cdgh);
}

// Two messages' blocks, round for round: the sixteen registers this needs are all there are.
VANTLE_SHA_TARGET void compressTwo(std::uint32_t* stateA, const std::uint8_t* a, std::uint32_t* stateB,
                                   const std::uint8_t* b, size_t count) {
    __m128i abefA, cdghA, abefB, cdghB;
    loadState(stateA, abefA, cdghA);
    loadState(stateB, abefB, cdghB);
    for (; count > 0; --count, a += 64, b += 64) {
        const auto abefA0 = abefA, cdghA0 = cdghA, abefB0 = abefB, cdghB0 = cdghB;
        Schedule sa, sb;
#pragma GCC unroll 16
        for (int i = 0; i < 16; ++i) {
            if (i < 4) {
                sa.load(a, i);
                sb.load(b, i);
            } else {
                sa.extend(i);
                sb.extend(i);
            }
            fourRounds(abefA, cdghA, sa.w[i & 3], i);
            fourRounds(abefB, cdghB, sb.w[i & 3], i);
        }
        abefA = _mm_add_epi32(abefA, abefA0);
        cdghA = _mm_add_epi32(cdghA, cdghA0);
        abefB = _mm_add_epi32(abefB, abefB0);
        cdghB = _mm_add_epi32(cdghB, cdghB0);
    }
    storeState(stateA, abefA, cdghA);
    storeState(stateB, abefB, cdghB);
}

#undef VANTLE_SHA_TARGET

const bool accelerated = hasShaExtensions();

#else

constexpr bool accelerated = false;
void compressOne(std::uint32_t*, const std::uint8_t*, size_t) {}
void compressTwo(std::uint32_t*, const std::uint8_t*, std::uint32_t*, const std::uint8_t*, size_t) {}

#endif

// libcrypto is loaded only where the processor cannot hash by itself (or a test asks for it). It is a
// dependency of the package, so a failure to load it is a broken installation, and it stops the
// program with the loader's own words, as a missing linked library would have at start-up.
const CryptoCalls& crypto() {
    static const CryptoCalls* calls = [] {
        auto loaded = cryptoCalls();
        if (!loaded) {
            std::fprintf(stderr, "%s\n", loaded.error().c_str());
            std::abort();
        }
        return *loaded;
    }();
    return *calls;
}

const EVP_MD* libraryDigest() {
    static EVP_MD* fetched = crypto().MD_fetch(nullptr, "SHA256", nullptr);
    return fetched ? fetched : crypto().sha256();
}

} // namespace

Sha256::Sha256(Engine engine) {
    if (!accelerated || engine == Engine::library) library_ = crypto().MD_CTX_new();
    restart();
}

Sha256::~Sha256() {
    if (library_) crypto().MD_CTX_free(library_);
}

Sha256::Sha256(const Sha256& other)
    : state_(other.state_), pending_(other.pending_), pendingBytes_(other.pendingBytes_),
      length_(other.length_) {
    if (other.library_) {
        library_ = crypto().MD_CTX_new();
        crypto().MD_CTX_copy_ex(library_, other.library_);
    }
}

Sha256& Sha256::operator=(const Sha256& other) {
    if (this == &other) return *this;
    state_ = other.state_;
    pending_ = other.pending_;
    pendingBytes_ = other.pendingBytes_;
    length_ = other.length_;
    if (other.library_) {
        if (!library_) library_ = crypto().MD_CTX_new();
        crypto().MD_CTX_copy_ex(library_, other.library_);
    } else {
        if (library_) crypto().MD_CTX_free(std::exchange(library_, nullptr));
    }
    return *this;
}

void Sha256::restart() {
    if (library_) {
        crypto().DigestInit_ex(library_, libraryDigest(), nullptr);
        return;
    }
    state_ = initialState;
    pendingBytes_ = 0;
    length_ = 0;
}

std::span<const std::uint8_t> Sha256::topUp(std::span<const std::uint8_t> bytes) {
    if (pendingBytes_ == 0) return bytes;
    auto n = std::min<size_t>(64 - pendingBytes_, bytes.size());
    std::memcpy(pending_.data() + pendingBytes_, bytes.data(), n);
    pendingBytes_ += static_cast<std::uint32_t>(n);
    if (pendingBytes_ == 64) {
        compressOne(state_.data(), pending_.data(), 1);
        pendingBytes_ = 0;
    }
    return bytes.subspan(n);
}

void Sha256::absorb(std::span<const std::uint8_t> bytes) {
    bytes = topUp(bytes);
    if (pendingBytes_ != 0) return; // all of them went into the part-filled block
    if (auto whole = bytes.size() / 64; whole > 0) {
        compressOne(state_.data(), bytes.data(), whole);
        bytes = bytes.subspan(whole * 64);
    }
    std::memcpy(pending_.data(), bytes.data(), bytes.size());
    pendingBytes_ = static_cast<std::uint32_t>(bytes.size());
}

void Sha256::update(std::span<const std::uint8_t> bytes) {
    if (library_) {
        crypto().DigestUpdate(library_, bytes.data(), bytes.size());
        return;
    }
    length_ += bytes.size();
    absorb(bytes);
}

std::pair<size_t, size_t> Sha256::updateTogether(Sha256& a, std::span<const std::uint8_t> x, Sha256& b,
                                                 std::span<const std::uint8_t> y) {
    if (a.library_ || b.library_ || x.empty() || y.empty()) {
        a.update(x);
        b.update(y);
        return {x.size(), y.size()};
    }
    auto restX = a.topUp(x), restY = b.topUp(y);
    if (a.pendingBytes_ == 0 && b.pendingBytes_ == 0) {
        if (auto together = std::min(restX.size(), restY.size()) / 64; together > 0) {
            compressTwo(a.state_.data(), restX.data(), b.state_.data(), restY.data(), together);
            restX = restX.subspan(together * 64);
            restY = restY.subspan(together * 64);
        } else if (restX.size() == x.size() && restY.size() == y.size()) {
            // Neither had a block begun and one has less than a block: it goes in alone, so that
            // every call moves on.
            auto& shorter = restX.size() < 64 ? restX : restY;
            (&shorter == &restX ? a : b).absorb(shorter);
            shorter = shorter.last(0);
        }
    }
    const auto tookX = x.size() - restX.size(), tookY = y.size() - restY.size();
    a.length_ += tookX;
    b.length_ += tookY;
    return {tookX, tookY};
}

void Sha256::hashTwoStreams(Sha256& a, Sha256& b,
                            const std::function<std::span<const std::uint8_t>(size_t)>& more) {
    std::array<Sha256*, 2> shas{&a, &b};
    std::array<std::span<const std::uint8_t>, 2> left;
    std::array<bool, 2> open{true, true};
    while (true) {
        for (size_t i = 0; i < 2; ++i)
            if (open[i] && left[i].empty()) {
                left[i] = more(i);
                open[i] = !left[i].empty();
            }
        if (open[0] && open[1]) {
            auto [tookA, tookB] = updateTogether(a, left[0], b, left[1]);
            left[0] = left[0].subspan(tookA);
            left[1] = left[1].subspan(tookB);
        } else if (open[0] || open[1]) {
            auto i = open[0] ? 0 : 1;
            shas[i]->update(left[i]);
            left[i] = {};
        } else {
            return;
        }
    }
}

Digest Sha256::finish() {
    Digest digest{};
    if (library_) {
        crypto().DigestFinal_ex(library_, digest.data(), nullptr);
        return digest;
    }
    const std::uint64_t bits = length_ * 8;
    std::uint8_t tail[72] = {0x80};
    const size_t padding = (pendingBytes_ < 56 ? 56 : 120) - pendingBytes_;
    for (int i = 0; i < 8; ++i)
        tail[padding + i] = static_cast<std::uint8_t>(bits >> (56 - 8 * i));
    absorb({tail, padding + 8});
    for (int i = 0; i < 8; ++i)
        for (int k = 0; k < 4; ++k)
            digest[4 * i + k] = static_cast<std::uint8_t>(state_[i] >> (24 - 8 * k));
    return digest;
}

} // namespace vantle
