// Each area of the `vantle` command registers its subcommands on the one app. main.cpp calls these
// in the order the help lists them.
#pragma once
#include "cli/CliSupport.h"

namespace vantle::cli {

void addStatusCommands(CLI::App& app, CliContext& ctx);
void addLedgerCommands(CLI::App& app, CliContext& ctx);
void addStorageCommands(CLI::App& app, CliContext& ctx);
// `health`: the score and the main vitals; calls addHealthHistoryCommands for its subcommands.
void addHealthCommands(CLI::App& app, CliContext& ctx);
// Adds `history` and `seed-week` beneath the `health` command.
void addHealthHistoryCommands(CLI::App& health, CliContext& ctx);
// `checkup`: the machine read area by area, with what to do.
void addCheckupCommands(CLI::App& app, CliContext& ctx);
// `files summary` and `files lists`; calls addFilesSearchCommands for the rest of `files`.
void addFilesCommands(CLI::App& app, CliContext& ctx);
// Adds `search`, `duplicates` and `sources` beneath the `files` command.
void addFilesSearchCommands(CLI::App& files, CliContext& ctx);

} // namespace vantle::cli
