#include "VantleEgress/AppUpdater.h"

#include "support/HttpsTestServer.h"
#include "support/TempDir.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

using namespace vantle;
using vantle::testing::HttpsTestServer;
using vantle::testing::TempDir;
namespace fs = std::filesystem;

namespace {

std::string base64(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    int n =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

// A key pair made for one test, as the maker's signing key would be.
struct SigningKey {
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
    ~SigningKey() { EVP_PKEY_free(key); }

    std::string publicKey() const {
        unsigned char raw[32];
        size_t length = sizeof raw;
        EVP_PKEY_get_raw_public_key(key, raw, &length);
        return base64(std::string_view(reinterpret_cast<char*>(raw), length));
    }
    std::string sign(std::string_view bytes) const {
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        unsigned char signature[64];
        size_t length = sizeof signature;
        EVP_DigestSignInit(context, nullptr, nullptr, nullptr, key);
        EVP_DigestSign(context, signature, &length, reinterpret_cast<const unsigned char*>(bytes.data()),
                       bytes.size());
        EVP_MD_CTX_free(context);
        return base64(std::string_view(reinterpret_cast<char*>(signature), length));
    }
};

std::string infoPlist(const std::string& identifier, const std::string& version,
                      const std::string& minimumSystem) {
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>)" +
           identifier + R"(</string>
<key>CFBundleShortVersionString</key><string>)" +
           version + R"(</string>
<key>LSMinimumSystemVersion</key><string>)" +
           minimumSystem + R"(</string>
</dict></plist>
)";
}

// A gzipped tar holding one app folder, built in memory.
std::string appArchive(const std::string& info, const std::string& appName = "Vantle Lite.app") {
    std::string buffer(1 << 20, '\0');
    size_t used = 0;
    archive* writer = archive_write_new();
    archive_write_add_filter_gzip(writer);
    archive_write_set_format_pax_restricted(writer);
    archive_write_open_memory(writer, buffer.data(), buffer.size(), &used);
    auto add = [&](const std::string& path, const std::string& contents) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, path.c_str());
        archive_entry_set_size(entry, static_cast<la_int64_t>(contents.size()));
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        archive_write_header(writer, entry);
        archive_write_data(writer, contents.data(), contents.size());
        archive_entry_free(entry);
    };
    add(appName + "/Contents/Info.plist", info);
    add(appName + "/Contents/MacOS/vantle-lite", std::string(3000, 'm'));
    archive_write_close(writer);
    archive_write_free(writer);
    buffer.resize(used);
    return buffer;
}

struct UpdateFixture {
    TempDir dir;
    SigningKey key;
    std::shared_ptr<EgressLedger> ledger = *EgressLedger::open(dir / "data/egress-ledger.jsonl");
    std::string feed;
    std::string archive;
    HttpsTestServer server{dir.path(), [this](const HttpsTestServer::Request& request) {
                               if (request.target == "/appcast.xml")
                                   return HttpsTestServer::Response{200, {}, feed};
                               if (request.target == "/update.tar.gz")
                                   return HttpsTestServer::Response{200, {}, archive};
                               return HttpsTestServer::Response{404, {}, ""};
                           }};

    // The feed offers `served` at build 0.2.0, with the length and signature of `offered`.
    void offer(const std::string& served, std::string_view offered, std::string_view signature,
               const std::string& minimumSystem = "5.0") {
        archive = served;
        feed =
            R"(<?xml version="1.0" encoding="utf-8"?>
<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle">
<channel><title>Vantle Lite</title>
<item><title>Version 0.2.0</title>
<sparkle:minimumSystemVersion>)" +
            minimumSystem + R"(</sparkle:minimumSystemVersion>
<enclosure url=")" +
            server.origin() + R"(/update.tar.gz" length=")" + std::to_string(offered.size()) +
            R"(" type="application/octet-stream" sparkle:version="0.2.0" sparkle:shortVersionString="0.2.0" sparkle:edSignature=")" +
            std::string(signature) + R"("/>
</item></channel></rss>
)";
    }
    void offerSigned(const std::string& archiveBytes, const std::string& minimumSystem = "5.0") {
        offer(archiveBytes, archiveBytes, key.sign(archiveBytes), minimumSystem);
    }

    std::shared_ptr<EgressBroker> broker() const {
        EgressBroker::Options options;
        options.allowsLoopback = true;
        options.trustedCertificates = server.certificate();
        options.limits.maximumResponseBytes = AppUpdater::maximumUpdateBytes;
        return std::make_shared<EgressBroker>(ledger, options);
    }

    AppUpdater updater(bool online = true, std::string publicKey = {}) {
        AppUpdater::Options options;
        options.source =
            UpdateSource{server.origin() + "/appcast.xml", publicKey.empty() ? key.publicKey() : publicKey,
                         "TEAM123456", "app.vantle.lite"};
        options.folder = dir / "data/Updates";
        options.build = "0.1.0";
        if (online) options.feedBroker = options.downloadBroker = broker();
        options.systemVersion = "6.1.0";
        return AppUpdater(std::move(options));
    }

    // Nothing of a refused update is left behind: no app, no marker, no half-unpacked folder.
    bool nothingKept() const {
        std::error_code ec;
        if (!fs::exists(dir / "data/Updates", ec)) return true;
        for (auto& entry : fs::directory_iterator(dir / "data/Updates"))
            if (entry.path().filename() != "last-check") return false;
        return true;
    }
};

