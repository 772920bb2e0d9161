// Matching places against the rule table: which rule claims a path, and how a walk of folders is
// steered one entry at a time.
#include "VantleStorage/RuleTable.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <ranges>
#include <sstream>

using namespace vantle;

namespace {

std::vector<std::string> split(std::string_view path) {
    std::vector<std::string> parts;
    for (auto part : std::views::split(path, '/'))
        parts.emplace_back(part.begin(), part.end());
    return parts;
}

// The id of the rule that claims `path`, or "" when none does.
std::string claimedBy(std::string_view path, Anchor anchor = Anchor::home) {
    auto index = RuleTable::shared().claimant(anchor, split(path));
    return index ? RuleTable::shared()[*index].id : "";
}

bool matches(std::string_view id, std::string_view path) {
    return RuleTable::shared().matches(*RuleTable::shared().indexOf(id), split(path));
}

// A folder tree in memory, walked the way the scanner walks a disk: one folder at a time, stepping the
// matcher through each entry and going in only where it says so.
struct Tree {
    std::map<std::string, std::unique_ptr<Tree>> entries; // null: a file

    void add(std::string_view path) {
        Tree* at = this;
        auto parts = split(path);
        for (std::size_t i = 0; i < parts.size(); ++i) {
            auto& slot = at->entries[parts[i]];
            if (i + 1 < parts.size() && !slot) slot = std::make_unique<Tree>();
            at = slot.get();
        }
    }
};

struct Walk {
    std::multimap<std::string, std::string> items; // rule id -> path
    std::vector<std::string> entered;              // folders the walk opened
};

void walk(const RuleMatcher& matcher, const Tree& folder, const RuleMatcher::Place& place, Walk& out) {
    for (const auto& [name, child] : folder.entries) {
        auto step = matcher.step(place, name);
        auto parts = place.partsWith(name);
        std::string path;
        for (const auto& part : parts)
            path += (path.empty() ? "" : "/") + part;
        if (step.rule) out.items.emplace(RuleTable::shared()[*step.rule].id, path);
        if (step.inside && child) {
            EXPECT_TRUE(std::ranges::equal(step.inside->parts(), parts));
            out.entered.push_back(path);
            walk(matcher, *child, *step.inside, out);
        }
    }
}

Walk walk(const Tree& tree, ScanDepth depth, std::optional<std::set<std::string>> only = std::nullopt,
          Anchor anchor = Anchor::home) {
    RuleMatcher matcher(RuleTable::shared(), anchor, RuleSelection(RuleTable::shared(), depth, only));
    Walk out;
    walk(matcher, tree, matcher.root(), out);
    return out;
}

std::set<std::string> itemsOf(const Walk& w, std::string_view id) {
    std::set<std::string> out;
    for (auto [it, end] = w.items.equal_range(std::string(id)); it != end; ++it)
        out.insert(it->second);
    return out;
}

bool entered(const Walk& w, std::string_view path) {
    return std::ranges::find(w.entered, path) != w.entered.end();
}

Tree sampleHome() {
    Tree home;
    for (auto path : {"Documents/report.txt",
                      "Downloads/tool.dmg",
                      "Downloads/notes.txt",
                      "projects/app/main.c",
                      ".cache/huggingface/hub/model.bin",
                      ".cache/pip/wheels/a.whl",
                      ".cache/gallery-dl/cookies",
                      ".Trash/old.txt",
                      "Library/Caches/Homebrew/wget.tar.gz",
                      "Library/Caches/com.apple.Safari/Cache.db",
                      "Library/Caches/Google/AndroidStudio2024.1/index",
                      "Library/Caches/Google/Chrome/Default/data",
                      "Library/Caches/JetBrains/IntelliJIdea/index",
                      "Library/Caches/com.example.Editor/cache.db",
                      "Library/Logs/DiagnosticReports/Editor.ips",
                      "Library/Logs/Editor/editor.log",
                      "Library/Logs/com.apple.xpc/launchd.log",
                      "Library/Containers/com.apple.Notes/Data/Library/Caches/x",
                      "Library/Containers/com.example.Notes/Data/Library/Caches/net/x",
                      "Library/Application Support/Slack/Cache/data_0",
                      "Library/Application Support/Slack/settings.json"})
        home.add(path);
    return home;
}

} // namespace

