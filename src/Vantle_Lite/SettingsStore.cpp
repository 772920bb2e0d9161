#include "Vantle_Lite/SettingsStore.h"

#include "Platform/AtomicFile.h"
#include "Platform/KeptFile.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <plist/plist.h>

namespace vantle {

namespace {

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree>;

struct CFree {
    void operator()(void* p) const { std::free(p); }
};

// A string or key read from a file may hold a NUL byte, and libplist's own copy then keeps the
// full length over a buffer cut at the NUL, which it later reads past when writing. So strings and
// keys are copied here as the C strings libplist will treat them as; other leaves hold no text.
plist_t copyOfValue(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
        uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        return plist_new_string(text ? text : "");
    }
    case PLIST_ARRAY: {
        plist_t copy = plist_new_array();
        for (uint32_t i = 0, n = plist_array_get_size(node); i < n; ++i)
            plist_array_append_item(copy, copyOfValue(plist_array_get_item(node, i)));
        return copy;
    }
    case PLIST_DICT: {
        plist_t copy = plist_new_dict();
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        std::unique_ptr<void, CFree> ownedIter(iter);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, iter, &key, &item);
            std::unique_ptr<char, CFree> ownedKey(key);
            if (!key || !item) break;
            plist_dict_set_item(copy, key, copyOfValue(item));
        }
        return copy;
    }
    default:
        return plist_copy(node);
    }
}

FileSettingsStore::Value valueOf(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return FileSettingsStore::Value{b != 0};
    }
    case PLIST_ARRAY: {
        std::vector<std::string> list;
        bool allStrings = true;
        for (uint32_t i = 0, n = plist_array_get_size(node); i < n && allStrings; ++i) {
            plist_t item = plist_array_get_item(node, i);
            if (plist_get_node_type(item) != PLIST_STRING) {
                allStrings = false;
                break;
            }
            // The copying getter asserts on a string that holds a NUL byte; this one gives the length.
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(item, &length);
            list.emplace_back(text ? std::string(text, length) : std::string());
        }
        if (allStrings) return FileSettingsStore::Value{std::move(list)};
        break;
    }
    default:
        break;
    }
    return FileSettingsStore::Value{
        FileSettingsStore::Other{std::shared_ptr<void>(copyOfValue(node), plist_free)}};
}

// libplist builds and frees nested values recursively, so a hostile file's nesting is measured
// on the text before it is handed over. Counts opening <array> and <dict> tags against closing ones.
bool nestsTooDeeply(std::string_view xml) {
    int depth = 0;
    for (size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
        auto tag = xml.substr(at + 1);
        // Any spelling of an opening tag counts ("<array >" too); an empty "<array/>" may be
        // counted as well, which only errs on the safe side.
        auto opens = [&](std::string_view name) {
            return tag.starts_with(name) && tag.size() > name.size() && tag[name.size()] != '/' &&
                   (tag[name.size()] == '>' || std::isspace(static_cast<unsigned char>(tag[name.size()])));
        };
        if (opens("array") || opens("dict")) {
            if (++depth > jsonDepthLimit) return true;
        } else if (tag.starts_with("/array") || tag.starts_with("/dict")) {
            --depth;
        }
    }
    return false;
}

} // namespace

bool FileSettingsStore::Other::operator==(const Other& other) const {
    return node && other.node && plist_compare_node_value(node.get(), other.node.get());
}

std::string FileSettingsStore::toPropertyList(const std::map<std::string, Value>& values) {
    PlistPtr dict(plist_new_dict());
    for (const auto& [key, value] : values) {
        plist_t node;
        if (auto* b = std::get_if<bool>(&value)) {
            node = plist_new_bool(*b ? 1 : 0);
        } else if (auto* other = std::get_if<Other>(&value)) {
            node = plist_copy(other->node.get());
        } else {
            node = plist_new_array();
            for (const auto& s : std::get<std::vector<std::string>>(value))
                plist_array_append_item(node, plist_new_string(s.c_str()));
        }
        plist_dict_set_item(dict.get(), key.c_str(), node);
    }
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(dict.get(), &xml, &length);
    std::unique_ptr<char, CFree> owned(xml);
    return xml ? std::string(xml, length) : std::string();
}