const std::string goodInfo = infoPlist("app.vantle.lite", "0.2.0", "5.10");

} // namespace

TEST(AppUpdater, KeepsAVerifiedUpdateReadyForQuitWithBothRequestsInTheLedger) {
    UpdateFixture f;
    f.offerSigned(appArchive(goodInfo));
    auto updater = f.updater();
    std::vector<UpdateStatus::Case> seen;
    updater.listen([&](const UpdateStatus& s) { seen.push_back(s.what); });

    auto status = updater.checkNow();
    EXPECT_EQ(status.sentence(), "0.2.0 is ready: it installs when you quit.");
    EXPECT_EQ(seen, (std::vector{UpdateStatus::Case::checking, UpdateStatus::Case::downloading,
                                 UpdateStatus::Case::ready}));
    EXPECT_TRUE(fs::exists(f.dir / "data/Updates/Ready/update.plist"));
    EXPECT_EQ(vantle::testing::readFile(f.dir / "data/Updates/Vantle Lite.app/Contents/Info.plist"),
              goodInfo);

    auto entries = f.ledger->entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].purpose, LedgerEntry::Purpose::update);
    EXPECT_EQ(entries[2].purpose, LedgerEntry::Purpose::download);
    EXPECT_EQ(entries[3].bytesReceived, static_cast<std::int64_t>(f.archive.size()));

    // The next launch finds it ready without asking the network.
    EXPECT_EQ(f.updater().status().what, UpdateStatus::Case::ready);
}

TEST(AppUpdater, UsesNothingWhoseSignatureSizeOrContentsDoNotHold) {
    struct Case {
        const char* what;
        std::function<void(UpdateFixture&)> offer;
        std::string sentence;
    };
    const std::string good = appArchive(goodInfo);
    std::vector<Case> cases = {
        {"signed by another key",
         [&](UpdateFixture& f) {
             SigningKey other;
             f.offer(good, good, other.sign(good));
         },
         "The update's signature did not match Vantle's key, so it was not used."},
        {"one byte short",
         [&](UpdateFixture& f) { f.offer(good.substr(0, good.size() - 1), good, f.key.sign(good)); },
         "The update came to a different size than the feed says, so it was not used."},
        {"one byte long", [&](UpdateFixture& f) { f.offer(good + "x", good, f.key.sign(good)); },
         "The update came to a different size than the feed says, so it was not used."},
        {"another app",
         [&](UpdateFixture& f) { f.offerSigned(appArchive(infoPlist("com.example.other", "0.2.0", "5.0"))); },
         "The update is another app (com.example.other)"},
        {"another version",
         [&](UpdateFixture& f) { f.offerSigned(appArchive(infoPlist("app.vantle.lite", "0.3.0", "5.0"))); },
         "The update is version 0.3.0, not the one the feed names."},
        {"a newer system inside",
         [&](UpdateFixture& f) { f.offerSigned(appArchive(infoPlist("app.vantle.lite", "0.2.0", "6.10"))); },
         "The update needs macOS 6.10"},
        {"no app", [&](UpdateFixture& f) { f.offerSigned(appArchive(goodInfo, "Vantle Lite")); },
         "The update held no app."},
        {"not an archive", [&](UpdateFixture& f) { f.offerSigned(std::string(500, 'z')); },
         "The update could not be opened."},
    };
    for (auto& c : cases) {
        UpdateFixture f;
        c.offer(f);
        auto status = f.updater().checkNow();
        EXPECT_EQ(status.what, UpdateStatus::Case::failed) << c.what;
        EXPECT_EQ(status.sentence(), c.sentence) << c.what;
        EXPECT_TRUE(f.nothingKept()) << c.what;
    }
}

