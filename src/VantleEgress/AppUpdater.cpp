#include "VantleEgress/AppUpdater.h"

#include "Platform/AtomicFile.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/Uuid.h"

#include <cstdlib>
#include <ctime>
#include <plist/plist.h>
#include <sys/utsname.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

std::string localTime(TimePoint at) {
    std::time_t seconds = std::chrono::system_clock::to_time_t(at);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M", &parts);
    return text;
}

UpdateStatus statusOf(UpdateStatus::Case what, std::string version = {}) {
    UpdateStatus status;
    status.what = what;
    status.version = std::move(version);
    return status;
}

std::optional<std::string> readMarkerVersion(const fs::path& marker) {
    auto bytes = readWholeFile(marker);
    if (!bytes) return std::nullopt;
    plist_t root = nullptr;
    plist_from_memory(bytes->data(), static_cast<uint32_t>(bytes->size()), &root);
    if (!root) return std::nullopt;
    std::optional<std::string> version;
    if (plist_get_node_type(root) == PLIST_DICT)
        if (plist_t node = plist_dict_get_item(root, "version");
            node && plist_get_node_type(node) == PLIST_STRING) {
            uint64_t length = 0; // the copying getter asserts on a NUL byte inside the string
            if (const char* value = plist_get_string_ptr(node, &length)) version = std::string(value, length);
        }
    plist_free(root);
    return version;
}

std::string failureReason(const EgressFailure& failure) {
    return sentenceOf(failure);
}

} // namespace

std::string UpdateStatus::sentence() const {
    switch (what) {
    case Case::upToDate:
        return fillIn(upToDateSentence, {{"time", localTime(checked)}});
    case Case::downloading:
        return fillIn(downloadingSentence, {{"version", version}});
    case Case::ready:
        return fillIn(readySentence, {{"version", version}});
    case Case::failed:
        return failure;
    case Case::notSetUp:
        return std::string(notSetUpSentence);
    case Case::offline:
        return std::string(offlineSentence);
    case Case::idle:
        return std::string(idleSentence);
    case Case::checking:
        return std::string(checkingSentence);
    }
    return {};
}

std::string_view UpdateStatus::name() const {
    static constexpr std::string_view names[] = {"upToDate", "downloading", "ready", "failed",
                                                 "notSetUp", "offline",     "idle",  "checking"};
    return names[static_cast<int>(what)];
}

UpdateSource UpdateSource::builtIn() {
    UpdateSource source;
    source.feed = std::string(EgressIdentity::makerSite) + "/updates/lite/appcast.xml";
#ifdef VANTLE_UPDATE_KEY
    source.publicKey = VANTLE_UPDATE_KEY;
#endif
#ifdef VANTLE_UPDATE_TEAM
    source.team = VANTLE_UPDATE_TEAM;
#endif
    source.bundleIdentifier = "app.vantle.lite";
    return source;
}

AppUpdater::AppUpdater(Options options)
    : options_(std::move(options)), verifier_(options_.source.publicKey, options_.source.team,
                                              options_.source.bundleIdentifier, options_.signing) {
    if (!options_.feedBroker || !options_.downloadBroker)
        status_ = statusOf(UpdateStatus::Case::offline);
    else if (!options_.source.isSetUp())
        status_ = statusOf(UpdateStatus::Case::notSetUp);
    else if (auto version = readMarkerVersion(options_.folder / markerPath))
        status_ = statusOf(UpdateStatus::Case::ready, *version);
    else
        status_ = statusOf(UpdateStatus::Case::idle);
}

UpdateStatus AppUpdater::status() const {
    std::lock_guard lock(mutex_);
    return status_;
}

void AppUpdater::listen(std::function<void(const UpdateStatus&)> listener) {
    std::lock_guard lock(mutex_);
    listeners_.push_back(std::move(listener));
}

void AppUpdater::setStatus(UpdateStatus status) {
    std::vector<std::function<void(const UpdateStatus&)>> listeners;
    {
        std::lock_guard lock(mutex_);
        status_ = status;
        listeners = listeners_;
    }
    for (auto& listener : listeners)
        listener(status);
}

UpdateStatus AppUpdater::fail(UpdateFailure failure) {
    UpdateStatus status = statusOf(UpdateStatus::Case::failed);
    status.failure = std::move(failure.sentence);
    setStatus(status);
    return status;
}

