// The records of the product model's actions: the question being asked (`Confirmation`), the one
// result line every action ends with (`ResultLine`, text and symbol name), and the last action that
// Undo can put back (`Undoable`). Plain values; the product model owns the ones it holds.
#pragma once
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vantle {

struct ResultLine {
    std::string text;
    std::string symbol; // a symbol name: "info.circle", "arrow.uturn.backward", ...
    bool operator==(const ResultLine&) const = default;
};

// A question before an action. Answering runs `act` (yes) or `cancelled` (no); each gives the line.
struct Confirmation {
    std::string title;
    std::string message;
    std::string confirm; // the button that says yes
    std::string cancel = "Cancel";
    std::function<ResultLine()> act;
    std::function<ResultLine()> cancelled;
};

struct Undoable {
    struct Trash {
        std::string receipt; // the home trash's receipt id
        std::vector<std::filesystem::path> moved;
        bool operator==(const Trash&) const = default;
    };
    struct Startup {
        std::string name;
        std::filesystem::path held;   // where the file now lies
        std::filesystem::path former; // where it came from
        bool operator==(const Startup&) const = default;
    };
    // Items a clean set aside in the holding folder, put back by their held ids.
    struct Storage {
        std::vector<std::string> heldIds;
        bool operator==(const Storage&) const = default;
    };
    // Processes a balance moved to the background band, put back on every core by their pids.
    struct Balance {
        std::vector<int> pids;
        std::vector<std::string> names;
        bool operator==(const Balance&) const = default;
    };
    std::variant<Trash, Startup, Storage, Balance> what;
    bool operator==(const Undoable&) const = default;
};

// The sentences of the actions, in one place.
struct LiteSentences {
    static constexpr std::string_view trashOne = "Move “{name}” to the Trash?";
    static constexpr std::string_view trashMany = "Move {count} items to the Trash?";
    static constexpr std::string_view trashMessageEnd =
        "). They go to the Trash, as Finder moves them, and ⌘Z puts them back.";
    static constexpr std::string_view trashConfirm = "Move to Trash";
    static constexpr std::string_view movedOne = "Moved 1 item to the Trash · ⌘Z puts it back";
    static constexpr std::string_view movedMany = "Moved {count} items to the Trash · ⌘Z puts them back";
    static constexpr std::string_view nothingMoved = "Nothing was moved";
    static constexpr std::string_view nothingToDelete = "Nothing to delete";
    static constexpr std::string_view putBackOne = "Put back 1 item";
    static constexpr std::string_view putBackMany = "Put back {count} items";
    static constexpr std::string_view nothingPutBack = "Nothing could be put back";

    static constexpr std::string_view turnOffTitle = "Turn off {name}?";
    static constexpr std::string_view turnOffMessage = "It won't start at your next login. Its file moves to "
                                                       "Vantle Lite's own folder, and Undo puts it back.";
    static constexpr std::string_view turnOffConfirm = "Turn Off";
    static constexpr std::string_view turnedOff = "{name} is off · ⌘Z turns it back on";
    static constexpr std::string_view backOn = "{name} is back in your startup items";
    static constexpr std::string_view notBackOn = "{name} could not be put back";

    static constexpr std::string_view quitDone = "{name} is no longer running";
    static constexpr std::string_view quitTitle = "Quit {name}?";
    static constexpr std::string_view quitConfirm = "Quit";
    static constexpr std::string_view quitCancelled = "{name} stays open";

    static constexpr std::string_view balanceTitle = "Balance the load?";
    static constexpr std::string_view balanceMoves =
        "{names} move to the efficiency cores at low priority, and ⌘Z puts them back on every core.";
    static constexpr std::string_view balanceQuits =
        "{names} are asked to quit: each saves your work or asks about it, as when you quit it yourself.";
    static constexpr std::string_view balanceConfirm = "Balance";
    static constexpr std::string_view balanceCancelled = "Nothing was changed.";
    static constexpr std::string_view balanceMovedOne =
        "Moved 1 process to the efficiency cores · ⌘Z puts it back";
    static constexpr std::string_view balanceMovedMany =
        "Moved {count} processes to the efficiency cores · ⌘Z puts them back";
    static constexpr std::string_view backOnEveryCore = " back on every core.";

    static constexpr std::string_view eraseRecordTitle = "Erase the health record?";
    static constexpr std::string_view eraseRecordMessage =
        "Every point kept so far goes, and History starts again from now. This cannot be undone.";
    static constexpr std::string_view eraseRecordConfirm = "Erase";
    static constexpr std::string_view recordErased = "The health record was erased";
    static constexpr std::string_view recordKept = "Nothing was erased";

    static constexpr std::string_view restartTitle = "Restart this Mac?";
    static constexpr std::string_view restartMessage =
        "Apps are asked to quit first, and may ask you to save. Vantle Lite opens again only if you open it.";
    static constexpr std::string_view restartConfirm = "Restart";
    static constexpr std::string_view restartCancelled = "Nothing was restarted";
    static constexpr std::string_view restartStandIn = "Restart asked of the sandbox's stand-in Mac";
    static constexpr std::string_view restartAsked = "Restart asked: apps are asked to quit first";

    static constexpr std::string_view cleanTitle = "Delete {count} for good?";
    static constexpr std::string_view cleanConfirm = "Delete";
    static constexpr std::string_view setAsideTitle = "Set aside {count}?";
    static constexpr std::string_view setAsideConfirm = "Set Aside";
    static constexpr std::string_view cleanCancelled = "Nothing was touched.";

    static constexpr std::string_view shownStandIn = "Shown in Finder (a sandbox's stand-in)";
    static constexpr std::string_view shown = "Shown in the file manager";
};

} // namespace vantle
