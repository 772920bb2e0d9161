// The catalog's kept index: what the last disk walk found, kept in the data folder so that a later
// run answers at once instead of walking again while the walk is still fresh. Linux has no metadata
// index of its own; this stands in for it. One flat file, replaced atomically after each walk and
// checked whole (length, end mark, checksum) when read, so a torn or foreign file reads as no index.
// A plain value; load and keep may be called from several threads (each call is independent).
#pragma once
#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"
#include "VantleLibrary/DiskWalk.h"

#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class CatalogIndex {
  public:
    enum class Problem { missing, unreadable, tooLarge, notAFile, otherFolders };
    static constexpr std::string_view sentence(Problem problem) {
        switch (problem) {
        case Problem::missing:
            return "No catalog index has been kept yet.";
        case Problem::unreadable:
            return "The kept catalog index could not be read; the home folder is read again.";
        case Problem::tooLarge:
            return "The kept catalog index is larger than any index this program writes; it was not read.";
        case Problem::notAFile:
            return "The kept catalog index is not a regular file; it was not read.";
        case Problem::otherFolders:
            return "The kept catalog index describes other folders than the ones to catalog; they are read "
                   "again.";
        }
        return "";
    }
    static constexpr std::string_view keepFailedSentence = "The catalog index could not be saved: {reason}.";

    // The largest index read back: far more than a full walk's worth of entries writes.
    static constexpr std::size_t largestFile = std::size_t{1} << 30;

    struct Kept {
        LibraryScope scope; // the folders that were walked
        Snapshot snapshot;
        Reading reading;
    };

    // `scope` is what this catalog walks: an index kept for other folders (a home folder that has
    // moved, other app folders) is not this catalog's and reads as `otherFolders`.
    CatalogIndex(std::filesystem::path file, LibraryScope scope)
        : file_(std::move(file)), scope_(std::move(scope)) {}
    const std::filesystem::path& file() const { return file_; }

    // The walk kept last, with how that reading went (limits, missed folders), exactly as walked.
    std::expected<Kept, Problem> load() const;

    // Told how the kept walk went (its snapshot without facts) and how many entries follow; answers
    // whether to read them.
    using Wanted = std::function<bool(const Kept& walk, std::size_t entries)>;
    // Sees one entry; the Facts is reused for the next entry and valid only during the call.
    using Each = std::function<void(const Facts& entry)>;
    // The kept walk without holding its entries: a search looks at each in turn, which costs a
    // fraction of building the whole list. The file is checked whole before `wanted` is asked. When
    // the answer is a Problem, entries `each` saw before it are not to be trusted. The returned Kept
    // has no facts.
    std::expected<Kept, Problem> stream(const Wanted& wanted, const Each& each) const;

    // A kept walk opened to be read twice over: every entry once in turn, then a few of them again by
    // the place each was seen at, with no list of every entry held between. The file stays mapped
    // while this lives, so the second reading sees the bytes the first did, whatever replaced the file.
    class Opened {
      public:
        const Kept& walk() const { return walk_; } // without facts
        std::size_t entries() const { return static_cast<std::size_t>(count_); }
        // Every entry in turn: its path (good while this lives), size and place, read without the
        // rest of the entry. False when the entries are damaged: those seen before are not to be trusted.
        struct Listed {
            std::string_view path;
            std::int64_t size;
            bool isFile; // not a folder or a package
        };
        bool forEachListed(const std::function<void(const Listed& entry, std::size_t place)>& each) const;
        // The whole entry forEachListed gave at `place`.
        std::optional<Facts> at(std::size_t place) const;

      private:
        friend class CatalogIndex;
        KeptBytes bytes_;
        Kept walk_;
        std::vector<SharedText> types_;
        std::uint64_t count_ = 0;
        std::size_t entriesAt_ = 0, entriesLength_ = 0;
    };
    // The file checked whole, its walk's record read, its entries left to be read.
    std::expected<Opened, Problem> open() const;

    // Replaces the file atomically (making its folder when missing); the error is the sentence.
    std::expected<void, std::string> keep(const Snapshot& snapshot, const Reading& reading) const;

    // The file's bytes, handed to `put` in pieces as they are made, as keep() writes them.
    static void encode(const LibraryScope& scope, const Snapshot& snapshot, const Reading& reading,
                       const PutPiece& put);
    // The file's bytes, and back, whatever folders they describe; exposed so a damaged file can be
    // made in a test.
    static std::string encode(const LibraryScope& scope, const Snapshot& snapshot, const Reading& reading);
    static std::expected<Kept, Problem> decode(std::string_view bytes);
    static std::expected<Kept, Problem> decodeEach(std::string_view bytes, const Wanted& wanted,
                                                   const Each& each);

  private:
    std::expected<KeptBytes, Problem> readBytes() const;

    std::filesystem::path file_;
    LibraryScope scope_;
};

} // namespace vantle
