#include "Vantle_Lite/LiteProduct.h"

#include "Platform/EntryMove.h"
#include "Platform/ProcessScheduling.h"
#include "Platform/SystemError.h"
#include "VantleSpec/ByteCount.h"
#include "VantleSpec/Figures.h"
#include "VantleSpec/Sentence.h"
#include "Vantle_Lite/BusyProcess.h"

#include <algorithm>
#include <cctype>
#include <thread>
#include <unistd.h>

namespace vantle {

std::shared_ptr<LiteProduct> LiteProduct::make(VantleLite live, Lifetime lifetime) {
    auto settings = std::make_unique<FileSettingsStore>(live.support / "Library" / "home.json");
    auto product = std::make_shared<LiteProduct>(std::move(live), std::move(settings));
    if (!product->live().processes)
        product->quitter = [](int pid) -> std::expected<void, std::string> {
            if (auto asked = vantle::askToQuit(pid); !asked)
                return std::unexpected("The app could not be asked to quit: " +
                                       systemErrorText(asked.error()));
            // Asked as its own Quit would; it may stay open to ask about unsaved work.
            for (int i = 0; i < 100 && processRuns(pid); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (processRuns(pid))
                return std::unexpected(std::string("It is still open: it may be asking about unsaved work."));
            return {};
        };
    product->recording_ =
        product->settings().boolean(std::string(HealthRecorder::settingsKey)).value_or(false);
    // The recorder runs even while the choice is off: it reads the choice at every tick, so turning
    // the record on later starts it without anyone starting it again.
    if (lifetime == Lifetime::program) product->startHealthRecorder();
    return product;
}

void LiteProduct::setKeepsHealthRecord(bool on) {
    settings_->setBoolean(std::string(HealthRecorder::settingsKey), on);
    recording_ = on;
}

void LiteProduct::startHealthRecorder() {
    if (recorder_ || !live_.healthRecord || !live_.vitals) return;
    auto vitals = live_.vitals;
    recorder_ = std::make_unique<HealthRecorder>(
        live_.healthRecord, [vitals]() -> std::optional<VitalsSnapshot> { return vitals->sample(); },
        [this] { return recording_.load(); });
    recorder_->start();
}

namespace {
std::string count(std::size_t n) {
    return std::to_string(n);
}

// "Mail", "Mail and Maps", "Mail, Maps and Notes".
std::string namesOf(const std::vector<std::string>& names) {
    std::string out;
    for (std::size_t i = 0; i < names.size(); ++i)
        out += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    return out;
}
} // namespace

int LiteProduct::addListener(std::function<void()> listener) {
    listeners_.emplace(++nextListener_, std::move(listener));
    return nextListener_;
}

void LiteProduct::removeListener(int token) {
    listeners_.erase(token);
}

void LiteProduct::notify() {
    // A listener may remove itself while being told; walk a copy.
    auto listeners = listeners_;
    for (auto& [token, listener] : listeners)
        listener();
}

ResultLine LiteProduct::finish(ResultLine line) {
    result_ = line;
    notify();
    return line;
}

std::string LiteProduct::startupName(const std::filesystem::path& agent) {
    return agent.stem().string();
}

std::optional<ResultLine> LiteProduct::askToTrash(const std::vector<std::filesystem::path>& files) {
    std::vector<std::filesystem::path> admitted;
    for (const auto& file : files)
        if (!live_.trash->refusal(file)) admitted.push_back(file);
    if (admitted.empty()) return finish({std::string(LiteSentences::nothingToDelete), "lock"});

    Confirmation question;
    question.title = admitted.size() == 1
                         ? fillIn(LiteSentences::trashOne, {{"name", admitted[0].filename().string()}})
                         : fillIn(LiteSentences::trashMany, {{"count", count(admitted.size())}});
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; i < admitted.size(); ++i) {
        bytes += HomeTrash::bytesOf(admitted[i]);
        if (i < namesListed) question.message += (i ? ", " : "") + admitted[i].filename().string();
    }
    if (admitted.size() > namesListed)
        question.message += " and " + count(admitted.size() - namesListed) + " more";
    question.message += " (" + fileBytes(std::int64_t(bytes)) + std::string(LiteSentences::trashMessageEnd);
    question.confirm = LiteSentences::trashConfirm;
    // Everything asked about goes to the home trash, which checks each item again when it moves.
    question.act = [this, files] { return trashNow(files); };
    question.cancelled = [] { return ResultLine{std::string(LiteSentences::nothingMoved), "info.circle"}; };
    confirmation_ = std::move(question);
    notify();
    return std::nullopt;
}

ResultLine LiteProduct::trashNow(const std::vector<std::filesystem::path>& files) {
    auto receipt = live_.trash->trash(files);
    lastReceipt_ = receipt;
    if (receipt.moved.empty()) return {std::string(LiteSentences::nothingMoved), "info.circle"};
    Undoable::Trash undo{receipt.id, {}};
    for (const auto& moved : receipt.moved)
        undo.moved.push_back(moved.from);
    undoable_ = Undoable{std::move(undo)};
    auto n = receipt.moved.size();
    return {n == 1 ? std::string(LiteSentences::movedOne)
                   : fillIn(LiteSentences::movedMany, {{"count", count(n)}}),
            "trash"};
}

std::optional<ResultLine> LiteProduct::askToTurnOff(const std::filesystem::path& agent) {
    auto name = startupName(agent);
    Confirmation question;
    question.title = fillIn(LiteSentences::turnOffTitle, {{"name", name}});
    question.message = LiteSentences::turnOffMessage;
    question.confirm = LiteSentences::turnOffConfirm;
    question.act = [this, agent, name]() -> ResultLine {
        auto held = live_.startup->turnOff(agent);
        if (!held) return {held.error(), "exclamationmark.circle"};
        undoable_ = Undoable{Undoable::Startup{name, *held, canonicalForm(agent)}};
        return {fillIn(LiteSentences::turnedOff, {{"name", name}}), "power"};
    };
    question.cancelled = [name] {
        return ResultLine{fillIn("{name} stays on", {{"name", name}}), "info.circle"};
    };
    confirmation_ = std::move(question);
    notify();
    return std::nullopt;
}

void LiteProduct::askToRestart() {
    Confirmation question;
    question.title = LiteSentences::restartTitle;
    question.message = LiteSentences::restartMessage;
    question.confirm = LiteSentences::restartConfirm;
    question.act = [this]() -> ResultLine {
        auto asked = live_.machine->restart();
        if (!asked) return {asked.error(), "exclamationmark.circle"};
        return {std::string(live_.machine->isStandIn() ? LiteSentences::restartStandIn
                                                       : LiteSentences::restartAsked),
                "restart"};
    };
    question.cancelled = [] {
        return ResultLine{std::string(LiteSentences::restartCancelled), "info.circle"};
    };
    confirmation_ = std::move(question);
    notify();
}

void LiteProduct::askToClean(CleanPlan plan) {
    bool hold = !plan.items.empty() && plan.items.front().action == CleanPlan::Action::hold;
    auto n = plan.items.size();
    auto counted = count(n) + (n == 1 ? " item" : " items");
    Confirmation question;
    question.title =
        fillIn(hold ? LiteSentences::setAsideTitle : LiteSentences::cleanTitle, {{"count", counted}});
    for (std::size_t i = 0; i < n && i < namesListed; ++i)
        question.message += (i ? ", " : "") + plan.items[i].name;
    if (n > namesListed) question.message += " and " + count(n - namesListed) + " more";
    question.message += " (" + fileBytes(plan.bytes()) + "). ";
    if (hold) {
        question.message += "They move into Vantle's holding folder and keep taking up their space there; "
                            "Put Back or ⌘Z returns them.";
    } else {
        std::vector<std::string> costs;
        for (const auto& item : plan.items)
            if (const Rule* rule = live_.storageCleaner->table().find(item.category);
                rule && rule->cost && std::ranges::find(costs, *rule->cost) == costs.end())
                costs.push_back(*rule->cost);
        for (auto& cost : costs) {
            cost[0] = char(std::toupper(static_cast<unsigned char>(cost[0])));
            question.message += cost + ". ";
        }
        question.message += std::string(CleanReceipt::cannotBeUndoneWords);
    }
    for (const auto& left : plan.leftAlone)
        question.message += "\nLeft alone: " + left.name + ": " + left.reason;
    question.confirm = hold ? LiteSentences::setAsideConfirm : LiteSentences::cleanConfirm;
    question.act = [this, plan = std::move(plan)] { return cleanNow(plan); };
    question.cancelled = [] { return ResultLine{std::string(LiteSentences::cleanCancelled), "info.circle"}; };
    confirmation_ = std::move(question);
    notify();
}

ResultLine LiteProduct::cleanNow(const CleanPlan& plan) {
    CancelFlag cancel;
    auto receipt = live_.storageCleaner->carryOut(plan, cancel, live_.holdingShelf.get());
    if (!receipt) return {receipt.error().message, "exclamationmark.circle"};
    lastCleanReceipt_ = *receipt;
    if (!receipt->undo.empty()) undoable_ = Undoable{Undoable::Storage{receipt->undo.heldIds}};
    std::vector<bool> comesBack;
    for (const auto& item : plan.items)
        if (const Rule* rule = live_.storageCleaner->table().find(item.category))
            comesBack.push_back(rule->comesBack);
    // The receipt's summary is its last line; the lines above it speak of single items.
    auto text = receiptText(*receipt, comesBack);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    auto summary = text.substr(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
    bool didSomething = std::ranges::any_of(
        receipt->outcomes, [](const auto& o) { return o.result != CleanReceipt::ItemResult::leftAlone; });
    return {summary, didSomething ? (receipt->undo.empty() ? "trash" : "tray.and.arrow.down")
                                  : "exclamationmark.circle"};
}

ResultLine LiteProduct::putBackHeld(const std::vector<std::string>& heldIds) {
    auto back = live_.holdingShelf->putBack(heldIds);
    if (back.putBack.empty()) {
        std::string why;
        for (const auto& failure : back.failures)
            why += (why.empty() ? "" : " ") + failure;
        return finish(
            {why.empty() ? std::string(LiteSentences::nothingPutBack) : why, "exclamationmark.circle"});
    }
    // What went back by hand is no longer the last clean's to undo.
    if (undoable_ && std::holds_alternative<Undoable::Storage>(undoable_->what)) {
        auto& ids = std::get<Undoable::Storage>(undoable_->what).heldIds;
        std::erase_if(ids, [&](const std::string& id) {
            return std::ranges::find(back.putBack, id) != back.putBack.end();
        });
        if (ids.empty()) undoable_.reset();
    }
    auto n = back.putBack.size();
    return finish({n == 1 ? std::string(LiteSentences::putBackOne)
                          : fillIn(LiteSentences::putBackMany, {{"count", count(n)}}),
                   "arrow.uturn.backward"});
}

std::optional<ResultLine> LiteProduct::answer(bool yes) {
    if (!confirmation_) return std::nullopt;
    // Cleared before acting, so a listener told of the result never sees the old question.
    auto question = std::move(*confirmation_);
    confirmation_.reset();
    return finish(yes ? question.act() : question.cancelled());
}

void LiteProduct::askToQuit(const ProcessRow& process) {
    auto name = process.app.value_or(process.name);
    Confirmation question;
    question.title = fillIn(LiteSentences::quitTitle, {{"name", name}});
    question.message = quitQuestion(process);
    question.confirm = LiteSentences::quitConfirm;
    question.act = [this, pid = process.pid, name] { return quitNow(pid, name); };
    question.cancelled = [name] {
        return ResultLine{fillIn(LiteSentences::quitCancelled, {{"name", name}}), "info.circle"};
    };
    confirmation_ = std::move(question);
    notify();
}

ResultLine LiteProduct::quitApp(int pid, const std::string& name) {
    return finish(quitNow(pid, name));
}

ResultLine LiteProduct::quitNow(int pid, const std::string& name) {
    if (live_.processes) {
        if (live_.processes->quit(pid) == QuitOutcome::quit)
            return {fillIn(LiteSentences::quitDone, {{"name", name}}), "info.circle"};
        return {fillIn("{name} did not quit: it may be asking about unsaved work.", {{"name", name}}),
                "exclamationmark.circle"};
    }
    if (!quitter)
        return {fillIn("{name} could not be asked to quit.", {{"name", name}}), "exclamationmark.circle"};
    auto quit = quitter(pid);
    if (!quit) return {quit.error(), "exclamationmark.circle"};
    return {fillIn(LiteSentences::quitDone, {{"name", name}}), "info.circle"};
}

void LiteProduct::askToEraseHealthRecord() {
    Confirmation question;
    question.title = LiteSentences::eraseRecordTitle;
    question.message = LiteSentences::eraseRecordMessage;
    question.confirm = LiteSentences::eraseRecordConfirm;
    question.act = [this]() -> ResultLine {
        if (!live_.healthRecord) return {std::string(LiteSentences::recordKept), "info.circle"};
        live_.healthRecord->erase();
        return {std::string(LiteSentences::recordErased), "trash"};
    };
    question.cancelled = [] { return ResultLine{std::string(LiteSentences::recordKept), "info.circle"}; };
    confirmation_ = std::move(question);
    notify();
}

LoadTiming LiteProduct::balanceTiming(const VantleLite& live) {
    LoadTiming timing;
    // A sandbox's figures are made up: there is nothing to wait for.
    if (live.isSandbox) timing.before = timing.settle = timing.after = timing.quitWindow = {};
    return timing;
}

ScoredReading LiteProduct::readLoad(const VantleLite& live) {
    // A sandbox's processes are made up: none of them is looked up in this machine's /proc.
    auto proc = live.isSandbox ? live.support / "no-proc" : std::filesystem::path("/proc");
    return readForBalance(*live.activity, *live.vitals, ::getpid(), proc, balanceTiming(live).before,
                          [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); });
}

void LiteProduct::askToBalance(ScoredReading before, std::vector<BalanceCandidate> chosen) {
    std::vector<std::string> moves, quits;
    for (const auto& c : chosen)
        (c.action == BalanceCandidate::Action::slow ? moves : quits).push_back(c.name);
    Confirmation question;
    question.title = LiteSentences::balanceTitle;
    if (!moves.empty()) question.message = fillIn(LiteSentences::balanceMoves, {{"names", namesOf(moves)}});
    if (!quits.empty())
        question.message += (question.message.empty() ? "" : " ") +
                            fillIn(LiteSentences::balanceQuits, {{"names", namesOf(quits)}});
    question.confirm = LiteSentences::balanceConfirm;
    question.act = [this, before = std::move(before), chosen = std::move(chosen)] {
        return balanceNow(before, chosen);
    };
    question.cancelled = [] {
        return ResultLine{std::string(LiteSentences::balanceCancelled), "info.circle"};
    };
    confirmation_ = std::move(question);
    notify();
}

ResultLine LiteProduct::balanceNow(const ScoredReading& before, const std::vector<BalanceCandidate>& chosen) {
    auto timing = balanceTiming(live_);
    auto sleep = [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); };
    auto balanced = carryOut(
        before, chosen, *live_.balance, timing, [this] { return readLoad(live_); }, sleep);
    lastBalance_ = balanced;
    if (!balanced.moved.empty()) {
        Undoable::Balance undo;
        for (const auto& moved : balanced.moved) {
            undo.pids.push_back(moved.pid);
            undo.names.push_back(moved.name);
        }
        undoable_ = Undoable{std::move(undo)};
        auto n = balanced.moved.size();
        return {n == 1 ? std::string(LiteSentences::balanceMovedOne)
                       : fillIn(LiteSentences::balanceMovedMany, {{"count", count(n)}}),
                "info.circle"};
    }
    // Only quits, or nothing: the report's first line says which.
    auto lines = reportOf(balanced);
    bool nothing = balanced.quit.empty() && balanced.stillOpen.empty();
    return {lines.front(), nothing ? "exclamationmark.circle" : "info.circle"};
}

