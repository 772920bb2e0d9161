// The `vantle` command run as a person runs it from a terminal: exit codes, sentences, what reaches
// the screen. Each case starts the built program in a sandbox of its own.
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using vantle::testing::readFile;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

struct Ran {
    int exit = -1;
    std::string out;
    std::string err;
};

std::string shellQuoted(const std::string& s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs `vantle` with the arguments (each quoted) under a home of the test's own; `redirect` replaces
// where standard output goes.
Ran run(const TempDir& dir, const std::vector<std::string>& arguments, const std::string& redirect = "") {
    std::string command =
        "HOME=" + shellQuoted((dir / "home").string()) + " XDG_DATA_HOME= " + shellQuoted(VANTLE_CLI);
    for (const auto& a : arguments)
        command += " " + shellQuoted(a);
    auto out = dir / "stdout", err = dir / "stderr";
    command += redirect.empty() ? " >" + shellQuoted(out.string()) : " " + redirect;
    command += " 2>" + shellQuoted(err.string());
    int status = std::system(command.c_str());
    Ran ran;
    ran.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ran.out = fs::exists(out) ? readFile(out) : "";
    ran.err = readFile(err);
    return ran;
}

} // namespace

TEST(VantleCommand, TrailingSandboxIsAUsageErrorNotARunOnTheRealHome) {
    TempDir dir;
    dir.mkdir("home");
    auto ran = run(dir, {"status", "-sandbox"});
    EXPECT_EQ(ran.exit, 2);
    EXPECT_NE(ran.err.find("-sandbox needs the sandbox's folder"), std::string::npos) << ran.err;
    EXPECT_FALSE(fs::exists(dir / "home/.local/share/Vantle Lite"))
        << "nothing written in the real data folder";

    auto empty = run(dir, {"-sandbox", "", "status"});
    EXPECT_EQ(empty.exit, 2);
    EXPECT_NE(empty.err.find("-sandbox \"\" names no folder"), std::string::npos) << empty.err;
}

TEST(VantleCommand, UnknownSubcommandIsNamed) {
    TempDir dir;
    auto ran = run(dir, {"-sandbox", (dir / "box").string(), "frobnicate"});
    EXPECT_EQ(ran.exit, 2);
    EXPECT_NE(ran.err.find("There is no command “frobnicate”"), std::string::npos) << ran.err;
    auto nested = run(dir, {"-sandbox", (dir / "box").string(), "files", "sumary"});
    EXPECT_EQ(nested.exit, 2);
    EXPECT_NE(nested.err.find("“sumary”"), std::string::npos) << nested.err;
    EXPECT_NE(nested.err.find("summary"), std::string::npos) << "the commands that are there are listed";
}

TEST(VantleCommand, LimitZeroGetsAShortClearSentence) {
    TempDir dir;
    auto ran = run(dir, {"-sandbox", (dir / "box").string(), "files", "lists", "recent", "--limit", "0"});
    EXPECT_EQ(ran.exit, 2);
    EXPECT_LT(ran.err.size(), 200u) << ran.err;
    EXPECT_NE(ran.err.find("from 1 to 100000"), std::string::npos) << ran.err;
}

TEST(VantleCommand, FailedWriteToStandardOutputExitsOne) {
    TempDir dir;
    auto ran = run(dir, {"-sandbox", (dir / "box").string(), "status"}, ">/dev/full");
    EXPECT_EQ(ran.exit, 1);
    EXPECT_NE(ran.err.find("could not be written to the output"), std::string::npos) << ran.err;
}

TEST(VantleCommand, CorruptHealthRecordSaysItCouldNotBeRead) {
    TempDir dir;
    dir.write("box/.vantle-lite/Health/record.sqlite", std::string(8192, 'x'));
    auto ran = run(dir, {"-sandbox", (dir / "box").string(), "health", "history"});
    EXPECT_EQ(ran.exit, 1);
    EXPECT_EQ(ran.out.find("holds nothing"), std::string::npos);
    EXPECT_NE(ran.err.find("could not be read"), std::string::npos) << ran.err;
}

TEST(VantleCommand, ConcurrentSeedWeeksWaitForEachOtherInsteadOfFailing) {
    TempDir dir;
    auto box = shellQuoted((dir / "box").string());
    ASSERT_EQ(run(dir, {"-sandbox", (dir / "box").string(), "status"}).exit, 0); // the data folder exists
    std::string script;
    for (int i = 0; i < 4; ++i)
        script += shellQuoted(VANTLE_CLI) + " -sandbox " + box + " health seed-week >/dev/null 2>" +
                  shellQuoted((dir / ("err" + std::to_string(i))).string()) + " & ";
    script += "wait";
    ASSERT_EQ(
        std::system(
            ("HOME=" + shellQuoted((dir / "home").string()) + " bash -c " + shellQuoted(script)).c_str()),
        0);
    for (int i = 0; i < 4; ++i) {
        auto err = readFile(dir / ("err" + std::to_string(i)));
        EXPECT_EQ(err.find("could not be written"), std::string::npos) << err;
    }
}

TEST(VantleCommand, ControlCharactersInNamesReachTheTerminalEscaped) {
    TempDir dir;
    dir.write("box/Documents/evil\x1b]0;pwned\x07\nname.pdf", "%PDF-1.4");
    auto ran = run(dir, {"-sandbox", (dir / "box").string(), "files", "search", "pdf"});
    EXPECT_EQ(ran.exit, 0) << ran.err;
    EXPECT_EQ(ran.out.find('\x1b'), std::string::npos) << ran.out;
    EXPECT_NE(ran.out.find("evil$'\\033']0;pwned$'\\a\\n'name.pdf"), std::string::npos) << ran.out;

    auto json = run(dir, {"-sandbox", (dir / "box").string(), "files", "search", "pdf", "--json"});
    EXPECT_NE(json.out.find("pwned"), std::string::npos) << "--json keeps the name for programs to read";
}