TEST(AppUpdater, StopsBeforeDownloadingWhatThisSystemCannotRunOrDoesNotNeed) {
    UpdateFixture f;
    f.offerSigned(appArchive(goodInfo), "99.0");
    EXPECT_EQ(f.updater().checkNow().sentence(), "The update needs macOS 99.0");
    EXPECT_EQ(f.server.requests().size(), 1u) << "only the feed was asked for";

    UpdateFixture same;
    same.offerSigned(appArchive(goodInfo));
    auto status = [&] {
        AppUpdater::Options o;
        o.source =
            UpdateSource{same.server.origin() + "/appcast.xml", same.key.publicKey(), "", "app.vantle.lite"};
        o.folder = same.dir / "data/Updates";
        o.build = "0.2.0";
        o.feedBroker = o.downloadBroker = same.broker();
        o.clock = [] { return TimePoint{} + std::chrono::hours(24 * 365 * 50); };
        return AppUpdater(std::move(o)).checkNow();
    }();
    EXPECT_EQ(status.what, UpdateStatus::Case::upToDate);
    EXPECT_TRUE(status.sentence().starts_with("Up to date · checked "));
}

TEST(AppUpdater, OfflineOrWithoutAKeyChecksNothing) {
    UpdateFixture f;
    f.offerSigned(appArchive(goodInfo));
    EXPECT_EQ(f.updater(false).checkNow().sentence(), "Vantle Lite is offline.");
    AppUpdater::Options options;
    options.folder = f.dir / "data/Updates";
    options.feedBroker = options.downloadBroker = f.broker();
    EXPECT_EQ(AppUpdater(options).checkNow().sentence(), "Updates are not set up in this copy.");
    EXPECT_EQ(f.server.connections(), 0);
    EXPECT_TRUE(f.ledger->entries().empty());
}

TEST(AppUpdater, CatchesUpAMissedDailyCheckAtOnce) {
    using namespace std::chrono;
    TimePoint now = system_clock::now();
    EXPECT_EQ(AppUpdater::nextCheck(std::nullopt, now), now);
    EXPECT_EQ(AppUpdater::nextCheck(now - hours(72), now), now);
    auto due = AppUpdater::nextCheck(now - minutes(1), now);
    EXPECT_GT(due, now);
    EXPECT_LE(due, now + hours(49));
}

TEST(Appcast, ReadsItemsFromAttributesOrElementsAndRefusesDocumentTypes) {
    auto items = readAppcast(R"(<rss xmlns:s="http://www.andymatuschak.org/xml-namespaces/sparkle"><channel>
      <item><s:version>12</s:version><s:shortVersionString>1.2</s:shortVersionString>
        <enclosure url="https://example.org/a.zip" length="10" s:edSignature="c2ln"/></item>
      <item><enclosure url="https://example.org/b.zip" length="x" s:version="13" s:edSignature="c2ln"/></item>
      <item><enclosure url="https://example.org/c.zip" length="5" s:version="9" s:edSignature="c2ln"/></item>
    </channel></rss>)");
    ASSERT_TRUE(items.has_value()) << items.error();
    ASSERT_EQ(items->size(), 2u) << "an item without a usable length is left out";
    EXPECT_EQ((*items)[0].build, "12");
    EXPECT_EQ((*items)[0].shortVersion, "1.2");
    EXPECT_EQ((*items)[0].length, 10);
    EXPECT_EQ(newestAbove(*items, "10")->build, "12");
    EXPECT_FALSE(newestAbove(*items, "12").has_value());

    EXPECT_FALSE(readAppcast("<rss><channel>").has_value());
    EXPECT_FALSE(readAppcast("<feed/>").has_value());
    EXPECT_FALSE(
        readAppcast(R"(<!DOCTYPE rss [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;">]><rss>&b;</rss>)")
            .has_value());
    EXPECT_EQ(compareVersions("1.10", "1.9"), std::strong_ordering::greater);
    EXPECT_EQ(compareVersions("2", "2.0"), std::strong_ordering::equal);
    EXPECT_EQ(compareVersions("0.1.0", "0.2.0"), std::strong_ordering::less);
}