ResultLine LiteProduct::showInFileManager(const std::filesystem::path& item) {
    if (live_.standInApps) {
        live_.standInApps->reveal(item);
        return finish({std::string(LiteSentences::shownStandIn), "folder"});
    }
    if (!revealer)
        return finish({"Vantle Lite cannot show items in the file manager here.", "exclamationmark.circle"});
    auto shown = revealer(item);
    if (!shown) return finish({shown.error(), "exclamationmark.circle"});
    return finish({std::string(LiteSentences::shown), "folder"});
}

std::optional<ResultLine> LiteProduct::undoLast() {
    if (!undoable_) return std::nullopt;
    auto undo = std::move(*undoable_);
    undoable_.reset();
    if (auto* trash = std::get_if<Undoable::Trash>(&undo.what)) {
        auto back = live_.trash->putBack(trash->receipt);
        if (back.empty())
            return finish({std::string(LiteSentences::nothingPutBack), "exclamationmark.circle"});
        return finish({back.size() == 1 ? std::string(LiteSentences::putBackOne)
                                        : fillIn(LiteSentences::putBackMany, {{"count", count(back.size())}}),
                       "arrow.uturn.backward"});
    }
    if (auto* storage = std::get_if<Undoable::Storage>(&undo.what)) {
        auto back = live_.holdingShelf->putBack(storage->heldIds);
        if (back.putBack.empty())
            return finish({std::string(LiteSentences::nothingPutBack), "exclamationmark.circle"});
        return finish({back.putBack.size() == 1
                           ? std::string(LiteSentences::putBackOne)
                           : fillIn(LiteSentences::putBackMany, {{"count", count(back.putBack.size())}}),
                       "arrow.uturn.backward"});
    }
    if (auto* balance = std::get_if<Undoable::Balance>(&undo.what)) {
        std::vector<std::string> back;
        std::optional<ProcessControls::Failure> failure;
        for (std::size_t i = 0; i < balance->pids.size(); ++i) {
            if (auto put = live_.balance->putBack(balance->pids[i]); put)
                back.push_back(balance->names[i]);
            else if (!failure || put.error() != ProcessControls::Failure::gone)
                failure = put.error(); // "ended" is said only when every one of them has
        }
        if (back.empty())
            return finish({std::string(sentenceOf(failure.value_or(ProcessControls::Failure::gone))),
                           "exclamationmark.circle"});
        return finish({namesOf(back) + (back.size() == 1 ? " is" : " are") +
                           std::string(LiteSentences::backOnEveryCore),
                       "arrow.uturn.backward"});
    }
    auto& startup = std::get<Undoable::Startup>(undo.what);
    if (live_.startup->turnBackOn(startup.held, startup.former))
        return finish({fillIn(LiteSentences::backOn, {{"name", startup.name}}), "arrow.uturn.backward"});
    return finish({fillIn(LiteSentences::notBackOn, {{"name", startup.name}}), "exclamationmark.circle"});
}

} // namespace vantle
