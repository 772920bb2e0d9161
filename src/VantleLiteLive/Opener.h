// The one place through which this program hands something to another app: a file to open or show
// in the file manager, a place on a map, a secure web page, a web search, an email, a settings pane.
// It opens only what the program shows, writes the ledger before anything that makes another app
// reach the network, and in a sandbox opens nothing: every request is recorded by the stand-in apps.
// Owned by the live services; every operation may be called from several threads.
#pragma once
#include "Platform/Workspace.h"
#include "VantleEgress/EgressLedger.h"
#include "VantleLiteLive/StandInApps.h"

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantle {

class Opener {
  public:
    struct Refusal {
        std::string reason;

        static constexpr std::string_view sandbox = "This is a sandbox, so Vantle opens no other app.";
        static constexpr std::string_view notShown = "Vantle opens only the files and apps it shows.";
        static constexpr std::string_view neverOpened =
            "Vantle does not open {name}: scripts, launchers and Java archives run programs of their own.";
        static constexpr std::string_view appNotOffered = "That app is not one this Mac offers for the file.";
        static constexpr std::string_view mapsOffline = "Vantle is offline, so it does not open Maps.";
        static constexpr std::string_view noPlace = "There is no place to show in Maps.";
        static constexpr std::string_view mapsNotRecorded =
            "The network ledger could not be written, so Maps was not opened.";
        static constexpr std::string_view pageOffline = "Vantle is offline, so it does not open web pages.";
        static constexpr std::string_view notSecurePage = "Vantle opens only secure web pages (https).";
        static constexpr std::string_view pageNotRecorded =
            "The network ledger could not be written, so the page was not opened.";
        static constexpr std::string_view searchOffline = "Vantle is offline, so it does not open a search.";
        static constexpr std::string_view nothingToSearch = "There is nothing to search for.";
        static constexpr std::string_view searchNotRecorded =
            "The network ledger could not be written, so the search was not opened.";
        static constexpr std::string_view emailNotMade = "The email could not be made.";
        static constexpr std::string_view onlySettings = "Only System Settings opens from here.";
        static constexpr std::string_view handOverFailed = "{target} could not be opened: {reason}";
    };

    enum class Opened { inApp, inFinder };

    struct Place {
        std::string name;
        double latitude = 0;
        double longitude = 0;
    };

    struct Options {
        std::shared_ptr<Workspace> workspace;
        // The folders whose files and folders this program shows; nothing outside them is opened.
        std::vector<std::filesystem::path> places;
        std::vector<std::filesystem::path> appFolders;
        // Null when offline: nothing that reaches the network is handed over.
        std::shared_ptr<EgressLedger> ledger;
        // Set in a sandbox: every request is recorded there and nothing is opened.
        std::shared_ptr<StandInApps> fence;
        // The support mailbox of feedback emails.
        std::string supportAddress = "support@vantle.app";
    };

    explicit Opener(Options options) : options_(std::move(options)) {}

    std::expected<Opened, Refusal>
    openFile(const std::filesystem::path& file,
             const std::optional<std::filesystem::path>& app = std::nullopt) const;
    // Held to the shown places, as opening is.
    std::expected<Opened, Refusal> reveal(const std::filesystem::path& item) const;
    std::expected<Opened, Refusal> showInMaps(const std::optional<Place>& place) const;
    std::expected<Opened, Refusal> searchInMaps(const std::string& words, double latitude,
                                                double longitude) const;
    std::expected<Opened, Refusal> openPage(const std::string& address) const;
    std::expected<Opened, Refusal> openSearch(const std::string& words) const;
    std::expected<Opened, Refusal> writeEmail(const std::string& subject, const std::string& body) const;
    std::expected<Opened, Refusal> openSettings(const std::string& address) const;

    // The panes this program sends the user to, under the title "Privacy & Security".
    static constexpr std::string_view settingsScheme = "x-apple.systempreferences";
    static constexpr std::string_view privacyTitle = "Privacy & Security";
    static constexpr std::string_view privacySentence =
        "macOS may ask whether Vantle Lite can see your Desktop, Documents and Downloads. Say yes to see "
        "your files in Home.";

    // Whether a file is of a type that is never opened: shell scripts (by name or by a "#!" first
    // line), terminal settings, .desktop launchers and Java archives.
    static bool isNeverOpened(const std::filesystem::path& file);

  private:
    std::expected<Opened, Refusal> handOver(const std::string& target, std::string_view label) const;
    std::expected<Opened, Refusal> handOverRecorded(const std::string& address, LedgerEntry::Purpose purpose,
                                                    std::optional<std::string> query,
                                                    std::string_view notRecorded) const;
    bool isShown(const std::filesystem::path& item) const;

    Options options_;
};

// Percent-encodes every byte outside the unreserved set (letters, digits, - . _ ~).
std::string percentEncoded(std::string_view text);

} // namespace vantle
