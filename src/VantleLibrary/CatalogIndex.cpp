#include "VantleLibrary/CatalogIndex.h"

#include "Platform/AtomicFile.h"
#include "Platform/HugePages.h"
#include "Platform/KeptFile.h"
#include "VantleSpec/Sentence.h"

#include <array>
#include <bit>
#include <cstring>
#include <unordered_map>

// Inlined: one function is used, and a shared library more is time every command pays at start.
#define XXH_INLINE_ALL
#include <xxhash.h>

// The format is native byte order: the file never leaves the machine that wrote it, and a machine of
// the other order would only see a foreign file and walk again.
static_assert(std::endian::native == std::endian::little || std::endian::native == std::endian::big);

namespace vantle {

namespace {

constexpr std::string_view magic = "VLCATIX6";
constexpr std::string_view endMark = "VLCATEND";
// The body's length and checksum come after it, so the file can be written as it is encoded.
constexpr std::size_t trailerBytes = 8 + 8 + 8; // body length, checksum, end mark

// Only to tell a damaged file from a whole one, read on every run: XXH3 runs at memory speed, where
// a hash of one word at a time was several milliseconds of a large index. Fed in pieces of any size,
// it gives what one call over all of them would.
class Checksum {
  public:
    Checksum() { XXH3_64bits_reset(&state_); }
    void feed(std::string_view bytes) { XXH3_64bits_update(&state_, bytes.data(), bytes.size()); }
    std::uint64_t value() const { return XXH3_64bits_digest(&state_); }

  private:
    XXH3_state_t state_;
};

std::uint64_t checksum(std::string_view bytes) {
    return XXH3_64bits(bytes.data(), bytes.size());
}

// Which optional facts are present, one bit each.
enum Present : std::uint16_t {
    hasCreated = 1 << 0,
    hasContentCreated = 1 << 1,
    hasModified = 1 << 2,
    hasAdded = 1 << 3,
    hasLastUsed = 1 << 4,
    hasCameraMake = 1 << 5,
    hasCameraModel = 1 << 6,
    hasDuration = 1 << 7,
    isScreenshotBit = 1 << 8,
    isFolderBit = 1 << 9,
    isPackageBit = 1 << 10,
    nameIsOwn = 1 << 11, // the name is not the path's last component, so it is written out
};

// Encodes into a buffer handed on whenever it passes a mebibyte: a large home's index is never held
// whole in memory beside the snapshot it is made from.
class Writer {
  public:
    explicit Writer(const PutPiece& put) : put_(put) {
        out.reserve(pieceBytes + 64 * 1024);
        out.append(magic);
    }
    template <class T> void put(T value) {
        static_assert(std::is_trivially_copyable_v<T>);
        out.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    void text(std::string_view s) {
        put(static_cast<std::uint32_t>(s.size()));
        out.append(s);
    }
    void time(OptionalTime at) {
        if (at) put(static_cast<std::int64_t>((*at).time_since_epoch().count()));
    }
    // Between entries: hands the buffer on once it is full.
    bool next() {
        if (out.size() >= pieceBytes) flush();
        return ok_;
    }
    // Adds the trailer and hands on the rest.
    void finish() {
        flush();
        put(length_);
        put(sum_.value());
        out.append(endMark);
        ok_ = ok_ && put_(out);
    }
    std::string out;

  private:
    static constexpr std::size_t pieceBytes = 1 << 20;
    void flush() {
        // The magic is not part of the body.
        auto body = std::string_view(out).substr(started_ ? 0 : magic.size());
        sum_.feed(body);
        length_ += body.size();
        started_ = true;
        ok_ = ok_ && put_(out);
        out.clear();
    }
    const PutPiece& put_;
    Checksum sum_;
    std::uint64_t length_ = 0;
    bool started_ = false;
    bool ok_ = true;
};

class Reader {
  public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}
    template <class T> bool get(T& value) {
        if (rest_.size() < sizeof value) return fail();
        std::memcpy(&value, rest_.data(), sizeof value);
        rest_.remove_prefix(sizeof value);
        return true;
    }
    bool view(std::string_view& s) {
        std::uint32_t n = 0;
        if (!get(n) || rest_.size() < n) return fail();
        s = rest_.substr(0, n);
        rest_.remove_prefix(n);
        return true;
    }
    bool text(std::string& s) {
        std::string_view v;
        if (!view(v)) return false;
        s.assign(v);
        return true;
    }
    bool ok() const { return ok_; }
    std::size_t left() const { return rest_.size(); }
    const char* at() const { return rest_.data(); }

