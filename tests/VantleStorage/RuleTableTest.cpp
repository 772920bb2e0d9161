// The shipped rule table: its rows, what they let the system do, their words, and how a table is
// compiled and looked up.
#include "VantleStorage/RuleTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ranges>
#include <set>
#include <unordered_set>

using namespace vantle;

namespace {

const Rule& rule(std::string_view id) {
    const Rule* found = RuleTable::shared().find(id);
    if (!found) throw std::runtime_error("no rule " + std::string(id));
    return *found;
}

std::set<std::string> idsWhere(auto predicate) {
    std::set<std::string> out;
    for (const auto& r : RuleTable::shared().rules())
        if (predicate(r)) out.insert(r.id);
    return out;
}

Rule wellFormed(std::string id) {
    Rule r;
    r.id = std::move(id);
    r.title = "Sample";
    r.patterns = {"Library/Caches/*"};
    return r;
}

} // namespace

TEST(RuleTable, ShipsFiftySixRulesFromTheParticularToTheGeneral) {
    ASSERT_EQ(RuleTable::shared().size(), 56u);
    EXPECT_EQ(RuleTable::shared()[0].id, "xcode_build_data");
    EXPECT_EQ(RuleTable::shared()[55].id, "home_other");

    std::unordered_set<std::string> ids;
    for (const auto& r : RuleTable::shared().rules())
        EXPECT_TRUE(ids.insert(r.id).second) << r.id << " appears twice";

    // The user's own folders and the system's areas close the table, and only they wait for a full scan.
    for (std::size_t i = 0; i < RuleTable::shared().size(); ++i)
        EXPECT_EQ(RuleTable::shared()[i].depth, i >= 44 ? ScanDepth::full : ScanDepth::rules)
            << RuleTable::shared()[i].id;

    // Every named cache stands before the catch-alls that would also take it.
    auto position = [](std::string_view id) { return *RuleTable::shared().indexOf(id); };
    for (auto named : {"homebrew_downloads", "yarn_cache", "pip_cache", "cocoapods_cache", "swiftpm_cache",
                       "go_build_cache", "deno_cache", "poetry_cache", "kept_tool_data", "uv_cache",
                       "huggingface_downloads", "ide_caches", "apple_caches"})
        for (auto catchAll : {"google_app_caches", "tool_caches", "app_caches"})
            EXPECT_LT(position(named), position(catchAll)) << named << " after " << catchAll;
}

TEST(RuleTable, EachPatternIsClaimedByItsOwnRuleNotByALaterCatchAll) {
    // Put a plain name in place of every "*"; the rule the pattern belongs to must take the result.
    for (std::size_t i = 0; i < RuleTable::shared().size(); ++i) {
        const Rule& r = RuleTable::shared()[i];
        for (const auto& glob : RuleTable::shared().compiled(i).patterns) {
            std::vector<std::string> parts;
            for (auto component : glob) {
                for (auto star = component.find('*'); star != std::string::npos; star = component.find('*'))
                    component.replace(star, 1, "Sample");
                parts.push_back(component);
            }
            auto claimant = RuleTable::shared().claimant(r.anchor, parts);
            ASSERT_TRUE(claimant) << r.id;
            EXPECT_EQ(RuleTable::shared()[*claimant].id, r.id);
        }
    }
}

TEST(RuleTable, OnlyHomeRulesOfClassAWithRemoveOrClassBWithHoldLetTheSystemFree) {
    auto freeing = idsWhere([](const Rule& r) { return r.letsSystemFree(); });
    EXPECT_EQ(freeing.size(), 26u);
    EXPECT_EQ(idsWhere([](const Rule& r) { return r.letsSystemFree() && r.safety == SafetyClass::b; }),
              (std::set<std::string>{"xcode_device_support", "xcode_archives", "device_software",
                                     "old_installers"}));

    // A class A rule whose owner's tool must clear it is measured, never freed.
    EXPECT_EQ(rule("uv_cache").safety, SafetyClass::a);
    EXPECT_FALSE(rule("uv_cache").letsSystemFree());
    EXPECT_FALSE(rule("macos_installers").letsSystemFree());

    // The anchor alone decides: the same class and method anchored at the system root frees nothing.
    Rule elsewhere = rule("app_caches");
    ASSERT_TRUE(elsewhere.letsSystemFree());
    elsewhere.anchor = Anchor::system;
    EXPECT_FALSE(elsewhere.letsSystemFree());
    Rule held = rule("old_installers");
    held.method = FreeMethod::remove;
    EXPECT_FALSE(held.letsSystemFree());
}

