// vantle [-sandbox DIR] <command> [--json]: every service of Vantle Lite from a terminal.
#include "cli/Commands.h"
#include "Vantle_Lite/LiteLaunch.h"

#include <iostream>

int main(int argc, char** argv) {
    using namespace vantle;
    std::vector<std::string> arguments(argv, argv + argc);
    // The launch option keeps its one-dash spelling ("-sandbox DIR"), which CLI11 cannot read; it is
    // taken out here by the same rule the desktop app uses.
    auto launch = LiteLaunch::parse(arguments);
    auto rest = LiteLaunch::withoutLaunchOptions(arguments);

    VantleLite::Options options;
    options.sandbox = launch.sandbox;
    cli::CliContext ctx(options);

    CLI::App app{"Vantle Lite: finds, sorts and cleans up the files in your home folder, and reads this "
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
    cli::addCheckupCommands(app, ctx);

    std::vector<const char*> cargv;
    for (auto& a : rest) cargv.push_back(a.c_str());
    try {
        app.parse(static_cast<int>(cargv.size()), cargv.data());
    } catch (const CLI::ParseError& e) {
        int code = app.exit(e);
        // CLI11 answers --help and --version through this path with 0; every real usage error is 2.
        return code == 0 ? 0 : 2;
    }
    return ctx.exitCode;
}
