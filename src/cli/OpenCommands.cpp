// `vantle open PATH|URL`: hands a file, a folder or a secure address to the app this system opens it
// with, through the opener and its refusals; --reveal shows a file in the file manager instead.
#include "cli/Commands.h"

#include <iostream>

namespace vantle::cli {

void addOpenCommands(CLI::App& app, CliContext& ctx) {
    auto* cmd =
        app.add_subcommand("open", "Open a file or folder of the home, or a secure web page, in its app");
    static std::string target;
    static bool reveal = false;
    cmd->add_option("target", target, "A file or folder (its path), or an https address")->required();
    cmd->add_flag("--reveal", reveal, "Show the file in the file manager instead of opening it");
    cmd->callback([&ctx] {
        auto* live = ctx.live();
        if (!live) return;
        const Opener& opener = *live->opener;
        bool isAddress = target.find("://") != std::string::npos ||
                         target.starts_with(std::string(Opener::settingsScheme) + ":");
        std::expected<Opener::Opened, Opener::Refusal> opened;
        if (isAddress) {
            opened = target.starts_with(std::string(Opener::settingsScheme) + ":")
                         ? opener.openSettings(target)
                         : opener.openPage(target);
        } else {
            std::error_code ec;
            auto path = std::filesystem::absolute(target, ec).lexically_normal();
            opened = reveal ? opener.reveal(path) : opener.openFile(path);
        }
        if (!opened) return ctx.refuse(opened.error().reason);
        std::cout << (*opened == Opener::Opened::inFinder ? "Shown in the file manager: " : "Opened: ")
                  << target << "\n";
    });
}

} // namespace vantle::cli
