// The product model every page, the menu and the menu bar panel read and act through: the live
// services, the user's settings, the question being asked, and the last action Undo can put back.
// Listeners are told of every change. Made once when start-up succeeds. Used from the main thread;
// the services it calls are actors of their own.
#pragma once
#include "VantleLiteLive/VantleLite.h"
#include "VantleVitals/HealthRecorder.h"
#include "Vantle_Lite/LiteActions.h"
#include "Vantle_Lite/SettingsStore.h"

#include <atomic>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace vantle {

class LiteProduct {
  public:
    LiteProduct(VantleLite live, std::unique_ptr<SettingsStore> settings)
        : live_(std::move(live)), settings_(std::move(settings)) {}

    // How long the product lives: for as long as the program runs (the desktop app), or for one
    // command of the `vantle` tool.
    enum class Lifetime { program, oneCommand };

    // Builds the product over the live services, with the settings file in their data folder. A
    // product that lives as long as the program keeps the health record while the user's choice is on;
    // one made for a single command does not, since its few seconds would be written as a minute of
    // their own, over the minute the running app is recording.
    static std::shared_ptr<LiteProduct> make(VantleLite live, Lifetime lifetime = Lifetime::program);

    VantleLite& live() { return live_; }
    const VantleLite& live() const { return live_; }
    SettingsStore& settings() { return *settings_; }

    // Whether the window can be seen; the Health page reads the machine only while it is.
    bool windowVisible() const { return windowVisible_; }
    // Gives true when the value really changed (only then is the change published).
    bool setWindowVisible(bool visible) {
        if (visible == windowVisible_) return false;
        windowVisible_ = visible;
        return true;
    }

    // Whether the menu bar panel is open; the panel keeps it in step as it opens and closes.
    bool panelOpen() const { return panelOpen_; }
    void setPanelOpen(bool open) { panelOpen_ = open; }

    // The health record's on/off choice, kept in the settings; the recorder thread reads the copy in
    // `recording_`, never the settings store, which belongs to the main thread.
    bool keepsHealthRecord() const { return recording_.load(); }
    void setKeepsHealthRecord(bool on);
    // Starts feeding the health record once a minute while the choice is on (make does this for a
    // product that lives as long as the program). Stopped, with the open minute written, when the
    // product goes away. Does nothing when already started.
    void startHealthRecorder();

    // Listeners are told after the question, the undoable action or the result line changed.
    int addListener(std::function<void()> listener);
    void removeListener(int token);

    // Each action that changes something asks first: it sets `confirmation` and answers none, or
    // answers its result line at once when there is nothing to ask about.
    std::optional<ResultLine> askToTrash(const std::vector<std::filesystem::path>& files);
    std::optional<ResultLine> askToTurnOff(const std::filesystem::path& agent);
    void askToRestart();
    // Asks before carrying out a clean plan the user was shown: deleting whole categories for good, or
    // setting chosen items aside. The yes carries the plan out on the answering thread (the app
    // answers off its UI thread), keeps what was set aside for Undo, and ends with the receipt's words.
    void askToClean(CleanPlan plan);
    // Puts items set aside earlier back where they were; the result line counts them, or gives the
    // shelf's sentence when none could go back.
    ResultLine putBackHeld(const std::vector<std::string>& heldIds);
    const std::optional<CleanReceipt>& lastCleanReceipt() const { return lastCleanReceipt_; }

    // Runs (yes) or cancels (no) the question being asked and clears it; none when nothing is asked.
    std::optional<ResultLine> answer(bool yes);
    const std::optional<Confirmation>& confirmation() const { return confirmation_; }

    // Quitting a busy process asks first, naming its share of a core and its memory; the yes quits it
    // as its own Quit command does (quitApp).
    void askToQuit(const ProcessRow& process);
    ResultLine quitApp(int pid, const std::string& name);
    // Balance the load. The reading and its candidates are taken off the UI thread (`readLoad`, a
    // second's reading on a real machine); the question names what is ticked; the yes moves and
    // quits each by itself, reads the machine again after a pause, keeps the report, and keeps the
    // moves for Undo, which puts them back on every core. Carried out on the answering thread.
    // `readLoad` touches only the live services, each thread-safe, so it may run on any worker.
    static ScoredReading readLoad(const VantleLite& live);
    void askToBalance(ScoredReading before, std::vector<BalanceCandidate> chosen);
    const std::optional<LoadBalanced>& lastBalance() const { return lastBalance_; }
    // The pauses of a balance: none for a sandbox's made-up figures.
    static LoadTiming balanceTiming(const VantleLite& live);
    // Erasing the health record asks first; only the yes erases it.
    void askToEraseHealthRecord();
    // Shows an item in the file manager through the opener's reveal (filled in by the wiring).
    ResultLine showInFileManager(const std::filesystem::path& item);
    std::function<std::expected<void, std::string>(const std::filesystem::path&)> revealer;
    // Asks a real app to quit as its own Quit does (SIGTERM) and waits; filled in by the wiring.
    std::function<std::expected<void, std::string>(int pid)> quitter;

    // Only the last undoable action; a new one replaces it, undoing clears it.
    const std::optional<Undoable>& undoable() const { return undoable_; }
    // None (and nothing done) when there is nothing to undo.
    std::optional<ResultLine> undoLast();

    // The last result line, and the home trash's receipt of the last move (for its refusals).
    const std::optional<ResultLine>& result() const { return result_; }
    const std::optional<HomeTrash::Receipt>& lastReceipt() const { return lastReceipt_; }

    // The name shown for a startup item: its file name without the extension.
    static std::string startupName(const std::filesystem::path& agent);
    // How many names the Trash question lists before " more".
    static constexpr std::size_t namesListed = 3;

  private:
    ResultLine finish(ResultLine line);
    void notify();
    ResultLine trashNow(const std::vector<std::filesystem::path>& files);
    ResultLine cleanNow(const CleanPlan& plan);
    ResultLine balanceNow(const ScoredReading& before, const std::vector<BalanceCandidate>& chosen);
    ResultLine quitNow(int pid, const std::string& name);

    VantleLite live_;
    std::unique_ptr<SettingsStore> settings_;
    bool windowVisible_ = true;
    bool panelOpen_ = false;
    std::atomic<bool> recording_{false};
    std::unique_ptr<HealthRecorder> recorder_;
    std::optional<Confirmation> confirmation_;
    std::optional<Undoable> undoable_;
    std::optional<ResultLine> result_;
    std::optional<HomeTrash::Receipt> lastReceipt_;
    std::optional<CleanReceipt> lastCleanReceipt_;
    std::optional<LoadBalanced> lastBalance_;
    std::map<int, std::function<void()>> listeners_;
    int nextListener_ = 0;
};

} // namespace vantle