std::optional<std::map<std::string, FileSettingsStore::Value>>
FileSettingsStore::fromPropertyList(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > UINT32_MAX) return std::nullopt;
    plist_t root = nullptr;
    // XML as written here, or binary; anything else (JSON text included) is not a settings file.
    if (bytes.starts_with("bplist00"))
        plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    else if (!nestsTooDeeply(bytes))
        plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    PlistPtr owned(root);
    if (!root || plist_get_node_type(root) != PLIST_DICT) return std::nullopt;

    std::map<std::string, Value> values;
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(root, &iter);
    std::unique_ptr<void, CFree> ownedIter(iter);
    for (;;) {
        char* key = nullptr;
        plist_t node = nullptr;
        plist_dict_next_item(root, iter, &key, &node);
        std::unique_ptr<char, CFree> ownedKey(key);
        if (!key || !node) break;
        values.emplace(key, valueOf(node));
    }
    return values;
}

FileSettingsStore::FileSettingsStore(std::filesystem::path file) : file_(std::move(file)) {
    if (auto bytes = readKeptFile(file_))
        if (auto values = fromPropertyList(*bytes)) values_ = std::move(*values);
}

void FileSettingsStore::save() const {
    // Silent by design: settings never stop the program, and the value stays in memory for this run.
    (void)writeFileAtomicallyMakingFolder(file_, toPropertyList(values_), 0600);
}

std::optional<bool> FileSettingsStore::boolean(const std::string& key) const {
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    if (auto* b = std::get_if<bool>(&it->second)) return *b;
    return std::nullopt;
}

void FileSettingsStore::setBoolean(const std::string& key, bool value) {
    values_[key] = value;
    save();
}

std::optional<std::vector<std::string>> FileSettingsStore::strings(const std::string& key) const {
    auto it = values_.find(key);
    if (it == values_.end()) return std::nullopt;
    if (auto* list = std::get_if<std::vector<std::string>>(&it->second)) return *list;
    return std::nullopt;
}

void FileSettingsStore::setStrings(const std::string& key, const std::vector<std::string>& value) {
    values_[key] = value;
    save();
}

std::vector<SavedSearch> savedSearches(const SettingsStore& store) {
    std::vector<SavedSearch> out;
    for (const auto& text : store.strings(SettingsKey::savedSearches).value_or(std::vector<std::string>{}))
        if (auto saved = decodeJson<SavedSearch>(text)) out.push_back(std::move(*saved));
    return out;
}

void saveSearches(SettingsStore& store, const std::vector<SavedSearch>& searches) {
    std::vector<std::string> encoded;
    for (const auto& s : searches)
        encoded.push_back(encodeJson(s));
    store.setStrings(SettingsKey::savedSearches, encoded);
}

std::vector<std::string> standardPins() {
    return {"Desktop", "Documents", "Downloads", "Pictures", "Music", "Videos"};
}

std::vector<std::string> pinnedFolders(const SettingsStore& store) {
    return store.strings(SettingsKey::pinnedFolders).value_or(standardPins());
}

std::optional<std::string> pinnablePath(const std::filesystem::path& home,
                                        const std::filesystem::path& folder) {
    auto relative = folder.is_absolute()
                        ? folder.lexically_normal().lexically_relative(home.lexically_normal())
                        : folder.lexically_normal();
    auto text = relative.string();
    while (!text.empty() && text.back() == '/')
        text.pop_back();
    if (text.empty() || text == "." || text.starts_with("..") || text.starts_with("/")) return std::nullopt;
    if (text.front() == '.' || text == "Library" || text.starts_with("Library/")) return std::nullopt;
    return text;
}

bool addPin(SettingsStore& store, const std::filesystem::path& home, const std::filesystem::path& folder) {
    auto pin = pinnablePath(home, folder);
    if (!pin) return false;
    auto pins = pinnedFolders(store);
    if (std::find(pins.begin(), pins.end(), *pin) != pins.end()) return false;
    pins.push_back(*pin);
    store.setStrings(SettingsKey::pinnedFolders, pins);
    return true;
}

bool removePin(SettingsStore& store, const std::string& pin) {
    auto pins = pinnedFolders(store);
    if (std::erase(pins, pin) == 0) return false;
    store.setStrings(SettingsKey::pinnedFolders, pins);
    return true;
}

} // namespace vantle
