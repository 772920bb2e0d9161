#include "VantleLiteLive/StartupItems.h"

#include "Platform/EntryMove.h"
#include "Platform/RenameNoReplace.h"
#include "Platform/SystemError.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/Uuid.h"

#include <algorithm>
#include <set>

namespace vantle {

namespace fs = std::filesystem;

namespace {

std::vector<StartupItems::Item> filesIn(const fs::path& folder, std::string_view extension) {
    std::vector<StartupItems::Item> out;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        auto name = it->path().filename().string();
        if (extension.empty() || name.ends_with(extension)) out.push_back({name, it->path(), false});
    }
    std::ranges::sort(out, {}, &StartupItems::Item::name);
    return out;
}

} // namespace

StartupItems::StartupItems(Options options) : options_(std::move(options)) {}

std::vector<StartupItems::Item> StartupItems::list() const {
    std::lock_guard lock(mutex_);
    auto out = filesIn(options_.agents, options_.extension);
    // `systemctl --user enable` leaves a link in a target's .wants folder; those links are the list.
    std::set<std::string> seen;
    std::vector<Item> services;
    for (const auto& folder : options_.serviceFolders) {
        std::error_code ec;
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
            auto wants = it->path().filename().string();
            if (!wants.ends_with(".wants")) continue;
            for (auto& item : filesIn(it->path(), ".service"))
                if (seen.insert(item.name).second) services.push_back({item.name, item.path, true});
        }
    }
    std::ranges::sort(services, {}, &Item::name);
    out.insert(out.end(), services.begin(), services.end());
    return out;
}

std::vector<StartupItems::Item> StartupItems::turnedOff() const {
    std::lock_guard lock(mutex_);
    return filesIn(options_.turnedOff, {});
}

std::expected<fs::path, std::string> StartupItems::turnOff(const fs::path& agent) {
    std::lock_guard lock(mutex_);
    auto canonical = canonicalForm(agent);
    auto name = canonical.filename().string();
    if (canonical.parent_path() != canonicalForm(options_.agents) || !name.ends_with(options_.extension) ||
        name == options_.extension)
        return std::unexpected(std::string(notOwnAgent));
    auto from = openFolderAt(canonical.parent_path());
    if (!from || !entryExists(from->get(), name))
        return std::unexpected(fillIn(noLongerThere, {{"name", name}}));
    auto heldFolder = canonicalForm(options_.turnedOff);
    auto to = openFolderAt(heldFolder, true, 0700);
    if (!to)
        return std::unexpected(fillIn(notMoved, {{"name", name}, {"reason", systemErrorText(to.error())}}));
    auto heldName = name;
    if (entryExists(to->get(), heldName)) heldName = newUuid() + "-" + name;
    if (auto moved = renameNoReplace(from->get(), name.c_str(), to->get(), heldName.c_str()); !moved)
        return std::unexpected(
            fillIn(notMoved, {{"name", name}, {"reason", systemErrorText(moved.error())}}));
    if (entryExists(from->get(), name) || !entryExists(to->get(), heldName))
        return std::unexpected(fillIn(notMoved, {{"name", name}, {"reason", systemErrorText(EIO)}}));
    return heldFolder / heldName;
}

bool StartupItems::turnBackOn(const fs::path& held, const fs::path& former) {
    std::lock_guard lock(mutex_);
    auto heldPath = canonicalForm(held), formerPath = canonicalForm(former);
    // Only a file this service holds, and only home to the startup folder.
    if (heldPath.parent_path() != canonicalForm(options_.turnedOff) ||
        formerPath.parent_path() != canonicalForm(options_.agents))
        return false;
    auto from = openFolderAt(heldPath.parent_path());
    if (!from || !entryExists(from->get(), heldPath.filename().string())) return false;
    auto to = openFolderAt(formerPath.parent_path(), true);
    if (!to || entryExists(to->get(), formerPath.filename().string())) return false;
    if (!renameNoReplace(from->get(), heldPath.filename().c_str(), to->get(), formerPath.filename().c_str()))
        return false;
    return entryExists(to->get(), formerPath.filename().string());
}

} // namespace vantle