TEST(VantleCommand, AChangeWithoutATerminalIsRefusedEvenWhenStandardInputSaysYes) {
    // Some commands took a "y" piped into them as the person's answer; others refused, or said
    // "Nothing was erased" and exited 0. Every changing command now refuses alike.
    TempDir dir;
    auto box = dir / "box";
    auto file = dir.write("box/Downloads/old.zip", "zip");
    auto agent = dir.write("box/Library/LaunchAgents/com.example.helper.plist", "<plist/>");
    dir.write("answers", "y\nyes\n");
    const std::string piped =
        ">" + shellQuoted((dir / "stdout").string()) + " <" + shellQuoted((dir / "answers").string());
    const std::vector<std::vector<std::string>> changes = {
        {"trash", file.string()},
        {"startup", "off", agent.string()},
        {"startup", "on", (box / ".vantle-lite/Turned Off/com.example.helper.plist").string(),
         agent.string()},
        {"restart"},
        {"health", "record", "erase"},
    };
    for (const auto& change : changes) {
        std::vector<std::string> arguments = {"-sandbox", box.string()};
        arguments.insert(arguments.end(), change.begin(), change.end());
        auto ran = run(dir, arguments, piped);
        EXPECT_EQ(ran.exit, 1) << change[0] << " " << ran.out << ran.err;
        EXPECT_NE(ran.err.find("Nothing was touched: there is no terminal to ask on. Add --yes"),
                  std::string::npos)
            << change[0] << ": " << ran.err;
    }
    EXPECT_TRUE(fs::exists(file)) << "the file was not moved to the Trash";
    EXPECT_TRUE(fs::exists(agent)) << "the startup item was not turned off";
    auto mac = box / ".vantle-lite/stand-in-mac.json";
    EXPECT_TRUE(!fs::exists(mac) || readFile(mac).find("restart") == std::string::npos)
        << "the stand-in Mac was not asked to restart";
}

TEST(VantleCommand, AnUnreadableDataFolderSaidOnlyTheSystemErrorWithoutNamingIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "root reads every folder; the case runs as a made-up person";
    constexpr int person = 61003;
    TempDir dir;
    ::chmod(dir.path().c_str(), 0755);
    auto box = dir / "box";
    auto data = box / ".vantle-lite";
    fs::create_directories(data);
    ::chmod(data.c_str(), 0700); // root's own: the person can neither look inside nor restrict it
    ASSERT_EQ(::chown(box.c_str(), person, person), 0);
    auto home = dir.mkdir("home");
    ASSERT_EQ(::chown(home.c_str(), person, person), 0);
    std::string command = "setpriv --reuid=" + std::to_string(person) + " --regid=" + std::to_string(person) +
                          " --clear-groups env HOME=" + shellQuoted(home.string()) + " " +
                          shellQuoted(VANTLE_CLI) + " -sandbox " + shellQuoted(box.string()) +
                          " status >/dev/null 2>" + shellQuoted((dir / "stderr").string());
    int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    auto err = readFile(dir / "stderr");
    EXPECT_NE(err.find("Vantle Lite could not"), std::string::npos) << err;
    EXPECT_NE(err.find(data.string()), std::string::npos) << "the folder is named: " << err;
    EXPECT_EQ(err.find('\n'), err.size() - 1) << "one sentence: " << err;
}

TEST(VantleCommand, DuplicatesAsJsonNameTheCopiesAndTheUnchangedRescanReadsNothing) {
    TempDir dir;
    std::string contents(20'000, 'x'), nearly = contents;
    nearly.back() = 'y';
    auto first = dir.write("box/Documents/report \"final\".txt", contents).string();
    auto second = dir.write("box/Desktop/copy\tof report.txt", contents).string();
    dir.write("box/Documents/draft.txt", nearly);

    auto copiesOf = [](const nlohmann::json& answer) {
        std::vector<std::string> paths;
        for (const auto& group : answer.at("groups"))
            for (const auto& item : group.at("items"))
                paths.push_back(item.at("path").get<std::string>());
        std::ranges::sort(paths);
        return paths;
    };
    std::vector<std::string> expected{second, first};
    std::ranges::sort(expected);
    std::int64_t bytesRead[2] = {-1, -1};
    for (int round : {0, 1}) {
        auto ran = run(dir, {"-sandbox", (dir / "box").string(), "files", "duplicates", "--json"});
        ASSERT_EQ(ran.exit, 0) << ran.err;
        ASSERT_TRUE(ran.out.ends_with("}\n")) << ran.out;
        auto answer = nlohmann::json::parse(ran.out, nullptr, false);
        ASSERT_FALSE(answer.is_discarded()) << ran.out;
        EXPECT_EQ(copiesOf(answer), expected) << "round " << round;
        EXPECT_EQ(answer.at("groups").size(), 1u);
        EXPECT_EQ(answer.at("sharing").size(), 1u);
        bytesRead[round] = answer.at("bytesRead").get<std::int64_t>();
    }
    EXPECT_GT(bytesRead[0], 0);
    EXPECT_EQ(bytesRead[1], 0) << "every file was known from the first scan";
}
