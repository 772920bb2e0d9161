#include "cli/CliSupport.h"

#include "VantleSpec/TerminalText.h"

#include <charconv>
#include <csignal>
#include <iostream>
#include <unistd.h>

namespace vantle::cli {

VantleLite* CliContext::live() {
    if (!tried_) {
        tried_ = true;
        auto made = VantleLite::make(options_);
        if (made)
            live_ = std::move(*made);
        else
            refuse(made.error().sentence);
    }
    if (product_) return &product_->live();
    return live_ ? &*live_ : nullptr;
}

LiteProduct* CliContext::product() {
    if (!product_ && live()) {
        product_ = LiteProduct::make(std::move(*live_), LiteProduct::Lifetime::oneCommand);
        live_.reset();
    }
    return product_.get();
}

bool confirmChange(CliContext& ctx, const std::string& question, bool yes, std::string_view declined) {
    if (yes) return true;
    if (::isatty(STDIN_FILENO) != 1) {
        ctx.refuse(std::string(noTerminalSentence));
        return false;
    }
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    if (std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes")) return true;
    ctx.refuse(std::string(declined));
    return false;
}

void CliContext::refuse(const std::string& sentence) {
    // Sentences carry names read from disk; they reach the terminal escaped like any other name.
    std::cerr << terminalSafe(sentence) << "\n";
    exitCode = exitRefused;
}

void printJson(const Json& value) {
    std::cout << dumpEscaped(value, 2) << "\n";
}

void printJsonStreamed(const std::function<void(JsonWriter&)>& write) {
    {
        JsonWriter out([](std::string_view piece) { std::cout.write(piece.data(), std::ssize(piece)); });
        write(out);
    }
    std::cout << "\n";
}

CLI::Option* addJsonFlag(CLI::App* command) {
    static const std::string description = "Print the result as JSON";
    return command->add_flag("--json", description);
}

CLI::Validator countFromOneTo(int most) {
    return CLI::Validator(
        [most](std::string& text) -> std::string {
            int value = 0;
            auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            if (error == std::errc() && end == text.data() + text.size() && value >= 1 && value <= most)
                return {};
            return "takes a whole number from 1 to " + std::to_string(most) + ", not " + terminalSafe(text);
        },
        "1.." + std::to_string(most));
}

bool stderrIsTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}

ProgressLine::ProgressLine() : enabled_(stderrIsTerminal()) {}

ProgressLine::~ProgressLine() {
    clear();
}

void ProgressLine::show(const std::string& text) {
    if (!enabled_) return;
    std::cerr << "\r\033[2K" << text << std::flush;
    shown_ = true;
}

void ProgressLine::clear() {
    if (!enabled_ || !shown_) return;
    std::cerr << "\r\033[2K" << std::flush;
    shown_ = false;
}

namespace {
CancelFlag* interruptTarget = nullptr;
extern "C" void onInterrupt(int) {
    if (interruptTarget) interruptTarget->cancel();
}
} // namespace

InterruptGuard::InterruptGuard(CancelFlag& flag) {
    interruptTarget = &flag;
    previous_ = std::signal(SIGINT, onInterrupt);
}

InterruptGuard::~InterruptGuard() {
    std::signal(SIGINT, previous_ == SIG_ERR ? SIG_DFL : previous_);
    interruptTarget = nullptr;
}

} // namespace vantle::cli