TEST(RuleMatching, NamedPlacesWinOverTheCatchAllsThatWouldAlsoTakeThem) {
    // Android Studio keeps its caches beside Chrome's, but only the IDE may clear them.
    EXPECT_EQ(claimedBy("Library/Caches/Google/AndroidStudio2024.1"), "ide_caches");
    EXPECT_EQ(claimedBy("Library/Caches/Google/androidstudio4.2"), "ide_caches");
    EXPECT_FALSE(matches("google_app_caches", "Library/Caches/Google/AndroidStudio2024.1"));
    EXPECT_FALSE(matches("app_caches", "Library/Caches/Google/AndroidStudio2024.1"));
    EXPECT_EQ(claimedBy("Library/Caches/Google/Chrome"), "google_app_caches");
    EXPECT_EQ(claimedBy("Library/Caches/Google"), "");
    EXPECT_EQ(claimedBy("Library/Caches/JetBrains"), "");
    EXPECT_EQ(claimedBy("Library/Caches/JetBrains/IntelliJIdea2024.2"), "ide_caches");

    EXPECT_EQ(claimedBy("Library/Caches/com.apple.Safari"), "apple_caches");
    EXPECT_EQ(claimedBy("Library/Caches/CloudKit"), "apple_caches");
    EXPECT_FALSE(matches("app_caches", "Library/Caches/com.apple.Safari"));
    EXPECT_EQ(claimedBy("Library/Caches/com.example.Editor"), "app_caches");
    EXPECT_EQ(claimedBy("Library/Caches/Homebrew"), "homebrew_downloads");
    EXPECT_EQ(claimedBy("Library/Caches/rclone"), "kept_tool_data");

    EXPECT_EQ(claimedBy(".cache/huggingface"), "huggingface_downloads");
    EXPECT_EQ(claimedBy(".cache/uv"), "uv_cache");
    EXPECT_EQ(claimedBy(".cache/gallery-dl"), "kept_tool_data");
    EXPECT_EQ(claimedBy(".cache/pip"), "tool_caches");
    EXPECT_TRUE(matches("tool_caches", ".cache/huggingface")); // the catch-all would take it; order decides

    EXPECT_EQ(claimedBy("Documents"), "documents");
    EXPECT_EQ(claimedBy(".Trash"), "trash");
    EXPECT_EQ(claimedBy("projects"), "home_other");
    EXPECT_EQ(claimedBy("Library"), "home_other");
}

TEST(RuleMatching, ExclusionsTakeThePlaceAndEverythingUnderIt) {
    EXPECT_EQ(claimedBy("Library/Logs/DiagnosticReports/Editor-2024.ips"), "crash_reports");
    EXPECT_FALSE(matches("app_logs", "Library/Logs/DiagnosticReports"));
    EXPECT_EQ(claimedBy("Library/Logs/DiagnosticReports"), "");
    EXPECT_EQ(claimedBy("Library/Logs/com.apple.xpc.launchd"), "");
    EXPECT_EQ(claimedBy("Library/Logs/COM.APPLE.xpc"), "");
    EXPECT_EQ(claimedBy("Library/Logs/Editor"), "app_logs");

    auto savedState = [](std::string_view container) {
        return "Library/Containers/" + std::string(container) +
               "/Data/Library/Saved Application State/app.savedState";
    };
    EXPECT_EQ(claimedBy(savedState("com.apple.Notes")), "");
    EXPECT_EQ(claimedBy(savedState("com.example.Notes")), "saved_app_state");
    EXPECT_EQ(claimedBy("Library/Saved Application State/com.apple.Terminal.savedState"), "saved_app_state");
    EXPECT_EQ(claimedBy("Library/Saved Application State/notes.txt"), "");

    EXPECT_EQ(claimedBy("Library/Containers/com.apple.Notes/Data/Library/Caches/x"), "");
    EXPECT_EQ(claimedBy("Library/Containers/com.example.Notes/Data/Library/Caches/x"),
              "sandboxed_app_caches");
    EXPECT_EQ(claimedBy("Library/Application Support/Slack/Code Cache"), "browser_engine_caches");
    EXPECT_EQ(claimedBy("Library/Application Support/com.apple.TV/Cache"), "");
    EXPECT_EQ(claimedBy("Library/Application Support/MobileSync/Cache"), "");
}

