// The user's choices: whether the welcome was seen, the pinned sidebar folders and the saved
// searches, by key. FileSettingsStore keeps them in `Library/home.json` in the data folder — an XML
// property list despite the name, kept that way on purpose. Loaded once; every write saves the whole
// dictionary atomically. Settings never stop anything: an unreadable file reads as empty and a failed
// save is silent, leaving the value in memory for this run. Used from one thread (the main thread).
#pragma once
#include "VantleSpec/Json.h"

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace vantle {

namespace SettingsKey {
inline constexpr const char* welcomed = "welcomed";
inline constexpr const char* pinnedFolders = "pinnedFolders";
inline constexpr const char* savedSearches = "savedSearches";
} // namespace SettingsKey

class SettingsStore {
  public:
    virtual ~SettingsStore() = default;
    // Not set, or a value of another type, reads as nullopt.
    virtual std::optional<bool> boolean(const std::string& key) const = 0;
    virtual void setBoolean(const std::string& key, bool value) = 0;
    virtual std::optional<std::vector<std::string>> strings(const std::string& key) const = 0;
    virtual void setStrings(const std::string& key, const std::vector<std::string>& value) = 0;
};

class FileSettingsStore final : public SettingsStore {
  public:
    // A value of a type this program does not use (a number, a date, an array holding more than
    // strings, ...): held as the parsed property-list node, so it is written back exactly as read.
    struct Other {
        std::shared_ptr<void> node; // a plist_t, freed with plist_free
        bool operator==(const Other& other) const;
    };
    using Value = std::variant<bool, std::vector<std::string>, Other>;

    // Reads `file` once; missing, unreadable or malformed gives no values and no error.
    explicit FileSettingsStore(std::filesystem::path file);

    std::optional<bool> boolean(const std::string& key) const override;
    void setBoolean(const std::string& key, bool value) override;
    std::optional<std::vector<std::string>> strings(const std::string& key) const override;
    void setStrings(const std::string& key, const std::vector<std::string>& value) override;

    const std::filesystem::path& file() const { return file_; }

    static std::string toPropertyList(const std::map<std::string, Value>& values);
    // Every key is kept: values that are neither a Boolean nor an array of strings become Other.
    // Nesting deeper than jsonDepthLimit makes the whole file unreadable.
    static std::optional<std::map<std::string, Value>> fromPropertyList(std::string_view bytes);

  private:
    void save() const;

    std::filesystem::path file_;
    std::map<std::string, Value> values_;
};

// A saved search: its title in the sidebar and the words as the user typed them. Stored as one JSON
// text per element of `savedSearches`.
struct SavedSearch {
    std::string id;
    std::string name;
    std::string words;
    bool operator==(const SavedSearch&) const = default;
};
VANTLE_RECORD_JSON(SavedSearch, id, name, words)

// Elements that do not decode are skipped, and so disappear at the next save.
std::vector<SavedSearch> savedSearches(const SettingsStore& store);
void saveSearches(SettingsStore& store, const std::vector<SavedSearch>& searches);

// Pinned sidebar folders, relative to the home, in sidebar order; the standard pins when not set.
std::vector<std::string> pinnedFolders(const SettingsStore& store);
std::vector<std::string> standardPins();
// A path (relative to the home, or absolute under it) that may be pinned: not hidden (".name"), not
// Library or under it, not outside the home. Gives its relative spelling.
std::optional<std::string> pinnablePath(const std::filesystem::path& home,
                                        const std::filesystem::path& folder);
// False when the folder may not be pinned or is pinned already.
bool addPin(SettingsStore& store, const std::filesystem::path& home, const std::filesystem::path& folder);
bool removePin(SettingsStore& store, const std::string& pin);

} // namespace vantle