UpdateStatus AppUpdater::checkNow() {
    std::lock_guard one(checking_);
    using Case = UpdateFailure::Case;
    if (!options_.feedBroker || !options_.downloadBroker) {
        setStatus(statusOf(UpdateStatus::Case::offline));
        return status();
    }
    if (!options_.source.isSetUp()) {
        setStatus(statusOf(UpdateStatus::Case::notSetUp));
        return status();
    }
    setStatus(statusOf(UpdateStatus::Case::checking));
    (void)writeFileAtomicallyMakingFolder(options_.folder / "last-check", isoDate(options_.clock()) + "\n",
                                          0600);

    auto feed = options_.feedBroker->send(
        EgressRequest{.purpose = LedgerEntry::Purpose::update, .url = options_.source.feed});
    if (!feed) {
        if (auto* error = std::get_if<EgressError>(&feed.error()); error && error->status)
            return fail(UpdateFailure::make(Case::feed, "status", std::to_string(*error->status)));
        return fail(UpdateFailure::make(Case::unreachable, "reason", failureReason(feed.error())));
    }
    auto items = readAppcast(feed->body);
    if (!items) return fail(UpdateFailure::make(Case::unreadableFeed));

    auto item = newestAbove(*items, options_.build);
    if (!item) {
        UpdateStatus upToDate = statusOf(UpdateStatus::Case::upToDate);
        upToDate.checked = options_.clock();
        setStatus(upToDate);
        return upToDate;
    }
    if (item->minimumSystemVersion &&
        compareVersions(*item->minimumSystemVersion, options_.systemVersion) > 0)
        return fail(UpdateFailure::make(Case::tooNew, "system version", *item->minimumSystemVersion));

    setStatus(statusOf(UpdateStatus::Case::downloading, item->shortVersion));
    auto download = options_.downloadBroker->send(
        EgressRequest{.purpose = LedgerEntry::Purpose::download, .url = item->url});
    if (!download) {
        if (auto* error = std::get_if<EgressError>(&download.error()); error && error->status)
            return fail(UpdateFailure::make(Case::download, "status", std::to_string(*error->status)));
        return fail(UpdateFailure::make(Case::unreachable, "reason", failureReason(download.error())));
    }

    auto verified = verifier_.verify(*item, download->body, options_.systemVersion);
    if (!verified) return fail(verified.error());
    if (auto kept = keep(*item, *verified, download->body); !kept) return fail(kept.error());
    setStatus(statusOf(UpdateStatus::Case::ready, item->shortVersion));
    return status();
}

std::expected<void, UpdateFailure>
AppUpdater::keep(const UpdateItem& item, const UpdateVerifier::Verified& verified, std::string_view archive) {
    auto notKept = [](const std::string& reason) {
        return std::unexpected(UpdateFailure::make(UpdateFailure::Case::notKept, "reason", reason));
    };
    std::error_code ec;
    fs::create_directories(options_.folder, ec);
    if (ec) return notKept(ec.message());
    // The app is unpacked beside its final place and moved there only once every check has held.
    fs::path staging = options_.folder / (".incoming-" + newUuid());
    struct Cleanup {
        fs::path path;
        ~Cleanup() {
            std::error_code ignored;
            if (!path.empty()) fs::remove_all(path, ignored);
        }
    } cleanup{staging};
    if (auto unpacked = UpdateVerifier::unpack(archive, staging); !unpacked) return notKept(unpacked.error());
    if (auto signing = verifier_.verifySigning(staging / verified.appName); !signing)
        return std::unexpected(signing.error());

    fs::path app = options_.folder / verified.appName;
    fs::remove(options_.folder / markerPath, ec);
    fs::remove_all(app, ec);
    fs::rename(staging / verified.appName, app, ec);
    if (ec) return notKept(ec.message());

    plist_t marker = plist_new_dict();
    plist_dict_set_item(marker, "version", plist_new_string(item.shortVersion.c_str()));
    plist_dict_set_item(marker, "build", plist_new_string(item.build.c_str()));
    plist_dict_set_item(marker, "app", plist_new_string(app.c_str()));
    plist_dict_set_item(marker, "verifiedAt", plist_new_string(isoDate(options_.clock()).c_str()));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(marker, &xml, &length);
    plist_free(marker);
    std::string text(xml ? xml : "", length);
    std::free(xml);
    if (auto written = writeFileAtomicallyMakingFolder(options_.folder / markerPath, text, 0600); !written) {
        fs::remove_all(app, ec);
        return notKept(written.error());
    }
    return {};
}

TimePoint AppUpdater::nextCheck(std::optional<TimePoint> lastCheck, TimePoint now) {
    if (!lastCheck) return now;
    std::time_t seconds = std::chrono::system_clock::to_time_t(*lastCheck);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    parts.tm_mday += 1;
    parts.tm_hour = dailyCheckHour;
    parts.tm_min = parts.tm_sec = 0;
    parts.tm_isdst = -1;
    TimePoint due = std::chrono::system_clock::from_time_t(std::mktime(&parts));
    return due < now ? now : due;
}

bool AppUpdater::isTranslocated(const fs::path& runningApp) {
    return runningApp.string().find("/AppTranslocation/") != std::string::npos;
}

std::string AppUpdater::thisSystemVersion() {
    utsname names{};
    if (::uname(&names) != 0) return "0";
    std::string release = names.release;
    auto end = release.find_first_not_of("0123456789.");
    return release.substr(0, end);
}

} // namespace vantle