TEST(RuleMatching, EachAnchorHasItsOwnRules) {
    EXPECT_EQ(claimedBy("Applications/Install macOS Sequoia.app", Anchor::system), "macos_installers");
    EXPECT_EQ(claimedBy("Applications/Install macOS Sequoia.app", Anchor::home), "");
    EXPECT_EQ(claimedBy("Applications", Anchor::system), "applications");
    EXPECT_EQ(claimedBy("Applications", Anchor::home), "home_other");
    EXPECT_EQ(claimedBy("Library/Developer/CoreSimulator/Images", Anchor::system), "simulator_runtimes");
    EXPECT_EQ(claimedBy("Library/Developer", Anchor::system), "shared_tools");
    EXPECT_EQ(claimedBy("Library/Developer", Anchor::home), "");
    EXPECT_EQ(claimedBy("private/var/folders", Anchor::system), "system_working_data");
    EXPECT_EQ(claimedBy("home", Anchor::system), "");
}

TEST(RuleMatching, NeverMatchesEmptyDotOrSlashedComponents) {
    // "*" alone would take any of these, so the components must be refused before matching.
    for (auto bad : {"", ".", "..", "Library/Caches"}) {
        std::vector<std::string> parts{bad};
        EXPECT_EQ(RuleTable::shared().claimant(Anchor::home, parts), std::nullopt) << bad;
        EXPECT_FALSE(RuleTable::shared().matches(*RuleTable::shared().indexOf("home_other"), parts)) << bad;
    }
    EXPECT_EQ(claimedBy("Library/Caches/../Caches/Homebrew"), "");
    EXPECT_EQ(claimedBy(".cache/./pip"), "");
    EXPECT_EQ(RuleTable::shared().claimant(Anchor::home, {}), std::nullopt);
    EXPECT_FALSE(RuleTable::shared().matches(RuleTable::shared().size(), split("Documents")));

    RuleMatcher matcher(RuleTable::shared(), Anchor::home,
                        RuleSelection(RuleTable::shared(), ScanDepth::full));
    for (auto bad : {"", ".", "..", "a/b"}) {
        auto step = matcher.step(matcher.root(), bad);
        EXPECT_FALSE(step.rule) << bad;
        EXPECT_FALSE(step.inside) << bad;
    }
}

TEST(RuleWalk, FindsEachItemOnceUnderTheRuleThatClaimsIt) {
    auto home = sampleHome();
    auto w = walk(home, ScanDepth::rules);
    EXPECT_EQ(itemsOf(w, "ide_caches"), (std::set<std::string>{"Library/Caches/Google/AndroidStudio2024.1",
                                                               "Library/Caches/JetBrains/IntelliJIdea"}));
    EXPECT_EQ(itemsOf(w, "google_app_caches"), (std::set<std::string>{"Library/Caches/Google/Chrome"}));
    EXPECT_EQ(itemsOf(w, "app_caches"), (std::set<std::string>{"Library/Caches/com.example.Editor"}));
    EXPECT_EQ(itemsOf(w, "apple_caches"), (std::set<std::string>{"Library/Caches/com.apple.Safari"}));
    EXPECT_EQ(itemsOf(w, "tool_caches"), (std::set<std::string>{".cache/pip"}));
    EXPECT_EQ(itemsOf(w, "crash_reports"),
              (std::set<std::string>{"Library/Logs/DiagnosticReports/Editor.ips"}));
    EXPECT_EQ(itemsOf(w, "app_logs"), (std::set<std::string>{"Library/Logs/Editor"}));
    EXPECT_EQ(itemsOf(w, "old_installers"), (std::set<std::string>{"Downloads/tool.dmg"}));
    EXPECT_EQ(itemsOf(w, "sandboxed_app_caches"),
              (std::set<std::string>{"Library/Containers/com.example.Notes/Data/Library/Caches/net"}));
    EXPECT_EQ(itemsOf(w, "browser_engine_caches"),
              (std::set<std::string>{"Library/Application Support/Slack/Cache"}));

    // The walk agrees with whole-path matching, and no path is an item twice.
    std::set<std::string> seen;
    for (const auto& [id, path] : w.items) {
        EXPECT_TRUE(seen.insert(path).second) << path;
        EXPECT_EQ(claimedBy(path), id) << path;
    }
    // A rules-depth scan measures none of the user's own folders.
    for (const auto& [id, path] : w.items)
        EXPECT_EQ(RuleTable::shared().find(id)->depth, ScanDepth::rules) << id;
}

