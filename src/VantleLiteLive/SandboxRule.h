// Decides whether a folder may stand in for the home folder. A sandbox must be a folder of its own:
// not a real home, not holding one, not inside a home's Library (or, on Linux, .local/share and .config), and
// with no entry that leads out of it. Checks compare paths and also devices and inodes, so a second path to
// the same folder is caught. Reads only; creates nothing. Thread-safe.
#pragma once
#include <expected>
#include <filesystem>
#include <string>
#include <vector>

namespace vantle {

struct SandboxRefusal {
    std::filesystem::path path; // the folder's standardized path
    std::string reason;
    std::string sentence;

    static constexpr std::string_view sentenceText = "{path} is not a sandbox: {reason}. A sandbox is a "
                                                     "folder of its own that stands in for the home folder.";
    static constexpr std::string_view isHome = "it is a home folder on this Mac";
    static constexpr std::string_view holdsHome = "it holds the home folder {home}";
    // {place} is the home's private folder: {home}/Library, or on Linux {home}/.local/share or
    // {home}/.config.
    static constexpr std::string_view insidePrivate = "it is inside {place}, where apps keep their own data";
    static constexpr std::string_view leadsOut = "its {entry} leads to {target}, outside it";
};

struct SandboxRule {
    // The real home folders of this machine (at least the current user's).
    std::vector<std::filesystem::path> realHomes;
    // The folders of each home, relative to it, where apps keep their own data; a sandbox may not
    // lie inside one. A real Linux machine adds `.local/share` and `.config` to `Library`.
    std::vector<std::filesystem::path> privateFolders = {"Library"};

    // The entries of a sandbox that are checked for links leading out, in this order.
    static constexpr std::string_view checkedEntries[] = {"Desktop", "Documents", "Downloads",
                                                          ".vantle", "Library",   "Applications"};

    // Accepts a folder and gives its standardized path (absolute, "." and ".." removed, links kept
    // as spelled), or refuses it with the sentence.
    std::expected<std::filesystem::path, SandboxRefusal> check(const std::filesystem::path& folder) const;

    // The current user's home plus every login account's home in the password database, each with
    // its Linux private folders.
    static SandboxRule forThisMachine();
};

std::filesystem::path standardizedPath(const std::filesystem::path& folder);

} // namespace vantle
