#include "VantleEgress/UpdateVerifier.h"

#include "Platform/ArchiveCalls.h"
#include "Platform/CryptoCalls.h"
#include "Platform/SystemError.h"
#include "VantleSpec/Sentence.h"

#include <cerrno>
#include <cstdlib>
#include <plist/plist.h>
#include <sys/stat.h>

namespace vantle {

namespace fs = std::filesystem;

namespace {

using ArchiveReader = std::unique_ptr<archive, decltype(&::archive_read_free)>;
using ArchiveWriter = std::unique_ptr<archive, decltype(&::archive_write_free)>;
struct PlistDeleter {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};

ArchiveReader openArchive(const ArchiveCalls& ar, std::string_view bytes) {
    ArchiveReader reader(ar.read_new(), ar.read_free);
    if (!reader) return reader;
    ar.read_support_filter_all(reader.get());
    ar.read_support_format_all(reader.get());
    if (ar.read_open_memory(reader.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) reader.reset();
    return reader;
}

// The entry's path without a leading "./"; nullopt for one that would land outside the folder.
std::optional<std::string> safeEntryPath(const char* raw) {
    if (!raw) return std::nullopt;
    std::string path(raw);
    while (path.starts_with("./"))
        path.erase(0, 2);
    if (path.empty() || path.front() == '/') return std::nullopt;
    for (const auto& part : fs::path(path))
        if (part == "..") return std::nullopt;
    return path;
}

class NoCodeSigning final : public CodeSigningProvider {
  public:
    bool available() const override { return false; }
    std::optional<std::string> unmetRequirement(const fs::path&, const std::string&) const override {
        return std::nullopt;
    }
    std::optional<std::string> notNotarized(const fs::path&) const override { return std::nullopt; }
};

std::optional<std::string> stringOf(plist_t dict, const char* key) {
    plist_t node = plist_dict_get_item(dict, key);
    if (!node || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
    // The copying getter asserts on a string that holds a NUL byte; this one gives the length.
    uint64_t length = 0;
    const char* value = plist_get_string_ptr(node, &length);
    if (!value) return std::nullopt;
    return std::string(value, length);
}

} // namespace

UpdateFailure UpdateFailure::make(Case what, std::string_view key, std::string_view value) {
    static constexpr std::pair<Case, std::string_view> sentences[] = {
        {Case::feed, feedSentence},
        {Case::download, downloadSentence},
        {Case::unreadableFeed, unreadableFeedSentence},
        {Case::wrongLength, wrongLengthSentence},
        {Case::badSignature, badSignatureSentence},
        {Case::unreadableArchive, unreadableArchiveSentence},
        {Case::noApp, noAppSentence},
        {Case::wrongApp, wrongAppSentence},
        {Case::wrongVersion, wrongVersionSentence},
        {Case::tooNew, tooNewSentence},
        {Case::notSignedByTeam, notSignedByTeamSentence},
        {Case::notNotarized, notNotarizedSentence},
        {Case::unreachable, unreachableSentence},
        {Case::notKept, notKeptSentence},
    };
    for (auto [c, sentence] : sentences)
        if (c == what) return {what, key.empty() ? std::string(sentence) : fillIn(sentence, {{key, value}})};
    return {what, {}};
}

std::shared_ptr<CodeSigningProvider> platformCodeSigning() {
    return std::make_shared<NoCodeSigning>();
}

std::optional<std::string> decodeBase64(std::string_view text) {
    std::string clean;
    for (char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/' || c == '='))
            return std::nullopt;
        clean += c;
    }
    size_t padding = 0;
    while (!clean.empty() && clean.back() == '=') {
        clean.pop_back();
        ++padding;
    }
    if (padding > 2 || clean.find('=') != std::string::npos || clean.size() % 4 == 1) return std::nullopt;
    size_t missing = (4 - clean.size() % 4) % 4;
    clean.append(missing, '=');
    auto crypto = cryptoCalls();
    if (!crypto) return std::nullopt;
    std::string out(clean.size() / 4 * 3, '\0');
    int length = (*crypto)->DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                        reinterpret_cast<const unsigned char*>(clean.data()),
                                        static_cast<int>(clean.size()));
    if (length < 0) return std::nullopt;
    out.resize(static_cast<size_t>(length) - missing);
    return out;
}

std::expected<UpdateVerifier::Verified, UpdateFailure>
UpdateVerifier::verify(const UpdateItem& item, std::string_view bytes, std::string_view systemVersion) const {
    using Case = UpdateFailure::Case;
    if (static_cast<std::int64_t>(bytes.size()) != item.length)
        return std::unexpected(UpdateFailure::make(Case::wrongLength));

    // Without libcrypto no signature can be checked (nor its text decoded), and an update that is not
    // checked is not used.
    auto crypto = cryptoCalls();
    auto key = decodeBase64(publicKey_);
    auto signature = decodeBase64(item.edSignature);
    bool valid = false;
    if (crypto && key && key->size() == 32 && signature && signature->size() == 64) {
        const CryptoCalls& c = **crypto;
        std::unique_ptr<EVP_PKEY, decltype(c.PKEY_free)> pkey(
            c.PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr,
                                      reinterpret_cast<const unsigned char*>(key->data()), key->size()),
            c.PKEY_free);
        std::unique_ptr<EVP_MD_CTX, decltype(c.MD_CTX_free)> context(c.MD_CTX_new(), c.MD_CTX_free);
        valid = pkey && context &&
                c.DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, pkey.get()) == 1 &&
                c.DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature->data()),
                               signature->size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                               bytes.size()) == 1;
    }
    if (!valid) return std::unexpected(UpdateFailure::make(Case::badSignature));

    auto calls = archiveCalls();
    if (!calls) return std::unexpected(UpdateFailure::make(Case::unreadableArchive));
    const ArchiveCalls& ar = **calls;
    auto reader = openArchive(ar, bytes);
    if (!reader) return std::unexpected(UpdateFailure::make(Case::unreadableArchive));
    std::optional<std::string> appName;
    std::string infoPlist;
    archive_entry* entry = nullptr;
    int status;
    int entries = 0;
    while ((status = ar.read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
        ++entries;
        auto path = safeEntryPath(ar.entry_pathname(entry));
        if (!path) return std::unexpected(UpdateFailure::make(Case::unreadableArchive));
        fs::path parts(*path);
        auto it = parts.begin();
        std::string top = it->string();
        if (appName || !top.ends_with(".app") || std::distance(parts.begin(), parts.end()) != 3) continue;
        if ((++it)->string() != "Contents" || (++it)->string() != "Info.plist") continue;
        if (ar.entry_size(entry) > (1 << 20))
            return std::unexpected(UpdateFailure::make(Case::unreadableArchive));
        infoPlist.resize(static_cast<size_t>(ar.entry_size(entry)));
        if (ar.read_data(reader.get(), infoPlist.data(), infoPlist.size()) !=
            static_cast<la_ssize_t>(infoPlist.size()))
            return std::unexpected(UpdateFailure::make(Case::unreadableArchive));
        appName = top;
    }
    if (status != ARCHIVE_EOF || entries == 0)
        return std::unexpected(UpdateFailure::make(Case::unreadableArchive));
    if (!appName) return std::unexpected(UpdateFailure::make(Case::noApp));

    plist_t raw = nullptr;
    plist_from_memory(infoPlist.data(), static_cast<uint32_t>(infoPlist.size()), &raw);
    std::unique_ptr<void, PlistDeleter> info(raw);
    if (!raw || plist_get_node_type(raw) != PLIST_DICT)
        return std::unexpected(UpdateFailure::make(Case::noApp));
    auto identifier = stringOf(raw, "CFBundleIdentifier").value_or("");
    if (identifier != bundleIdentifier_)
        return std::unexpected(UpdateFailure::make(Case::wrongApp, "identifier", identifier));
    auto version = stringOf(raw, "CFBundleShortVersionString").value_or("");
    if (version != item.shortVersion)
        return std::unexpected(UpdateFailure::make(Case::wrongVersion, "version", version));
    if (auto minimum = stringOf(raw, "LSMinimumSystemVersion");
        minimum && compareVersions(*minimum, systemVersion) > 0)
        return std::unexpected(UpdateFailure::make(Case::tooNew, "system version", *minimum));
    return Verified{*appName};
}