TEST(RuleWalk, GoesInOnlyWhereAMeasuredPatternLeads) {
    auto home = sampleHome();
    auto w = walk(home, ScanDepth::rules);
    EXPECT_FALSE(entered(w, "Documents"));
    EXPECT_FALSE(entered(w, "projects"));
    EXPECT_TRUE(entered(w, "Library/Caches/Google"));
    EXPECT_TRUE(entered(w, "Library/Logs/DiagnosticReports"));
    // Inside an item nothing reaches further, and an excluded container is never opened.
    EXPECT_FALSE(entered(w, "Library/Caches/Homebrew"));
    EXPECT_FALSE(entered(w, ".cache/pip"));
    EXPECT_FALSE(entered(w, "Library/Containers/com.apple.Notes"));
    EXPECT_TRUE(entered(w, "Library/Containers/com.example.Notes"));
    EXPECT_FALSE(entered(w, "Library/Logs/com.apple.xpc"));
}

TEST(RuleWalk, AFullScanAlsoTakesTheUsersFoldersAndLeavesNestedItemsToTheirOwnRules) {
    auto home = sampleHome();
    auto w = walk(home, ScanDepth::full);
    EXPECT_EQ(itemsOf(w, "documents"), (std::set<std::string>{"Documents"}));
    EXPECT_EQ(itemsOf(w, "downloads"), (std::set<std::string>{"Downloads"}));
    EXPECT_EQ(itemsOf(w, "home_other"), (std::set<std::string>{".cache", "Library", "projects"}));
    EXPECT_EQ(itemsOf(w, "trash"), (std::set<std::string>{".Trash"}));
    // Downloads is an item and also holds one: whoever sizes Downloads steps in and leaves the installer out.
    EXPECT_TRUE(entered(w, "Downloads"));
    EXPECT_EQ(itemsOf(w, "old_installers"), (std::set<std::string>{"Downloads/tool.dmg"}));
    EXPECT_EQ(itemsOf(w, "app_data"), (std::set<std::string>{"Library/Application Support"}));
    EXPECT_EQ(itemsOf(w, "browser_engine_caches"),
              (std::set<std::string>{"Library/Application Support/Slack/Cache"}));
}

TEST(RuleWalk, ARuleLeftOutOfTheScanStillTakesWhatItClaimsFirst) {
    auto home = sampleHome();
    // Measuring only the catch-all must not hand it the caches that named rules keep for themselves.
    auto w = walk(home, ScanDepth::rules, std::set<std::string>{"app_caches"});
    EXPECT_EQ(itemsOf(w, "app_caches"), (std::set<std::string>{"Library/Caches/com.example.Editor"}));
    EXPECT_EQ(w.items.size(), 1u);
    EXPECT_FALSE(entered(w, ".cache"));
    EXPECT_FALSE(entered(w, "Library/Logs"));

    auto none = walk(home, ScanDepth::rules, std::set<std::string>{"documents", "not_a_rule"});
    EXPECT_TRUE(none.items.empty());
    EXPECT_TRUE(none.entered.empty());
    RuleSelection selection(RuleTable::shared(), ScanDepth::rules,
                            std::set<std::string>{"documents", "macos_installers"});
    EXPECT_EQ(selection.count(), 1u);
    EXPECT_TRUE(selection.touches(Anchor::system));
    EXPECT_FALSE(selection.touches(Anchor::home));
}

TEST(RuleWalk, SystemAnchorFindsInstallersOnlyThere) {
    Tree root;
    for (auto path :
         {"Applications/Install macOS Sequoia.app/Contents/Info.plist", "Applications/Editor.app/x",
          "opt/homebrew/bin/brew", "home/user/Applications/Install macOS Sonoma.app/x"})
        root.add(path);
    auto rules = walk(root, ScanDepth::rules, std::nullopt, Anchor::system);
    EXPECT_EQ(itemsOf(rules, "macos_installers"),
              (std::set<std::string>{"Applications/Install macOS Sequoia.app"}));
    EXPECT_EQ(rules.items.size(), 1u);
    EXPECT_FALSE(entered(rules, "home"));
    auto full = walk(root, ScanDepth::full, std::nullopt, Anchor::system);
    EXPECT_EQ(itemsOf(full, "applications"), (std::set<std::string>{"Applications"}));
    EXPECT_EQ(itemsOf(full, "shared_tools"), (std::set<std::string>{"opt"}));
    EXPECT_FALSE(entered(full, "home"));

    Tree home;
    home.add("Applications/Install macOS Sonoma.app/x");
    EXPECT_TRUE(walk(home, ScanDepth::rules).items.empty());
}
