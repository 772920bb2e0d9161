// vantle [-sandbox DIR] <command> [--json]: every service of Vantle Lite from a terminal.
#include "Platform/SystemError.h"
#include "VantleSpec/Sentence.h"
#include "VantleSpec/TerminalText.h"
#include "Vantle_Lite/LiteLaunch.h"
#include "cli/Commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace {

constexpr std::string_view sandboxWithoutFolderSentence =
    "-sandbox needs the sandbox's folder after it: vantle -sandbox DIR <command>. No folder was given, and "
    "the real home was not used.";
constexpr std::string_view emptySandboxSentence = "-sandbox \"\" names no folder: the sandbox's path is "
                                                  "empty. Give the folder that stands in for the home, "
                                                  "as in vantle -sandbox ~/Sandbox status.";
constexpr std::string_view unknownCommandSentence =
    "There is no command “{name}”. The commands here are: {names}.";
constexpr std::string_view outputFailedSentence = "The answer could not be written to the output: {reason}";

// The usage error for a command word that names no subcommand where one is required, found before
// CLI11 answers only "A subcommand is required".
std::optional<std::string> unknownCommand(CLI::App& app, const std::vector<std::string>& words) {
    CLI::App* current = &app;
    for (size_t i = 1; i < words.size(); ++i) {
        const auto& word = words[i];
        if (word.starts_with("-")) return std::nullopt; // options end the walk: CLI11 judges them
        auto subcommands = current->get_subcommands([](CLI::App*) { return true; });
        CLI::App* next = nullptr;
        for (auto* sub : subcommands)
            if (sub->check_name(word)) next = sub;
        if (next) {
            current = next;
            continue;
        }
        if (subcommands.empty() || current->get_require_subcommand_min() == 0) return std::nullopt;
        std::string names;
        for (auto* sub : subcommands)
            names += (names.empty() ? "" : ", ") + sub->get_name();
        return vantle::fillIn(unknownCommandSentence,
                              {{"name", vantle::terminalSafe(word)}, {"names", names}});
    }
    return std::nullopt;
}

} // namespace

int main(int argc, char** argv) {
    using namespace vantle;
    std::vector<std::string> arguments(argv, argv + argc);
    // The launch option keeps its one-dash spelling ("-sandbox DIR"), which CLI11 cannot read; it is
    // taken out here by the same rule the desktop app uses.
    auto launch = LiteLaunch::parse(arguments);
    // The app ignores a trailing "-sandbox"; from a terminal it is a mistake, and running on the real
    // home instead would be the wrong answer to it.
    if (!arguments.empty() && (arguments.back() == "-sandbox" || arguments.back() == "--sandbox") &&
        !launch.sandbox) {
        std::cerr << sandboxWithoutFolderSentence << "\n";
        return 2;
    }
    if (launch.sandbox && launch.sandbox->empty()) {
        std::cerr << emptySandboxSentence << "\n";
        return 2;
    }
    auto rest = LiteLaunch::withoutLaunchOptions(arguments);

    VantleLite::Options options;
    options.sandbox = launch.sandbox;
    options.oneShot = true;
    cli::CliContext ctx(options);

    CLI::App app{
        "Vantle Lite: finds, sorts and cleans up the files in your home folder, and reads this "
        "machine's health.\nGlobal option: -sandbox DIR runs against a folder that stands in for the "
        "home folder.",
        "vantle"};
    app.require_subcommand(1);
    app.set_version_flag("--version", VANTLE_VERSION);
    cli::addStatusCommands(app, ctx);
    cli::addLedgerCommands(app, ctx);
    cli::addStorageCommands(app, ctx);
    cli::addFilesCommands(app, ctx);
    cli::addHealthCommands(app, ctx);
    cli::addActionCommands(app, ctx);
    cli::addBalanceCommands(app, ctx);
    cli::addOpenCommands(app, ctx);
    cli::addUpdateCommands(app, ctx);
    cli::addCheckupCommands(app, ctx);

    if (auto unknown = unknownCommand(app, rest)) {
        std::cerr << *unknown << "\n";
        return 2;
    }

    std::vector<const char*> cargv;
    for (auto& a : rest)
        cargv.push_back(a.c_str());
    try {
        app.parse(static_cast<int>(cargv.size()), cargv.data());
    } catch (const CLI::ParseError& e) {
        int code = app.exit(e);
        // CLI11 answers --help and --version through this path with 0; every real usage error is 2.
        return code == 0 ? 0 : 2;
    }
    // A full disk or a closed pipe must not pass for a complete answer.
    std::cout.flush();
    if (!std::cout || std::fflush(stdout) != 0 || std::ferror(stdout)) {
        int err = errno;
        std::cerr << vantle::fillIn(outputFailedSentence,
                                    {{"reason", vantle::systemErrorText(err ? err : EIO)}})
                  << "\n";
        return 1;
    }
    return ctx.exitCode;
}