TEST(RuleTable, WordsAndFlagsFollowWhatEachRuleLetsTheSystemDo) {
    for (const auto& r : RuleTable::shared().rules()) {
        EXPECT_FALSE(r.title.empty()) << r.id;
        EXPECT_TRUE(r.explanation.ends_with(".")) << r.id;
        // A cost is only ever worded where the system deletes something itself.
        EXPECT_EQ(r.cost.has_value(), r.letsSystemFree() && r.method == FreeMethod::remove) << r.id;
        EXPECT_EQ(r.instruction.has_value(), r.method == FreeMethod::ownersTool) << r.id;
        EXPECT_TRUE(!r.instruction || r.instruction->ends_with(".")) << r.id;
        // Nothing the system never touches, nor the user's own data, may be freed.
        EXPECT_TRUE(r.safety == SafetyClass::a || r.safety == SafetyClass::b || !r.letsSystemFree()) << r.id;
        EXPECT_TRUE(r.safety != SafetyClass::d || r.method == FreeMethod::never) << r.id;
    }
    EXPECT_EQ(idsWhere([](const Rule& r) { return !r.comesBack; }),
              (std::set<std::string>{"crash_reports", "app_logs", "saved_app_state"}));
    EXPECT_EQ(idsWhere([](const Rule& r) { return r.takesUnknownFolders; }),
              (std::set<std::string>{"google_app_caches", "tool_caches", "app_caches"}));
    EXPECT_EQ(idsWhere([](const Rule& r) { return r.anchor == Anchor::system; }),
              (std::set<std::string>{"simulator_runtimes", "macos_installers", "applications",
                                     "system_assets", "system_working_data", "shared_tools"}));
}

TEST(RuleTable, LooksUpRulesByExactId) {
    ASSERT_NE(RuleTable::shared().find("gradle_caches"), nullptr);
    EXPECT_EQ(RuleTable::shared().find("gradle_caches")->title, "Gradle caches");
    EXPECT_EQ(RuleTable::shared().find("gradle_caches")->patterns,
              (std::vector<std::string>{".gradle/caches", ".gradle/wrapper/dists", ".gradle/daemon"}));
    EXPECT_EQ(RuleTable::shared().indexOf("home_other"), 55u);
    for (auto unknown : {"Gradle_Caches", "gradle_caches ", "", "gradle", "held"})
        EXPECT_EQ(RuleTable::shared().find(unknown), nullptr) << unknown;
}

TEST(Precondition, WordsItsClausesInTheirOrder) {
    EXPECT_EQ(
        rule("xcode_build_data").precondition.words(),
        "no Xcode process is found running; no program has a file open in it, runs from it or works in it; "
        "nothing in it changed in the last 10 minutes; it was not used for 30 days");
    EXPECT_EQ(
        rule("old_installers").precondition.clauses(),
        (std::vector<std::string>{"no program has a file open in it, runs from it or works in it",
                                  "nothing in it changed in the last 10 minutes",
                                  "it arrived, and was last opened or changed, more than 30 days ago"}));
    EXPECT_EQ(rule("app_logs").precondition.clauses().front(), "no running app or process carries its name");
    EXPECT_EQ(rule("app_logs").precondition.clauses().back(), "it was not used for 30 days");
    EXPECT_EQ(rule("home_other").precondition.clauses().size(), 2u);

    // An owner named without any app or process to look for gives no clause about it running.
    Precondition named{.ownerName = "Tool",
                       .owner = Precondition::Owner::pathComponent(1),
                       .minimumAgeDays = 7,
                       .ageSignal = Precondition::AgeSignal::added};
    EXPECT_EQ(named.words(),
              "no running app or process carries its name; no program has a file open in it, runs "
              "from it or works in it; nothing in it changed in the last 10 minutes; it arrived, "
              "and was last opened or changed, more than 7 days ago");
    named.processes = {"tool"};
    EXPECT_EQ(named.clauses().front(), "no Tool process is found running");
}

