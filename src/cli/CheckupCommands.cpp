// `vantle checkup [--json] [--explain]`: this machine read area by area (or a sandbox's stand-in),
// the one-line summary, each area's verdict and readings, and what to do; the checkup is kept for
// the trend in the data folder's Health/checkups.json.
#include "cli/Commands.h"

#include "VantleSpec/CheckupScoring.h"

#include <iostream>

namespace vantle::cli {

namespace {

const char* mark(CheckupStatus s) {
    switch (s) {
    case CheckupStatus::good:
        return "ok";
    case CheckupStatus::note:
        return "look";
    case CheckupStatus::attention:
        return "ATTN";
    case CheckupStatus::unknown:
        return "?";
    }
    return "?";
}

std::string actionWords(const CheckupAction& a) {
    std::string words(nameOf(a.kind));
    if (a.target) words += " " + *a.target;
    return words;
}

std::string pad(std::string s, size_t width) {
    // Width in characters, not bytes, so names with accents line up.
    size_t shown = 0;
    for (unsigned char c : s)
        shown += (c & 0xC0) != 0x80;
    if (shown < width) s.append(width - shown, ' ');
    return s;
}

void printCheckup(const MacCheckup& c, bool explain) {
    std::cout << checkupSummary(c.findings) << "\n"
              << "Checkup score: " << c.score.value << " of 100\n\n";
    for (const auto& s : c.sections) {
        std::cout << pad(std::string(nameOf(s.area)), 12) << pad(mark(s.status), 5) << s.verdict << "\n";
        for (const auto& r : s.readings)
            std::cout << "    " << pad(mark(r.status), 5) << pad(r.title, 28) << r.value << "   [" << r.source
                      << "]\n";
        if (!s.items.empty()) {
            std::cout << "    " << s.listTitle.value_or("Items") << ":\n";
            for (const auto& i : s.items)
                std::cout << "      " << pad(mark(i.status), 5) << i.title
                          << (i.detail ? " — " + *i.detail : "") << "\n";
        }
    }
    std::cout << "\n";
    if (c.findings.empty())
        std::cout << "Nothing to do.\n";
    else
        std::cout << "What to do:\n";
    for (const auto& f : c.findings) {
        std::cout << "  " << pad(mark(f.status), 5) << f.title << "\n"
                  << "        " << f.detail << "\n"
                  << "        Why: " << f.why << "\n";
        if (f.action) std::cout << "        Action: " << actionWords(*f.action) << "\n";
    }
    std::cout << "\nScore parts:\n";
    for (const auto& p : c.score.parts)
        std::cout << "  " << pad(std::string(nameOf(p.area)), 12) << "-" << pad(std::to_string(p.points), 3)
                  << "of " << pad(std::to_string(p.most), 4) << p.line << "\n";
    if (explain) {
        std::cout << "\nHow the checkup score is worked out: 100, less the points each area takes.\n";
        for (const auto& rule : checkupScoreRules())
            std::cout << "  " << pad(std::string(nameOf(rule.area)), 12) << "up to "
                      << pad(std::to_string(rule.most), 3) << rule.sentence << "\n";
    }
}

} // namespace

void addCheckupCommands(CLI::App& app, CliContext& ctx) {
    auto* cmd =
        app.add_subcommand("checkup", "Read this machine area by area and say what to do about anything "
                                      "that needs it");
    auto* json = addJsonFlag(cmd);
    auto* explain = cmd->add_flag("--explain")->description("Also show how the checkup score is worked out");
    cmd->callback([&ctx, json, explain] {
        auto* live = ctx.live();
        if (!live) return;
        if (!live->checkup) {
            ctx.refuse("The checkup is not available in this run.");
            return;
        }
        auto checkup = live->checkup->run();
        if (*json) {
            printJson(checkup);
            return;
        }
        if (live->standInCheckup)
            std::cout << "From the sandbox's stand-in checkup (" << live->support.string()
                      << "/stand-in-checkup.json).\n";
        printCheckup(checkup, bool(*explain));
        if (auto problem = live->checkup->problem()) std::cout << "Note: " << *problem << "\n";
    });
}

} // namespace vantle::cli
