// Each area of the `vantle` command registers its subcommands on the one app. main.cpp calls these
// in the order the help lists them.
#pragma once
#include "cli/CliSupport.h"

namespace vantle::cli {

void addStatusCommands(CLI::App& app, CliContext& ctx);
void addLedgerCommands(CLI::App& app, CliContext& ctx);
void addStorageCommands(CLI::App& app, CliContext& ctx);
// Adds `clean`, `set-aside` and `put-back` beneath the `storage` command.
void addStorageCleanCommands(CLI::App& storage, CliContext& ctx);
// `update check [--json]`: the status sentence after a check made now.
void addUpdateCommands(CLI::App& app, CliContext& ctx);
// `open PATH|URL [--reveal]`: through the opener and its refusals.
void addOpenCommands(CLI::App& app, CliContext& ctx);
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

// `trash`, `startup`, `restart`: the actions that ask first and end with a result line.
void addActionCommands(CLI::App& app, CliContext& ctx);
// `balance`: move heavy background work and offer to quit idle apps.
void addBalanceCommands(CLI::App& app, CliContext& ctx);
// Adds `record on|off|erase` beneath the `health` command.
void addHealthRecordCommands(CLI::App& health, CliContext& ctx);

} // namespace vantle::cli