  private:
    bool fail() {
        ok_ = false;
        rest_ = {};
        return false;
    }
    std::string_view rest_;
    bool ok_ = true;
};

bool nameIsLastComponent(const Facts& f) {
    return f.path.size() > f.name.size() && f.path.ends_with(f.name) &&
           f.path[f.path.size() - f.name.size() - 1] == '/';
}

} // namespace

void CatalogIndex::encode(const LibraryScope& scope, const Snapshot& snapshot, const Reading& reading,
                          const PutPiece& put) {
    Writer w(put);
    w.text(scope.home.native());
    w.put(static_cast<std::uint32_t>(scope.appFolders.size()));
    for (const auto& folder : scope.appFolders)
        w.text(folder.native());
    w.put(static_cast<std::int64_t>(snapshot.at.time_since_epoch().count()));
    w.put(static_cast<std::uint8_t>(snapshot.isWhole));
    w.put(static_cast<std::uint8_t>(reading.isComplete));
    w.put(static_cast<std::uint8_t>(reading.readDisk));
    w.put(static_cast<std::uint8_t>(reading.stop));
    // One byte of owed facts: an index from before origins were read behind the walk has only the
    // first bit, and its origins were read in the walk.
    w.put(static_cast<std::uint8_t>((reading.mediaPending ? 1 : 0) | (reading.attributesPending ? 2 : 0)));
    w.put(reading.entries);
    w.put(reading.seconds);
    w.put(static_cast<std::uint32_t>(reading.missedContents.size()));
    for (const auto& missed : reading.missedContents)
        w.text(missed);

    // Content types repeat across files: each is written once and named by its place.
    std::unordered_map<std::string_view, std::uint32_t> typeIndex;
    std::vector<std::string_view> types;
    for (const auto& f : snapshot.facts)
        if (typeIndex.try_emplace(f.contentType, static_cast<std::uint32_t>(types.size())).second)
            types.push_back(f.contentType);
    w.put(static_cast<std::uint32_t>(types.size()));
    for (auto type : types)
        w.text(type);

    w.put(static_cast<std::uint64_t>(snapshot.facts.size()));
    for (const auto& f : snapshot.facts) {
        std::uint16_t present = 0;
        auto mark = [&](bool on, Present bit) {
            if (on) present |= bit;
        };
        mark(f.created.has_value(), hasCreated);
        mark(f.contentCreated.has_value(), hasContentCreated);
        mark(f.modified.has_value(), hasModified);
        mark(f.added.has_value(), hasAdded);
        mark(f.lastUsed.has_value(), hasLastUsed);
        mark(f.cameraMake.has_value(), hasCameraMake);
        mark(f.cameraModel.has_value(), hasCameraModel);
        mark(f.duration.has_value(), hasDuration);
        mark(f.isScreenshot, isScreenshotBit);
        mark(f.isFolder, isFolderBit);
        mark(f.isPackage, isPackageBit);
        bool ownName = !nameIsLastComponent(f);
        mark(ownName, nameIsOwn);
        w.put(present);
        w.text(f.path);
        if (ownName)
            w.text(f.name);
        else
            w.put(static_cast<std::uint32_t>(f.name.size()));
        w.put(typeIndex.at(f.contentType));
        w.put(f.size);
        w.put(f.onDisk);
        w.time(f.created);
        w.time(f.contentCreated);
        w.time(f.modified);
        w.time(f.added);
        w.time(f.lastUsed);
        if (f.cameraMake) w.text(*f.cameraMake);
        if (f.cameraModel) w.text(*f.cameraModel);
        if (f.duration) w.put(*f.duration);
        w.put(static_cast<std::uint32_t>(f.whereFroms.size()));
        for (const auto& origin : f.whereFroms)
            w.text(origin);
        w.put(static_cast<std::uint32_t>(f.tags.size()));
        for (const auto& tag : f.tags)
            w.text(tag);
        if (!w.next()) return;
    }
    w.finish();
}

std::string CatalogIndex::encode(const LibraryScope& scope, const Snapshot& snapshot,
                                 const Reading& reading) {
    std::string bytes;
    encode(scope, snapshot, reading, [&](std::string_view piece) {
        bytes.append(piece);
        return true;
    });
    return bytes;
}

namespace {

// The walk's own record, checked whole first, and where its entries begin.
struct Header {
    CatalogIndex::Kept kept;
    std::vector<SharedText> types; // content types, named in each entry by place
    std::uint64_t count = 0;
    std::string_view entries; // the entries and nothing after them
};

std::expected<Header, CatalogIndex::Problem> readHeader(std::string_view bytes,
                                                        const LibraryScope* expected) {
    using Problem = CatalogIndex::Problem;
    auto unreadable = std::unexpected(Problem::unreadable);
    if (bytes.size() < magic.size() + trailerBytes || !bytes.starts_with(magic) || !bytes.ends_with(endMark))
        return unreadable;
    std::uint64_t length = 0, sum = 0;
    auto trailer = bytes.data() + bytes.size() - trailerBytes;
    std::memcpy(&length, trailer, 8);
    std::memcpy(&sum, trailer + 8, 8);
    auto body = bytes.substr(magic.size(), bytes.size() - magic.size() - trailerBytes);
    if (length != body.size() || checksum(body) != sum) return unreadable;

    Header header;
    auto& kept = header.kept;
    auto& snapshot = kept.snapshot;
    auto& reading = kept.reading;
    Reader r(body);
    std::string home;
    std::uint32_t appFolders = 0;
    r.text(home), r.get(appFolders);
    if (!r.ok() || appFolders > r.left() / 4) return unreadable;
    kept.scope.home = std::move(home);
    kept.scope.appFolders.resize(appFolders);
    for (auto& folder : kept.scope.appFolders) {
        std::string path;
        r.text(path);
        folder = std::move(path);
    }
    if (!r.ok()) return unreadable;
    if (expected && kept.scope != *expected) return std::unexpected(Problem::otherFolders);
    std::int64_t at = 0;
    std::uint8_t isWhole = 0, isComplete = 0, readDisk = 0, stop = 0, mediaPending = 0;
    std::uint32_t missed = 0;
    r.get(at), r.get(isWhole), r.get(isComplete), r.get(readDisk), r.get(stop), r.get(mediaPending);
    r.get(reading.entries), r.get(reading.seconds), r.get(missed);
    if (!r.ok() || stop > static_cast<std::uint8_t>(Reading::Stop::cancelled) || missed > r.left())
        return unreadable;
    snapshot.at = TimePoint(TimePoint::duration(at));
    snapshot.isWhole = isWhole != 0;
    reading.isComplete = isComplete != 0;
    reading.readDisk = readDisk != 0;
    reading.stop = static_cast<Reading::Stop>(stop);
    reading.mediaPending = (mediaPending & 1) != 0;
    reading.attributesPending = (mediaPending & 2) != 0;
    reading.missedContents.resize(missed);
    for (auto& path : reading.missedContents)
        r.text(path);

    std::uint32_t typeCount = 0;
    r.get(typeCount);
    if (!r.ok() || typeCount > r.left()) return unreadable;
    header.types.resize(typeCount);
    for (auto& type : header.types) {
        std::string_view text;
        r.view(text);
        type = text;
    }

    r.get(header.count);
    // Every entry takes more than 32 bytes: a count beyond that is damage, not a reason to allocate.
    if (!r.ok() || header.count > r.left() / 32) return unreadable;
    header.entries = std::string_view(r.at(), r.left());
    return header;
}

// One entry as it lies in the file, nothing copied: a look at every entry that wants only its path
// and size (the duplicate scan) pays for no more.
struct EntryView {
    std::uint16_t present = 0;
    std::string_view path, name;
    std::uint32_t type = 0;
    std::int64_t size = 0, onDisk = 0;
    std::array<std::int64_t, 5> times{}; // created, content created, modified, added, last used
    std::string_view cameraMake, cameraModel;
    double duration = 0;
    std::uint32_t whereFroms = 0, tags = 0;
    std::string_view whereFromTexts, tagTexts; // each list's texts as they lie
};

constexpr std::array<Present, 5> timeBits{hasCreated, hasContentCreated, hasModified, hasAdded, hasLastUsed};

// Steps over `count` texts, answering the bytes they took.
bool skipTexts(Reader& r, std::uint32_t count, std::string_view& texts) {
    if (count > r.left() / 4) return false;
    const char* from = r.at();
    std::string_view text;
    for (std::uint32_t i = 0; i < count; ++i)
        if (!r.view(text)) return false;
    texts = std::string_view(from, static_cast<std::size_t>(r.at() - from));
    return true;
}

bool readEntryView(Reader& r, std::size_t typeCount, EntryView& e) {
    if (!r.get(e.present) || !r.view(e.path)) return false;
    if (e.present & nameIsOwn) {
        r.view(e.name);
    } else {
        std::uint32_t nameLength = 0;
        if (!r.get(nameLength) || nameLength >= e.path.size()) return false;
        e.name = e.path.substr(e.path.size() - nameLength);
    }
    if (!r.get(e.type) || e.type >= typeCount) return false;
    r.get(e.size), r.get(e.onDisk);
    for (std::size_t t = 0; t < timeBits.size(); ++t)
        if (e.present & timeBits[t]) r.get(e.times[t]);
    e.cameraMake = e.cameraModel = {};
    if (e.present & hasCameraMake) r.view(e.cameraMake);
    if (e.present & hasCameraModel) r.view(e.cameraModel);
    if (e.present & hasDuration) r.get(e.duration);
    return r.get(e.whereFroms) && skipTexts(r, e.whereFroms, e.whereFromTexts) && r.get(e.tags) &&
           skipTexts(r, e.tags, e.tagTexts) && r.ok();
}

// One entry into `f`, which may hold the last one: what this entry lacks is cleared.
bool readEntry(Reader& r, std::span<const SharedText> types, Facts& f) {
    EntryView e;
    if (!readEntryView(r, types.size(), e)) return false;
    f.path.assign(e.path);
    f.name.assign(e.name);
    f.contentType = types[e.type];
    f.size = e.size;
    f.onDisk = e.onDisk;
    std::array<OptionalTime*, 5> times{&f.created, &f.contentCreated, &f.modified, &f.added, &f.lastUsed};
    for (std::size_t t = 0; t < timeBits.size(); ++t)
        if (e.present & timeBits[t])
            *times[t] = TimePoint(TimePoint::duration(e.times[t]));
        else
            times[t]->reset();
    auto optionalText = [&](std::optional<SharedText>& into, std::string_view text, Present bit) {
        if (e.present & bit)
            into = text;
        else
            into.reset();
    };
    optionalText(f.cameraMake, e.cameraMake, hasCameraMake);
    optionalText(f.cameraModel, e.cameraModel, hasCameraModel);
    if (e.present & hasDuration)
        f.duration = e.duration;
    else
        f.duration.reset();
    f.isScreenshot = e.present & isScreenshotBit;
    f.isFolder = e.present & isFolderBit;
    f.isPackage = e.present & isPackageBit;
    auto texts = [](std::string_view bytes, std::uint32_t count, std::vector<std::string>& into) {
        Reader list(bytes);
        into.resize(count);
        for (auto& text : into)
            list.text(text);
    };
    texts(e.whereFromTexts, e.whereFroms, f.whereFroms);
    texts(e.tagTexts, e.tags, f.tags);
    return true;
}

// Reads the walk's own record, then hands `each` every entry in turn through one reused Facts, so a
// search can look at every entry without the whole list ever being held. `each` may move from it.
// `decoded`, when given, is told every few mebibytes how far the entries have been decoded.
template <class Each>
std::expected<CatalogIndex::Kept, CatalogIndex::Problem>
readEntries(std::string_view bytes, Each&& each, const CatalogIndex::Wanted* wanted,
            const std::function<void(const char* upTo)>* decoded = nullptr,
            const LibraryScope* expected = nullptr) {
    auto header = readHeader(bytes, expected);
    if (!header) return std::unexpected(header.error());
    auto& kept = header->kept;
    if (wanted && !(*wanted)(kept, static_cast<std::size_t>(header->count))) return std::move(kept);
    Reader r(header->entries);
    Facts f;
    constexpr std::uint64_t tellEvery = 16384; // entries: a few mebibytes of the file
    for (std::uint64_t i = 0; i < header->count; ++i) {
        if (decoded && i % tellEvery == tellEvery - 1) (*decoded)(r.at());
        if (!readEntry(r, header->types, f)) return std::unexpected(CatalogIndex::Problem::unreadable);
        each(f);
    }
    if (r.left() != 0) return std::unexpected(CatalogIndex::Problem::unreadable);
    return std::move(kept);
}

// Every entry into one list, reserved once from the count the file gives.
std::expected<CatalogIndex::Kept, CatalogIndex::Problem>
decodeAll(std::string_view bytes, const std::function<void(const char* upTo)>* decoded,
          const LibraryScope* expected) {
    std::vector<Facts> facts;
    CatalogIndex::Wanted wanted = [&](const CatalogIndex::Kept&, std::size_t count) {
        facts.reserve(count);
        adviseHugePages(facts.data(), count * sizeof(Facts));
        return true;
    };
    auto kept = readEntries(
        bytes, [&](Facts& f) { facts.push_back(std::move(f)); }, &wanted, decoded, expected);
    if (kept) kept->snapshot.facts = std::move(facts);
    return kept;
}

} // namespace

std::expected<CatalogIndex::Kept, CatalogIndex::Problem> CatalogIndex::decode(std::string_view bytes) {
    return decodeAll(bytes, nullptr, nullptr);
}

std::expected<CatalogIndex::Kept, CatalogIndex::Problem>
CatalogIndex::decodeEach(std::string_view bytes, const Wanted& wanted, const Each& each) {
    return readEntries(bytes, each, &wanted);
}

std::expected<CatalogIndex::Kept, CatalogIndex::Problem> CatalogIndex::stream(const Wanted& wanted,
                                                                              const Each& each) const {
    auto bytes = readBytes();
    if (!bytes) return std::unexpected(bytes.error());
    return readEntries(bytes->view(), each, &wanted, nullptr, &scope_);
}

std::expected<CatalogIndex::Opened, CatalogIndex::Problem> CatalogIndex::open() const {
    auto bytes = readBytes();
    if (!bytes) return std::unexpected(bytes.error());
    auto header = readHeader(bytes->view(), &scope_);
    if (!header) return std::unexpected(header.error());
    Opened opened;
    opened.walk_ = std::move(header->kept);
    opened.types_ = std::move(header->types);
    opened.count_ = header->count;
    opened.entriesAt_ = static_cast<std::size_t>(header->entries.data() - bytes->view().data());
    opened.entriesLength_ = header->entries.size();
    opened.bytes_ = std::move(*bytes);
    return opened;
}

std::optional<Facts> CatalogIndex::Opened::at(std::size_t place) const {
    auto bytes = bytes_.view();
    if (place < entriesAt_ || place >= entriesAt_ + entriesLength_) return std::nullopt;
    Reader r(bytes.substr(place, entriesAt_ + entriesLength_ - place));
    Facts f;
    if (!readEntry(r, types_, f)) return std::nullopt;
    return f;
}

bool CatalogIndex::Opened::forEachListed(
    const std::function<void(const Listed& entry, std::size_t place)>& each) const {
    auto bytes = bytes_.view();
    Reader r(bytes.substr(entriesAt_, entriesLength_));
    EntryView e;
    for (std::uint64_t i = 0; i < count_; ++i) {
        auto place = static_cast<std::size_t>(r.at() - bytes.data());
        if (!readEntryView(r, types_.size(), e)) return false;
        each({e.path, e.size, !(e.present & (isFolderBit | isPackageBit))}, place);
    }
    return r.left() == 0;
}

std::expected<KeptBytes, CatalogIndex::Problem> CatalogIndex::readBytes() const {
    auto bytes = readLargeKeptFile(file_, largestFile);
    if (!bytes) {
        switch (bytes.error().what) {
        case KeptFileFailure::Case::missing:
            return std::unexpected(Problem::missing);
        case KeptFileFailure::Case::notAFile:
            return std::unexpected(Problem::notAFile);
        case KeptFileFailure::Case::tooLarge:
            return std::unexpected(Problem::tooLarge);
        case KeptFileFailure::Case::unreadable:
            return std::unexpected(Problem::unreadable);
        }
    }
    return std::move(*bytes);
}

std::expected<CatalogIndex::Kept, CatalogIndex::Problem> CatalogIndex::load() const {
    auto bytes = readBytes();
    if (!bytes) return std::unexpected(bytes.error());
    // The file's bytes are given back as they become entries: a large home's index and its
    // decoded walk are never held whole side by side.
    const char* base = bytes->view().data();
    std::function<void(const char*)> decoded = [&](const char* upTo) {
        bytes->letGoBefore(static_cast<std::size_t>(upTo - base));
    };
    return decodeAll(bytes->view(), &decoded, &scope_);
}

std::expected<void, std::string> CatalogIndex::keep(const Snapshot& snapshot, const Reading& reading) const {
    auto written = writeFileAtomicallyInPieces(
        file_, [&](const PutPiece& put) { encode(scope_, snapshot, reading, put); }, 0600);
    if (!written) return std::unexpected(fillIn(keepFailedSentence, {{"reason", written.error()}}));
    return {};
}

} // namespace vantle
