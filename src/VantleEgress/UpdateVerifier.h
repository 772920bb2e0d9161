// Strict checks of a downloaded update before anything of it is kept: its size, the maker's Ed25519
// signature over the archive's bytes, that the archive opens and holds an app, and that the app's
// Info.plist names the expected identifier, the feed's version and a system this machine meets;
// then the platform's code-signing checks where the platform has them. Values in, a value out;
// verify() is const and may be called from several threads.
#pragma once
#include "VantleEgress/Appcast.h"

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace vantle {

struct UpdateFailure {
    enum class Case {
        feed,
        download,
        unreadableFeed,
        wrongLength,
        badSignature,
        unreadableArchive,
        noApp,
        wrongApp,
        wrongVersion,
        tooNew,
        notSignedByTeam,
        notNotarized,
        unreachable,
        notKept,
    };
    Case what;
    std::string sentence;

    static constexpr std::string_view feedSentence = "The update feed answered {status}";
    static constexpr std::string_view downloadSentence = "The update's download answered {status}";
    static constexpr std::string_view unreadableFeedSentence = "The update feed could not be read.";
    static constexpr std::string_view wrongLengthSentence =
        "The update came to a different size than the feed says, so it was not used.";
    static constexpr std::string_view badSignatureSentence =
        "The update's signature did not match Vantle's key, so it was not used.";
    static constexpr std::string_view unreadableArchiveSentence = "The update could not be opened.";
    static constexpr std::string_view noAppSentence = "The update held no app.";
    static constexpr std::string_view wrongAppSentence = "The update is another app ({identifier})";
    static constexpr std::string_view wrongVersionSentence =
        "The update is version {version}, not the one the feed names.";
    static constexpr std::string_view tooNewSentence = "The update needs macOS {system version}";
    static constexpr std::string_view notSignedByTeamSentence =
        "The update is not signed by Vantle's Developer ID: {reason}";
    static constexpr std::string_view notNotarizedSentence = "The update is not notarised by Apple: {reason}";
    static constexpr std::string_view unreachableSentence = "The update could not be reached ({reason})";
    static constexpr std::string_view notKeptSentence = "The update could not be kept: {reason}";

    static UpdateFailure make(Case what, std::string_view key = {}, std::string_view value = {});
};

// Reads a downloaded app's code signature. Linux has no such service: its provider says so, and the
// Ed25519 signature over the archive is what an update is trusted by there.
class CodeSigningProvider {
  public:
    virtual ~CodeSigningProvider() = default;
    // False when the platform has no code signatures to check.
    virtual bool available() const = 0;
    // The reason the app's signature does not satisfy `requirement`, or nothing when it does.
    virtual std::optional<std::string> unmetRequirement(const std::filesystem::path& app,
                                                        const std::string& requirement) const = 0;
    virtual std::optional<std::string> notNotarized(const std::filesystem::path& app) const = 0;
};
std::shared_ptr<CodeSigningProvider> platformCodeSigning();

class UpdateVerifier {
  public:
    struct Verified {
        std::string appName; // the app folder's name inside the archive ("Vantle Lite.app")
    };

    UpdateVerifier(std::string publicKey, std::string team, std::string bundleIdentifier,
                   std::shared_ptr<CodeSigningProvider> provider = platformCodeSigning())
        : publicKey_(std::move(publicKey)), team_(std::move(team)),
          bundleIdentifier_(std::move(bundleIdentifier)), provider_(std::move(provider)) {}

    // Everything that can be checked from the bytes alone, in order; `systemVersion` is this machine's.
    std::expected<Verified, UpdateFailure> verify(const UpdateItem& item, std::string_view archive,
                                                  std::string_view systemVersion) const;
    // The code-signing checks of the app once it is unpacked in `app`.
    std::expected<void, UpdateFailure> verifySigning(const std::filesystem::path& app) const;

    // Unpacks the archive into `folder` (which must not exist) refusing absolute paths, ".." and links
    // that lead out. The error is a short reason.
    static std::expected<void, std::string> unpack(std::string_view archive,
                                                   const std::filesystem::path& folder);

  private:
    std::string publicKey_;
    std::string team_;
    std::string bundleIdentifier_;
    std::shared_ptr<CodeSigningProvider> provider_;
};

// Standard base64 (with or without padding) to bytes; nullopt on any other character.
std::optional<std::string> decodeBase64(std::string_view text);

} // namespace vantle
