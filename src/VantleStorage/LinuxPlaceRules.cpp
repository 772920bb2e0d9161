// The Linux homes of what the shipped rows name. Each row says what its owner's own documentation
// says about the folder (docs/platform.md lists the evidence that the owner makes it again); where a
// shipped row covers the same owner on another layout, the words are that row's words.
#include "VantleStorage/LinuxPlaceRules.h"

#include <algorithm>

namespace vantle {

std::vector<Rule> linuxPlaceRules(const LinuxPlaces& places) {
    using Owner = Precondition::Owner;
    using Age = Precondition::AgeSignal;
    std::vector<Rule> rows;
    auto under = [](const std::string& base, const char* rest) { return base + "/" + rest; };

    if (!places.cache.empty()) {
        const std::string& c = places.cache;
        rows.push_back({
            .id = "pip_cache_linux",
            .title = "pip cache",
            .explanation = "Python packages pip downloaded. It downloads them again on the next install.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "pip")},
            .precondition = {.ownerName = "pip", .processes = {"pip", "pip3"}},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "pip downloads again on the next install",
        });
        rows.push_back({
            .id = "go_build_cache_linux",
            .title = "Go build cache",
            .explanation = "What Go compiled before. It compiles again on the next build.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "go-build")},
            .precondition = {.ownerName = "Go", .processes = {"go"}},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "Go compiles again on the next build",
        });
        rows.push_back({
            .id = "yarn_cache_linux",
            .title = "Yarn cache",
            .explanation = "Packages Yarn downloaded. It downloads them again on the next install.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "yarn")},
            .precondition = {.ownerName = "Yarn", .processes = {"yarn", "yarnpkg"}},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "Yarn downloads again on the next install",
        });
        rows.push_back({
            .id = "deno_cache_linux",
            .title = "Deno cache",
            .explanation = "Packages Deno downloaded. It downloads them again when a script needs them.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "deno")},
            .precondition = {.ownerName = "Deno", .processes = {"deno"}},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "Deno downloads again when a script needs it",
        });
        rows.push_back({
            .id = "homebrew_downloads_linux",
            .title = "Homebrew downloads",
            .explanation =
                "Installers Homebrew kept after installing. It downloads them again if it needs them.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "Homebrew")},
            .precondition = {.ownerName = "Homebrew", .processes = {"brew"}},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "Homebrew downloads again if it needs it",
        });
        rows.push_back({
            .id = "poetry_cache_linux",
            .title = "Poetry cache",
            .explanation = "Packages Poetry downloaded. The same folder holds the Python environments of "
                           "your projects, which nothing rebuilds by itself.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "pypoetry")},
            .precondition = {.ownerName = "Poetry", .processes = {"poetry"}},
            .method = FreeMethod::ownersTool,
            .instruction = "Run poetry cache clear --all in Terminal.",
            .depth = ScanDepth::rules,
        });
        rows.push_back({
            .id = "ide_caches_linux",
            .title = "JetBrains and Android Studio data",
            .explanation = "Indexes of your projects, kept with each project's local history. The history is "
                           "how lost code is recovered, so only the IDE clears the rest.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "JetBrains/*"), under(c, "Google/AndroidStudio*")},
            .method = FreeMethod::ownersTool,
            .instruction = "In the IDE, choose File, then Invalidate Caches.",
            .depth = ScanDepth::rules,
        });
        rows.push_back({
            .id = "firefox_cache_linux",
            .title = "Firefox cache",
            .explanation = "Web pages, pictures and scripts Firefox keeps so sites open faster, one folder "
                           "per profile. Firefox makes them again; your bookmarks, logins and history are "
                           "kept elsewhere.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "mozilla/firefox/*")},
            .precondition = {.ownerName = "Firefox", .processes = {"firefox", "firefox-bin", "firefox-esr"}},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "Firefox makes again",
        });
        rows.push_back({
            .id = "chromium_caches_linux",
            .title = "Chrome and Chromium caches",
            .explanation = "Web pages, pictures and scripts Chrome, Chromium and the browsers built on them "
                           "keep so sites open faster. The browser makes them again; your bookmarks, logins "
                           "and history are kept elsewhere.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "google-chrome"), under(c, "google-chrome-beta"), under(c, "chromium"),
                         under(c, "BraveSoftware/*"), under(c, "microsoft-edge"), under(c, "vivaldi"),
                         under(c, "opera")},
            .precondition = {.ownerName = "browser",
                             .processes = {"chrome", "chromium", "chromium-browser", "brave", "msedge",
                                           "vivaldi-bin", "opera"}},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "its browser makes again",
        });
        rows.push_back({
            .id = "thumbnails_linux",
            .title = "Thumbnails",
            .explanation = "Small pictures of your files that file managers and image viewers keep to show "
                           "folders quickly. They are made again when a folder is next shown.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(c, "thumbnails")},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "is made again when its folder is next shown",
        });
    }

    rows.push_back({
        .id = "flatpak_app_caches",
        .title = "Caches of Flatpak apps",
        .explanation = "Files Flatpak apps keep so they open faster, one folder per app. The apps make them "
                       "again.",
        .safety = SafetyClass::a,
        .anchor = Anchor::home,
        .patterns = {".var/app/*/cache"},
        .precondition = {.owner = Owner::pathComponent(2)},
        .method = FreeMethod::remove,
        .depth = ScanDepth::rules,
        .cost = "its app makes again",
    });

    if (!places.state.empty()) {
        const std::string& s = places.state;
        // The app's folder is the first component below the state folder.
        const std::size_t app = static_cast<std::size_t>(std::ranges::count(s, '/')) + 1;
        rows.push_back({
            .id = "crash_reports_linux",
            .title = "Crash reports",
            .explanation = "Reports written when an app crashed, older than 30 days. They do not come back; "
                           "only their history is lost.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(s, "*/crashes/*"), under(s, "*/Crash Reports/*"),
                         under(s, "*/crash-reports/*")},
            .precondition = {.owner = Owner::pathComponent(app),
                             .minimumAgeDays = 30,
                             .ageSignal = Age::modified},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "loses the record of that crash",
            .comesBack = false,
        });
        rows.push_back({
            .id = "app_logs_linux",
            .title = "App logs",
            .explanation = "Logs apps wrote more than 30 days ago. The old entries do not come back; apps "
                           "start new logs.",
            .safety = SafetyClass::a,
            .anchor = Anchor::home,
            .patterns = {under(s, "*/log"), under(s, "*/logs"), under(s, "*/*.log")},
            .precondition = {.owner = Owner::pathComponent(app),
                             .minimumAgeDays = 30,
                             .ageSignal = Age::modified},
            .method = FreeMethod::remove,
            .depth = ScanDepth::rules,
            .cost = "loses those log entries",
            .comesBack = false,
        });
    }

    if (!places.data.empty())
        rows.push_back({
            .id = "trash_linux",
            .title = "The Trash",
            .explanation = "What you moved to the Trash. Emptying it is final.",
            .safety = SafetyClass::b,
            .anchor = Anchor::home,
            .patterns = {under(places.data, "Trash")},
            .method = FreeMethod::ownersTool,
            .instruction = "Choose Empty Trash in your file manager, or run gio trash --empty in Terminal.",
            .depth = ScanDepth::rules,
        });
    return rows;
}

} // namespace vantle
