// Runs one program for the checkup to read what no file tells without root (systemctl, journalctl,
// gsettings): spawned directly with posix_spawn (no shell), stdin from /dev/null, stdout and stderr
// into one pipe read up to a bound, and killed when it does not finish in time. Thread-safe.
#pragma once
#include <chrono>
#include <expected>
#include <string>
#include <vector>

namespace vantle {

struct CommandOutput {
    int status = 0; // the exit status; a program ended by a signal is an error, not a status
    std::string text;
};

// The error is a sentence fragment saying why there is no answer ("it did not answer within 400 ms").
std::expected<CommandOutput, std::string> runBounded(const std::vector<std::string>& argv,
                                                     std::chrono::milliseconds timeout,
                                                     size_t maxBytes = 1 << 20);

} // namespace vantle
