// What every `vantle` command shares: the global -sandbox choice, start-up on first use, and the
// ways of answering (text, --json, a progress line on a terminal, a sentence on stderr). Used from
// the main thread only.
#pragma once
#include "VantleLiteLive/VantleLite.h"
#include "VantleSpec/CancelFlag.h"
#include "VantleSpec/Json.h"
#include "VantleSpec/JsonWriter.h"
#include "Vantle_Lite/LiteProduct.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vantle::cli {

// Exit codes: 0 done, 1 the program refused or failed (sentence on stderr), 2 a usage error.
inline constexpr int exitRefused = 1;

class CliContext {
  public:
    explicit CliContext(VantleLite::Options options) : options_(std::move(options)) {}

    // Runs the start-up sequence once; on failure prints its sentence and gives nullptr.
    VantleLite* live();
    const VantleLite::Options& options() const { return options_; }
    // The product model over the live services, made on first use (for the commands that act).
    LiteProduct* product();

    int exitCode = 0;
    // Sets exitCode to 1 and prints the sentence on stderr.
    void refuse(const std::string& sentence);

  private:
    VantleLite::Options options_;
    std::optional<VantleLite> live_;
    std::shared_ptr<LiteProduct> product_;
    bool tried_ = false;
};

void printJson(const Json& value);
// The same text as printJson, written while `write` walks the answer: for answers too large to
// build as a tree first.
void printJsonStreamed(const std::function<void(JsonWriter&)>& write);

// Adds "--json" ("Print the result as JSON"); `*flag` is true when it was given.
CLI::Option* addJsonFlag(CLI::App* command);
bool stderrIsTerminal();

// A count the user gives (--limit): a whole number from 1 to `most`, refused in one short sentence.
CLI::Validator countFromOneTo(int most);

// Every command that changes the disk or the machine asks here before it acts; true to go ahead.
// `yes` (the command's --yes) answers for the person. Without a terminal on standard input there is
// no one to ask, and a yes is never read from a pipe or a file: the change is refused. A refusal or
// a "no" sets exit code 1 with its sentence on stderr (`declined` for a no).
bool confirmChange(CliContext& ctx, const std::string& question, bool yes, std::string_view declined);
inline constexpr std::string_view noTerminalSentence =
    "Nothing was touched: there is no terminal to ask on. Add --yes to go ahead with what was shown.";

// A single progress line on stderr, rewritten in place; silent when stderr is not a terminal.
class ProgressLine {
  public:
    ProgressLine();
    ~ProgressLine();
    void show(const std::string& text);
    void clear();

  private:
    bool enabled_;
    bool shown_ = false;
};

// Installs a SIGINT handler that sets `flag` instead of killing the process, so long work stops
// cleanly between folders; the previous handler comes back when the guard ends.
class InterruptGuard {
  public:
    explicit InterruptGuard(CancelFlag& flag);
    ~InterruptGuard();

  private:
    void (*previous_)(int) = nullptr;
};

} // namespace vantle::cli
