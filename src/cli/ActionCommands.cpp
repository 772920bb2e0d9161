// `vantle trash PATH...`, `vantle startup list|off|on`, `vantle restart` and `vantle health record
// on|off|erase`: the actions of the product model from a terminal. Each change previews and asks
// (unless --yes) and ends with the action's one result line. Undo lives only as long as one run, so
// each of these prints what is needed to put things back by hand.
#include "cli/Commands.h"

#include "VantleSpec/Sentence.h"
#include "VantleSpec/TerminalText.h"

#include <iostream>

namespace vantle::cli {

namespace {

// Names go to a terminal: control characters are shown escaped, never sent raw.
std::string shown(const std::string& text) {
    return terminalSafe(text);
}

std::string shown(const std::filesystem::path& path) {
    return shown(path.string());
}

// Shows the question and takes the yes (or --yes). A "no", or no terminal to ask on, cancels the
// question and refuses with the action's own cancel line; none is given back then.
std::optional<ResultLine> askAndAnswer(CliContext& ctx, LiteProduct& product, bool yes) {
    const auto& question = *product.confirmation();
    std::cerr << question.title << "\n" << question.message << "\n";
    std::string declined = question.cancelled ? question.cancelled().text : "Nothing was touched.";
    bool agreed = confirmChange(ctx, question.confirm + "?", yes, declined);
    auto line = product.answer(agreed);
    if (!agreed) return std::nullopt;
    return line;
}

Json receiptJson(const HomeTrash::Receipt& receipt) {
    Json moved = Json::array();
    for (const auto& m : receipt.moved)
        moved.push_back(Json{{"from", m.from.string()}, {"to", m.to.string()}});
    return Json{{"id", receipt.id}, {"moved", moved}, {"refused", receipt.refused}};
}

void addTrash(CLI::App& app, CliContext& ctx) {
    auto* trash = app.add_subcommand(
        "trash", "Move files to the Trash: shows what would move, asks, then prints the receipt.\n"
                 "Undo cannot reach across two runs of the command: put items back from the Trash in your "
                 "file manager (each receipt line says where an item went).");
    auto paths = std::make_shared<std::vector<std::string>>();
    trash->add_option("PATH", *paths, "Files or folders to move to the Trash")->required();
    auto* yes = trash->add_flag("--yes")->description("Move without asking");
    auto* json = addJsonFlag(trash);
    trash->callback([&ctx, paths, yes, json] {
        auto* product = ctx.product();
        if (!product) return;
        std::vector<std::filesystem::path> files(paths->begin(), paths->end());
        if (auto at = product->askToTrash(files)) {
            for (const auto& f : files)
                if (auto why = product->live().trash->refusal(f)) std::cerr << shown(*why) << "\n";
            ctx.refuse(at->text);
            return;
        }
        auto line = askAndAnswer(ctx, *product, bool(*yes));
        if (!line) return;
        const auto& receipt = product->lastReceipt();
        if (*json && receipt) printJson(receiptJson(*receipt));
        if (!*json) {
            std::cout << line->text << "\n";
            if (receipt) {
                for (const auto& m : receipt->moved)
                    std::cout << "  " << shown(m.from) << " -> " << shown(m.to) << "\n";
                for (const auto& r : receipt->refused)
                    std::cout << "  Not moved: " << shown(r) << "\n";
            }
        }
        // Declining, or a batch that moved nothing, is not a success.
        if (!receipt || receipt->moved.empty()) ctx.exitCode = exitRefused;
    });
}

void addStartup(CLI::App& app, CliContext& ctx) {
    auto* startup = app.add_subcommand(
        "startup",
        "List your startup items, turn one off, or turn one back on.\nUndo cannot reach across two "
        "runs of the command: `startup off` prints the `startup on` command that puts the item back.");
    startup->require_subcommand(1);

    auto* list =
        startup->add_subcommand("list", "List your startup items and the ones Vantle Lite turned off");
    auto* json = addJsonFlag(list);
    list->callback([&ctx, json] {
        auto* live = ctx.live();
        if (!live) return;
        auto items = live->startup->list();
        auto held = live->startup->turnedOff();
        if (*json) {
            Json on = Json::array(), off = Json::array();
            for (const auto& i : items)
                on.push_back(Json{{"name", i.name}, {"path", i.path.string()}, {"service", i.service}});
            for (const auto& i : held)
                off.push_back(Json{{"name", i.name}, {"path", i.path.string()}});
            printJson(Json{{"items", on}, {"turnedOff", off}});
            return;
        }
        if (items.empty())
            std::cout << "No startup items in " << shown(live->startup->options().agents) << ".\n";
        for (const auto& i : items)
            std::cout << "  " << shown(i.name) << (i.service ? "  (a systemd user service: read only)" : "")
                      << "\n";
        if (!held.empty()) {
            std::cout << "Turned off (in " << shown(live->startup->options().turnedOff) << "):\n";
            for (const auto& i : held)
                std::cout << "  " << shown(i.name) << "\n";
        }
    });

    auto* off =
        startup->add_subcommand("off", "Turn a startup item off: its file moves to Vantle Lite's own folder");
    auto file = std::make_shared<std::string>();
    off->add_option("FILE", *file, "The startup item's file")->required();
    auto* yes = off->add_flag("--yes")->description("Turn it off without asking");
    off->callback([&ctx, file, yes] {
        auto* product = ctx.product();
        if (!product) return;
        product->askToTurnOff(*file);
        auto line = askAndAnswer(ctx, *product, bool(*yes));
        if (!line) return;
        auto* undo =
            product->undoable() ? std::get_if<Undoable::Startup>(&product->undoable()->what) : nullptr;
        if (!undo || line->symbol == "info.circle" || line->symbol == "exclamationmark.circle") {
            if (line->symbol == "exclamationmark.circle") return ctx.refuse(shown(line->text));
            std::cout << line->text << "\n";
            return;
        }
        std::cout << line->text << "\n  To turn it back on: vantle startup on '" << shown(undo->held) << "' '"
                  << shown(undo->former) << "'\n";
    });

    auto* on = startup->add_subcommand("on", "Turn a startup item back on from where `startup off` put it");
    auto held = std::make_shared<std::string>(), former = std::make_shared<std::string>();
    on->add_option("HELD", *held, "Where the file lies now")->required();
    on->add_option("FORMER", *former, "Where it came from")->required();
    auto* onYes = on->add_flag("--yes")->description("Turn it back on without asking");
    on->callback([&ctx, held, former, onYes] {
        auto* live = ctx.live();
        if (!live) return;
        auto name = LiteProduct::startupName(*former);
        std::cerr << "Will move " << shown(*held) << " back to " << shown(*former) << "\n";
        if (!confirmChange(ctx, "Turn " + shown(name) + " back on?", bool(*onYes),
                           fillIn("{name} stays off", {{"name", name}})))
            return;
        if (live->startup->turnBackOn(*held, *former))
            std::cout << fillIn(LiteSentences::backOn, {{"name", name}}) << "\n";
        else
            ctx.refuse(shown(fillIn(LiteSentences::notBackOn, {{"name", name}})));
    });
}

void addRestart(CLI::App& app, CliContext& ctx) {
    auto* restart =
        app.add_subcommand("restart", "Restart this machine (a sandbox asks its stand-in instead)");
    auto* yes = restart->add_flag("--yes")->description("Restart without asking");
    restart->callback([&ctx, yes] {
        auto* product = ctx.product();
        if (!product) return;
        product->askToRestart();
        auto line = askAndAnswer(ctx, *product, bool(*yes));
        if (!line) return;
        if (line->symbol == "exclamationmark.circle") return ctx.refuse(line->text);
        std::cout << line->text << "\n";
    });
}

} // namespace

void addActionCommands(CLI::App& app, CliContext& ctx) {
    addTrash(app, ctx);
    addStartup(app, ctx);
    addRestart(app, ctx);
}

void addHealthRecordCommands(CLI::App& health, CliContext& ctx) {
    auto* record =
        health.add_subcommand("record", "Keep Health's record of this machine on or off, or erase it");
    record->require_subcommand(1);
    auto* on = record->add_subcommand("on", "Keep a record of this machine's health while Vantle Lite runs");
    on->callback([&ctx] {
        if (auto* product = ctx.product()) {
            product->setKeepsHealthRecord(true);
            std::cout << "Health keeps a record of this machine while Vantle Lite runs.\n";
        }
    });
    auto* off = record->add_subcommand("off", "Stop keeping the record (what is kept stays until erased)");
    off->callback([&ctx] {
        if (auto* product = ctx.product()) {
            product->setKeepsHealthRecord(false);
            std::cout << "Health no longer keeps a record; what it kept stays until you erase it.\n";
        }
    });
    auto* erase = record->add_subcommand("erase", "Erase everything Health has recorded");
    auto* yes = erase->add_flag("--yes")->description("Erase without asking");
    erase->callback([&ctx, yes] {
        auto* product = ctx.product();
        if (!product) return;
        std::cerr << "Erase Health's record?\nEverything it kept about this machine is erased for good.\n";
        if (!confirmChange(ctx, "Erase?", bool(*yes), "Nothing was erased")) return;
        product->live().healthRecord->erase();
        std::cout << "Health's record is erased\n";
    });
}

} // namespace vantle::cli