TEST(Precondition, ReadsTheOwnersNameFromThePath) {
    std::vector<std::string> container{"Library", "Containers", "com.example.Notes", "Data", "Library",
                                       "Caches",  "x"};
    EXPECT_EQ(rule("sandboxed_app_caches").precondition.owner.nameIn(container), "com.example.Notes");
    EXPECT_EQ(rule("app_caches").precondition.owner.nameIn(container), "x");
    EXPECT_EQ(rule("pip_cache").precondition.owner.nameIn(container), std::nullopt);
    std::vector<std::string> tooShort{"Library", "Containers"};
    EXPECT_EQ(Precondition::Owner::pathComponent(2).nameIn(tooShort), std::nullopt);
    EXPECT_EQ(Precondition::Owner::itemName().nameIn({}), std::nullopt);
}

TEST(RuleRecord, NamesItsCasesAndComparesAndHashesOverEveryField) {
    EXPECT_EQ(nameOf(SafetyClass::a), "A");
    EXPECT_EQ(enumFromName<SafetyClass>("D"), SafetyClass::d);
    EXPECT_EQ(encodeJson(FreeMethod::ownersTool), "\"ownersTool\"");
    EXPECT_LT(ScanDepth::rules, ScanDepth::full);
    EXPECT_EQ(heading(SafetyClass::a),
              "Can be deleted for good, a whole category at a time; made again when needed "
              "unless its line says otherwise (class A)");
    EXPECT_EQ(heading(SafetyClass::b), "Worth a look; never taken as a category (class B)");
    EXPECT_EQ(heading(SafetyClass::c), "Yours, shown only (class C)");
    EXPECT_EQ(heading(SafetyClass::d), "Looked after by macOS, never touched (class D)");

    std::unordered_set<Rule> distinct(RuleTable::shared().rules().begin(), RuleTable::shared().rules().end());
    EXPECT_EQ(distinct.size(), RuleTable::shared().size());

    Rule copy = rule("app_logs");
    EXPECT_EQ(copy, rule("app_logs"));
    EXPECT_EQ(std::hash<Rule>{}(copy), std::hash<Rule>{}(rule("app_logs")));
    copy.precondition.owner = Precondition::Owner::pathComponent(0);
    EXPECT_NE(copy, rule("app_logs"));
    EXPECT_NE(std::hash<Rule>{}(copy), std::hash<Rule>{}(rule("app_logs")));
}

TEST(RuleTableCompile, RefusesMalformedRulesWithASentenceNamingThem) {
    auto refused = [](Rule bad) {
        auto compiled = RuleTable::compile({wellFormed("fine"), std::move(bad)});
        return compiled ? std::string() : compiled.error();
    };
    EXPECT_EQ(refused(wellFormed("second")), "");
    EXPECT_NE(refused(wellFormed("fine")).find("appears twice"), std::string::npos);
    EXPECT_NE(refused(wellFormed("Upper")).find("\"Upper\""), std::string::npos);
    EXPECT_NE(refused(wellFormed("")), "");
    for (auto path : {"Library//Caches", "../etc", "Library/./Caches", "/Library", "Library/", ""}) {
        Rule bad = wellFormed("bad");
        bad.patterns = {path};
        EXPECT_NE(refused(bad).find("The rule bad"), std::string::npos) << path;
        bad.patterns = {"Library"};
        bad.exclusions = {path};
        EXPECT_NE(refused(bad).find("The rule bad"), std::string::npos) << path;
    }
    Rule noPatterns = wellFormed("bare");
    noPatterns.patterns.clear();
    EXPECT_NE(refused(noPatterns), "");
    Rule silentTool = wellFormed("tool");
    silentTool.method = FreeMethod::ownersTool;
    EXPECT_NE(refused(silentTool).find("instruction"), std::string::npos);
    Rule strayInstruction = wellFormed("stray");
    strayInstruction.instruction = "Run it.";
    EXPECT_NE(refused(strayInstruction).find("instruction"), std::string::npos);

    // The shipped table's split patterns, as the matcher will read them.
    EXPECT_EQ(RuleTable::shared().compiled(43).exclusions.size(), 8u);
    EXPECT_EQ(RuleTable::shared().compiled(43).exclusions.back(),
              (std::vector<std::string>{"Library", "Caches", "JetBrains"}));
    EXPECT_EQ(RuleTable::shared().compiled(4).patterns.front(),
              (std::vector<std::string>{"Library", "Developer", "Xcode", "Archives", "*", "*.xcarchive"}));
}