std::expected<void, UpdateFailure> UpdateVerifier::verifySigning(const fs::path& app) const {
    if (!provider_ || !provider_->available()) return {};
    std::string requirement =
        "identifier \"" + bundleIdentifier_ +
        "\" and anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6] and "
        "certificate leaf[field.1.2.840.113635.100.6.1.13] and certificate leaf[subject.OU] = \"" +
        team_ + "\"";
    if (auto unmet = provider_->unmetRequirement(app, requirement))
        return std::unexpected(UpdateFailure::make(UpdateFailure::Case::notSignedByTeam, "reason", *unmet));
    if (auto why = provider_->notNotarized(app))
        return std::unexpected(UpdateFailure::make(UpdateFailure::Case::notNotarized, "reason", *why));
    return {};
}

std::expected<void, std::string> UpdateVerifier::unpack(std::string_view bytes, const fs::path& folder) {
    if (::mkdir(folder.c_str(), 0700) != 0) return std::unexpected(systemErrorText(errno));
    auto calls = archiveCalls();
    if (!calls) return std::unexpected("the archive library could not be loaded (" + calls.error() + ")");
    const ArchiveCalls& ar = **calls;
    auto reader = openArchive(ar, bytes);
    ArchiveWriter writer(ar.write_disk_new(), ar.write_free);
    if (!reader || !writer) return std::unexpected("the archive could not be opened");
    // Every entry's own path was checked to stay inside and is then put under `folder`, which is
    // absolute, so libarchive's own refusal of absolute paths cannot be asked for here.
    ar.write_disk_set_options(writer.get(), ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                                ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_PERM |
                                                ARCHIVE_EXTRACT_TIME);
    archive_entry* entry = nullptr;
    int status;
    while ((status = ar.read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
        auto path = safeEntryPath(ar.entry_pathname(entry));
        if (!path) return std::unexpected("the archive names a place outside its folder");
        std::string target = (folder / *path).string();
        ar.entry_set_pathname(entry, target.c_str());
        if (const char* linked = ar.entry_hardlink(entry)) {
            auto inside = safeEntryPath(linked);
            if (!inside) return std::unexpected("the archive names a place outside its folder");
            ar.entry_set_hardlink(entry, (folder / *inside).c_str());
        }
        if (ar.write_header(writer.get(), entry) != ARCHIVE_OK)
            return std::unexpected(ar.error_string(writer.get()) ? ar.error_string(writer.get())
                                                                 : "write failed");
        const void* block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        int r;
        while ((r = ar.read_data_block(reader.get(), &block, &size, &offset)) == ARCHIVE_OK)
            if (ar.write_data_block(writer.get(), block, size, offset) != ARCHIVE_OK)
                return std::unexpected(ar.error_string(writer.get()) ? ar.error_string(writer.get())
                                                                     : "write failed");
        if (r != ARCHIVE_EOF) return std::unexpected("the archive could not be read to its end");
        ar.write_finish_entry(writer.get());
    }
    if (status != ARCHIVE_EOF) return std::unexpected("the archive could not be read to its end");
    if (ar.write_close(writer.get()) != ARCHIVE_OK)
        return std::unexpected("the unpacked app could not be finished");
    return {};
}

} // namespace vantle
