#include "VantleLibrary/FingerprintCache.h"

#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "VantleSpec/JsonBytes.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <utility>

namespace vantle {

namespace {

// Reads the cache as a stream of events rather than a tree: a cache of tens of thousands of files
// is read in one pass with no intermediate values, and nesting deeper than a fingerprint's is
// refused as it is met, however deep it goes.
class CacheReader : public nlohmann::json_sax<nlohmann::json> {
  public:
    explicit CacheReader(std::vector<std::pair<std::string, Fingerprint>>& into) : into_(into) {}

    bool dropped = false; // an entry could not be read and was left out

    bool null() override { return field(Value{}); }
    bool boolean(bool) override { return field(Value{}, false); }
    bool number_integer(number_integer_t v) override { return field(Value{.integer = v, .isInteger = true}); }
    bool number_unsigned(number_unsigned_t v) override {
        return field(Value{.unsignedInteger = v, .isUnsigned = true});
    }
    bool number_float(number_float_t, const string_t&) override { return field(Value{}, false); }
    bool string(string_t& v) override { return field(Value{.text = &v}); }
    bool binary(binary_t&) override { return field(Value{}, false); }
    bool start_object(std::size_t) override { return open(); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override {
        if (depth_ == 0) return false; // not a cache at all
        bad_ = true;
        return open();
    }
    bool end_array() override { return close(); }
    bool key(string_t& k) override {
        if (depth_ == 1) {
            path_ = mayHoldEscapes(k) ? unescapeBytes(k) : std::move(k);
            bad_ = false;
            seen_ = 0;
            entry_ = {};
        } else if (depth_ == 2) {
            key_ = std::move(k);
        }
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        dropped = true; // a torn file keeps the entries read before the tear
        return false;
    }

  private:
    struct Value {
        std::int64_t integer = 0;
        std::uint64_t unsignedInteger = 0;
        const string_t* text = nullptr;
        bool isInteger = false;
        bool isUnsigned = false;
    };

    static constexpr int deepest = 64;

    bool open() {
        if (++depth_ > deepest) {
            dropped = true;
            return false;
        }
        if (depth_ > 2) bad_ = true;
        return true;
    }

    bool close() {
        if (depth_ == 2) {
            if (!bad_ && seen_ == 0b111)
                into_.emplace_back(std::move(path_), entry_);
            else
                dropped = true;
        }
        --depth_;
        return true;
    }

    bool field(const Value& v, bool usable = true) {
        if (depth_ == 1) {
            dropped = true; // an entry that is not an object
            return true;
        }
        if (depth_ != 2) return true;
        if (!usable) {
            bad_ = true;
            return true;
        }
        auto asSigned = [&](std::int64_t& out) {
            if (v.isInteger)
                out = v.integer;
            else if (v.isUnsigned && v.unsignedInteger <= std::numeric_limits<std::int64_t>::max())
                out = static_cast<std::int64_t>(v.unsignedInteger);
            else
                bad_ = true;
        };
        if (key_ == "size") {
            asSigned(entry_.size);
            seen_ |= 1;
        } else if (key_ == "modified") {
            asSigned(entry_.modified);
            seen_ |= 2;
        } else if (key_ == "inode") {
            if (v.isUnsigned)
                entry_.inode = v.unsignedInteger;
            else if (v.isInteger && v.integer >= 0)
                entry_.inode = static_cast<std::uint64_t>(v.integer);
            else
                bad_ = true;
            seen_ |= 4;
        } else if (key_ == "sample" || key_ == "full") {
            auto& digest = key_ == "sample" ? entry_.sample : entry_.full;
            if (v.text) {
                digest = digestFromHex(*v.text);
                if (!digest) bad_ = true;
            } else if (v.isInteger || v.isUnsigned) {
                bad_ = true;
            }
        }
        return true;
    }

    std::vector<std::pair<std::string, Fingerprint>>& into_;
    int depth_ = 0;
    std::string path_, key_;
    Fingerprint entry_;
    unsigned seen_ = 0;
    bool bad_ = false;
};

// Well-formed UTF-8 as JSON text must be: no overlong forms, surrogates or code points past U+10FFFF.
bool validUtf8(std::string_view text) {
    static constexpr std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    for (size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        size_t n = c < 0x80             ? 1
                   : (c & 0xE0) == 0xC0 ? 2
                   : (c & 0xF0) == 0xE0 ? 3
                   : (c & 0xF8) == 0xF0 ? 4
                                        : 0;
        if (n == 0 || i + n > text.size()) return false;
        if (n > 1) {
            std::uint32_t point = c & (0x7F >> n);
            for (size_t k = 1; k < n; ++k) {
                auto d = static_cast<unsigned char>(text[i + k]);
                if ((d & 0xC0) != 0x80) return false;
                point = point << 6 | (d & 0x3F);
            }
            if (point < least[n] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
        }
        i += n;
    }
    return true;
}

// Lower-case hex, as save() writes it, by table: two digests an entry made the general decoder's
// character tests a fifth of reading the cache.
bool lowerHexDigest(std::string_view hex, Digest& out) {
    static constexpr auto values = [] {
        std::array<std::int8_t, 256> table{};
        table.fill(-1);
        for (int c = '0'; c <= '9'; ++c)
            table[c] = static_cast<std::int8_t>(c - '0');
        for (int c = 'a'; c <= 'f'; ++c)
            table[c] = static_cast<std::int8_t>(c - 'a' + 10);
        return table;
    }();
    int bad = 0;
    for (size_t i = 0; i < out.size(); ++i) {
        int high = values[static_cast<unsigned char>(hex[2 * i])];
        int low = values[static_cast<unsigned char>(hex[2 * i + 1])];
        bad |= high | low;
        out[i] = static_cast<std::uint8_t>(high << 4 | (low & 0xF));
    }
    return bad >= 0;
}

// Two hex digits a byte, as save() writes a digest, straight into the text.
void appendHex(std::string& text, const Digest& digest) {
    static constexpr char digits[] = "0123456789abcdef";
    auto at = text.size();
    text.resize(at + 2 * digest.size());
    for (auto byte : digest) {
        text[at++] = digits[byte >> 4];
        text[at++] = digits[byte & 0xf];
    }
}

std::uint64_t hashOf(std::string_view path) {
    return std::hash<std::string_view>{}(path);
}

} // namespace

// Reads the file as save() writes it, with no general parser: one pass over the text, no value
// built but the entries themselves, which makes reading the cache a small part of an unchanged
// rescan. Anything it does not expect (spaces, fields in another order, an escape in a path, a digest
// that is not one) answers false, and the general reader reads the file instead, with its rules for
// damaged entries.
bool FingerprintCache::readOwnFormat(std::string_view text) {
    size_t at = 0;
    auto eat = [&](std::string_view literal) {
        if (text.substr(at, literal.size()) != literal) return false;
        at += literal.size();
        return true;
    };
    auto integer = [&](auto& out) {
        if (at < text.size() && text[at] == '0' && at + 1 < text.size() && text[at + 1] >= '0' &&
            text[at + 1] <= '9')
            return false; // a leading zero is not JSON
        auto [end, error] = std::from_chars(text.data() + at, text.data() + text.size(), out);
        if (error != std::errc{}) return false;
        at = static_cast<size_t>(end - text.data());
        return true;
    };
    auto digest = [&](std::optional<Digest>& out) {
        if (text.size() - at < 65 || text[at + 64] != '"') return false;
        Digest digest;
        if (!lowerHexDigest(text.substr(at, 64), digest)) return false;
        out = digest;
        at += 65;
        return true;
    };
    if (!eat("{")) return false;
    if (!eat("}")) {
        for (;;) {
            if (!eat("\"")) return false;
            auto close = text.find('"', at);
            if (close == std::string_view::npos) return false;
            auto path = text.substr(at, close - at);
            bool ascii = true;
            for (unsigned char c : path) {
                if (c < 0x20 || c == '\\') return false;
                ascii = ascii && c < 0x80;
            }
            if (!ascii && !validUtf8(path)) return false;
            at = close + 1;
            Fingerprint f;
            if (!eat(":{\"size\":") || !integer(f.size) || !eat(",\"modified\":") || !integer(f.modified) ||
                !eat(",\"inode\":") || !integer(f.inode))
                return false;
            if (eat(",\"sample\":\"") && !digest(f.sample)) return false;
            if (eat(",\"full\":\"") && !digest(f.full)) return false;
            if (!eat("}")) return false;
            // Most paths are kept as the slice of the file they are; only one that holds an escape
            // needs bytes of its own.
            if (!ascii && mayHoldEscapes(path))
                put(own(unescapeBytes(path)), f);
            else
                put(path, f);
            if (eat(",\n")) continue;
            if (eat("}")) break;
            return false;
        }
    }
    return text.find_first_not_of(" \t\r\n", at) == std::string_view::npos;
}

void FingerprintCache::clear() {
    entries_.clear();
    slots_.clear();
    ownedPaths_.release();
    live_ = unasked_ = 0;
}

std::string_view FingerprintCache::own(std::string_view path) {
    auto* copy = static_cast<char*>(ownedPaths_.allocate(std::max<size_t>(path.size(), 1), 1));
    std::memcpy(copy, path.data(), path.size());
    return {copy, path.size()};
}

void FingerprintCache::reserve(std::size_t more) {
    entries_.reserve(entries_.size() + more);
    makeRoom(entries_.size() + more);
}

void FingerprintCache::makeRoom(std::size_t entries) {
    auto wanted = std::bit_ceil(std::max<std::size_t>(16, 2 * entries));
    if (wanted <= slots_.size()) return;
    slots_.assign(wanted, 0);
    auto mask = wanted - 1;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        auto slot = entries_[i].hash & mask;
        while (slots_[slot] != 0)
            slot = (slot + 1) & mask;
        slots_[slot] = static_cast<std::uint32_t>(i + 1);
    }
}

const FingerprintCache::Entry* FingerprintCache::find(std::string_view path, std::uint64_t hash) const {
    if (slots_.empty()) return nullptr;
    auto mask = slots_.size() - 1;
    for (auto slot = hash & mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
        const auto& entry = entries_[slots_[slot] - 1];
        if (entry.hash == hash && entry.path == path) return &entry;
    }
    return nullptr;
}

FingerprintCache::Entry* FingerprintCache::find(std::string_view path, std::uint64_t hash) {
    return const_cast<Entry*>(std::as_const(*this).find(path, hash));
}

FingerprintCache::Entry& FingerprintCache::add(std::string_view path, std::uint64_t hash,
                                               const Fingerprint& value) {
    makeRoom(entries_.size() + 1);
    auto mask = slots_.size() - 1;
    auto slot = hash & mask;
    while (slots_[slot] != 0)
        slot = (slot + 1) & mask;
    slots_[slot] = static_cast<std::uint32_t>(entries_.size() + 1);
    ++live_;
    return entries_.emplace_back(Entry{path, hash, value, true, false});
}

void FingerprintCache::put(std::string_view path, const Fingerprint& value) {
    auto hash = hashOf(path);
    if (auto* entry = find(path, hash)) {
        entry->value = value;
        return;
    }
    add(path, hash, value);
    ++unasked_;
}

void FingerprintCache::ask(Entry& entry) {
    if (entry.asked) return;
    entry.asked = true;
    if (entry.live) --unasked_;
}

void FingerprintCache::load() {
    if (loaded_) return;
    loaded_ = true;
    if (cacheFile_.empty()) return;
    // The shared bounded reader: a link, FIFO or device in its place, or a file past the bound, reads
    // as an empty cache. The text is then streamed rather than read as a tree (readJson): the tree of
    // tens of thousands of entries would cost more than the scan it saves.
    // Taken in one piece rather than as a string zeroed and faulted in a page at a time: for a cache
    // of megabytes that setting up was a tenth of an unchanged rescan.
    auto bytes = readLargeKeptFile(cacheFile_, keptFileLargestBytes);
    if (!bytes) {
        if (bytes.error().what != KeptFileFailure::Case::missing)
            changed_ = true; // replaced at the next save
        return;
    }
    bytes_ = std::move(*bytes);
    auto text = bytes_->view();
    // An entry as save() writes it is about 200 bytes; most caches are read with no growing.
    entries_.reserve(text.size() / 180 + 16);
    makeRoom(text.size() / 180);
    if (readOwnFormat(text)) return;
    clear();
    std::vector<std::pair<std::string, Fingerprint>> read;
    CacheReader reader(read);
    nlohmann::json::sax_parse(text, &reader);
    for (auto& [path, value] : read)
        put(own(path), value);
    bytes_.reset();
    // An entry we cannot read is dropped, and the file rewritten without it.
    if (reader.dropped) changed_ = true;
}

void FingerprintCache::place(std::span<const std::string_view> paths, std::span<Place> places) const {
    // A look-up waits on memory three times over: the path's slot, the entry, the entry's path. Each
    // stage is asked for across the whole batch before any is used, so the waits overlap instead of
    // adding up (an unchanged rescan of tens of thousands of files looks up every one).
    std::vector<std::uint64_t> hashes(paths.size());
    const auto mask = slots_.empty() ? 0 : slots_.size() - 1;
    for (size_t i = 0; i < paths.size(); ++i) {
        hashes[i] = hashOf(paths[i]);
        if (!slots_.empty()) __builtin_prefetch(&slots_[hashes[i] & mask]);
    }
    if (!slots_.empty()) {
        for (auto hash : hashes)
            if (auto slot = slots_[hash & mask]) __builtin_prefetch(&entries_[slot - 1]);
        for (auto hash : hashes)
            if (auto slot = slots_[hash & mask]; slot && entries_[slot - 1].hash == hash)
                __builtin_prefetch(entries_[slot - 1].path.data());
    }
    for (size_t i = 0; i < paths.size(); ++i) {
        const auto* entry = find(paths[i], hashes[i]);
        places[i] = {entry ? static_cast<std::uint32_t>(entry - entries_.data() + 1) : 0};
    }
}

const Fingerprint* FingerprintCache::valid(std::string_view path, const FileStatus& status, Place known) {
    auto* entry = known.entry != 0 ? &entries_[known.entry - 1] : find(path, hashOf(path));
    if (!entry) return nullptr;
    ask(*entry);
    if (!entry->live) return nullptr;
    if (entry->value.holdsFor(status.size, status.modified, status.number.inode)) return &entry->value;
    entry->live = false;
    --live_;
    changed_ = true;
    return nullptr;
}

void FingerprintCache::store(std::string_view path, const FileStatus& status, HashMode mode,
                             const Digest& digest) {
    auto hash = hashOf(path);
    auto* entry = find(path, hash);
    const Fingerprint fresh{status.size, status.modified, status.number.inode, std::nullopt, std::nullopt};
    if (!entry) {
        entry = &add(own(path), hash, fresh);
        entry->asked = true;
        changed_ = true;
    }
    ask(*entry);
    if (!entry->live || !entry->value.holdsFor(status.size, status.modified, status.number.inode)) {
        entry->value = fresh;
        if (!entry->live) ++live_;
        entry->live = true;
        changed_ = true;
    }
    auto& kept = mode == HashMode::sample ? entry->value.sample : entry->value.full;
    if (kept == digest) return;
    kept = digest;
    changed_ = true;
}

void FingerprintCache::keepOnly(const std::unordered_set<std::string_view>& paths) {
    for (auto& entry : entries_) {
        if (!entry.live || paths.contains(entry.path)) continue;
        entry.live = false;
        --live_;
        if (!entry.asked) --unasked_;
        changed_ = true;
    }
}

std::expected<void, std::string> FingerprintCache::save() {
    if (!changed_ || cacheFile_.empty()) return {};
    // Written by hand: every entry has the same few fields, and a tree of tens of thousands of small
    // objects costs more to build than the text does. Most paths need no escape and go in as they are.
    // Handed over a quarter of a MiB at a time: the whole text of a large library is tens of MiB, and
    // memory a one-shot command touches for the first time is not free.
    constexpr size_t piece = 256 * 1024;
    auto written = writeFileAtomicallyInPieces(
        cacheFile_,
        [&](const PutPiece& put) {
            std::string text = "{";
            text.reserve(piece + 4096);
            char number[24];
            auto append = [&](auto value) {
                auto end = std::to_chars(number, number + sizeof number, value).ptr;
                text.append(number, end);
            };
            bool first = true;
            for (const auto& entry : entries_) {
                if (!entry.live) continue;
                const auto& f = entry.value;
                if (!first) text += ",\n";
                first = false;
                if (isPlainJsonText(entry.path)) {
                    text += '"';
                    text += entry.path;
                    text += '"';
                } else {
                    text += nlohmann::json(escapeBytes(entry.path)).dump();
                }
                text += ":{\"size\":";
                append(f.size);
                text += ",\"modified\":";
                append(f.modified);
                text += ",\"inode\":";
                append(f.inode);
                if (f.sample) {
                    text += ",\"sample\":\"";
                    appendHex(text, *f.sample);
                    text += '"';
                }
                if (f.full) {
                    text += ",\"full\":\"";
                    appendHex(text, *f.full);
                    text += '"';
                }
                text += '}';
                if (text.size() >= piece) {
                    if (!put(text)) return;
                    text.clear();
                }
            }
            text += "}\n";
            put(text);
        },
        // Lost in a crash, it reads as an empty cache and the next scan hashes again.
        0600, Durability::mayBeLost);
    if (written) changed_ = false;
    return written;
}

} // namespace vantle
