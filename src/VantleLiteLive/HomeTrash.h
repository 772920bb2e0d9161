// The home trash: moves the user's items to the Trash, one batch at a time with a receipt, and puts
// a batch back at most once. It refuses anything outside the home, in its Library, or one of the
// home's own folders. A real run on Linux keeps the freedesktop.org layout (files/ + info/*.trashinfo,
// a disk's own .Trash-$uid for items on another disk) so the desktop's file manager shows and restores
// them; a sandbox run moves items into the sandbox's `.Trash`. Nothing is ever deleted.
// An actor: every operation takes its mutex; receipts live in memory only.
#pragma once
#include "VantleSpec/Time.h"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vantle {

class HomeTrash {
  public:
    struct Moved {
        std::filesystem::path from; // the item's former path (canonical)
        std::filesystem::path to;   // where it lies in the Trash
        std::filesystem::path info; // its .trashinfo file; empty in a sandbox's plain `.Trash`
        bool operator==(const Moved&) const = default;
    };

    struct Receipt {
        std::string id; // a UUID made for the batch
        std::vector<Moved> moved;
        std::vector<std::string> refused; // one sentence for each item not moved
        bool operator==(const Receipt&) const = default;
    };

    enum class Layout {
        plain,       // items land directly in `place` (a sandbox's `.Trash`)
        freedesktop, // files/ + info/*.trashinfo, and a disk's own .Trash-$uid
    };

    struct Options {
        std::filesystem::path home;
        std::vector<std::filesystem::path> appFolders;
        std::filesystem::path place; // the Trash folder
        Layout layout = Layout::plain;
        // Folders of the home where apps keep their own files ("Library"; on a real Linux run also
        // the XDG places) and the home's own folders, each relative to the home.
        std::vector<std::string> libraryFolders = {"Library"};
        std::vector<std::string> standardFolders = {"Desktop", "Documents", "Downloads",   "Pictures",
                                                    "Movies",  "Music",     "Applications"};
        Clock clock = systemClock();
        std::function<void(const std::filesystem::path&)> recordMove; // a sandbox's stand-in account
    };

    static constexpr std::string_view notInHome =
        "{name} is not in your home folder, so Vantle Lite leaves it alone.";
    static constexpr std::string_view inLibrary =
        "{name} is in your Library, where apps keep their own files.";
    static constexpr std::string_view ownFolder = "{name} is one of your Mac's own folders.";
    static constexpr std::string_view noLongerThere = "{name} is no longer there.";

    explicit HomeTrash(Options options);

    const std::filesystem::path& home() const { return options_.home; }
    const std::filesystem::path& place() const { return options_.place; }

    // None when the item may be moved to the Trash; else the sentence saying why not.
    std::optional<std::string> refusal(const std::filesystem::path& path) const;
    // Moves each admitted item; one refused or failed item never stops the rest.
    Receipt trash(const std::vector<std::filesystem::path>& paths);
    // The items put back (empty for an unknown receipt); the receipt is dropped either way.
    std::vector<Moved> putBack(const std::string& receiptId);
    // The bytes an item holds (a folder's whole tree, links not followed), for the question before
    // a move; read without moving any access time. Zero for what cannot be read.
    static std::uint64_t bytesOf(const std::filesystem::path& item);
    // Receipts that can still be put back, oldest first.
    std::vector<Receipt> undoable() const;

  private:
    std::optional<std::string> refusalOf(const std::filesystem::path& canonical) const;
    std::expected<Moved, std::string> moveOne(const std::filesystem::path& canonical);
    std::expected<Moved, std::string> moveInto(const std::filesystem::path& canonical,
                                               const std::filesystem::path& trash,
                                               const std::filesystem::path& infoPathBase);

    Options options_;
    std::filesystem::path canonicalHome_;
    std::vector<Receipt> undoable_;
    mutable std::mutex mutex_;
};

} // namespace vantle
