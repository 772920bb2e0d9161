#include "VantleEgress/EgressLedger.h"
#include "VantleEgress/LiteSilentLedger.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utility>

using namespace vantle;
using vantle::testing::readFile;
using vantle::testing::TempDir;
using namespace std::chrono;

namespace {

Clock fixedClock(TimePoint at) {
    return [at] { return at; };
}

const TimePoint noon = sys_days{2026y / November / 21} + 12h + 500ms + 250us;

EgressLedger::Leaving updateCheck() {
    EgressLedger::Leaving leaving;
    leaving.purpose = LedgerEntry::Purpose::update;
    leaving.url = "https://Updates.Example.org:443/feed.xml?x=1";
    leaving.bodyBytes = 12;
    return leaving;
}

} // namespace

TEST(EgressLedger, WritesFirstLineThenResultSharingTheIdAndReadsThemBack) {
    TempDir dir;
    auto file = dir / "data/egress-ledger.jsonl";
    std::string id;
    {
        auto ledger = EgressLedger::open(file, fixedClock(noon));
        ASSERT_TRUE(ledger) << ledger.error().sentence;
        auto leaving = (*ledger)->recordLeaving(updateCheck());
        ASSERT_TRUE(leaving);
        id = *leaving;
        auto first = (*ledger)->entries().at(0);
        EXPECT_EQ(first.host, "updates.example.org");
        EXPECT_EQ(first.failure, std::string(LedgerEntry::leavingNote));
        EXPECT_EQ(first.bytesSent, 0);
        EXPECT_FALSE(first.status);
        EXPECT_EQ(first.at, noon - 250us) << "times are kept to whole milliseconds";
        ASSERT_TRUE((*ledger)->recordResult(id, {.status = 200, .bytesReceived = 5120}));
    }
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    auto reopened = EgressLedger::open(file);
    ASSERT_TRUE(reopened);
    auto entries = (*reopened)->entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].id, id);
    EXPECT_EQ(entries[1].id, id);
    EXPECT_EQ(entries[0].failure, std::string(LedgerEntry::leavingNote)) << "answered, so not marked as lost";
    EXPECT_EQ(entries[1].status, 200);
    EXPECT_EQ(entries[1].bytesSent, 12);
    EXPECT_EQ(entries[1].bytesReceived, 5120);
    EXPECT_FALSE(entries[1].failure);
    EXPECT_EQ((*reopened)->unreadableLines(), 0);
    auto text = readFile(file);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST(EgressLedger, RequestWhoseResultNeverCameIsShownAsLostOnTheNextStart) {
    TempDir dir;
    auto file = dir / "egress-ledger.jsonl";
    {
        auto ledger = EgressLedger::open(file);
        ASSERT_TRUE((*ledger)->recordLeaving(updateCheck()));
        auto answered = (*ledger)->recordLeaving(updateCheck());
        ASSERT_TRUE((*ledger)->recordResult(*answered, {.failure = "timed out"}));
    }
    auto entries = (*EgressLedger::open(file))->entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].failure, "left this Mac; its result was never recorded");
    EXPECT_EQ(entries[1].failure, std::string(LedgerEntry::leavingNote));
    EXPECT_EQ(entries[2].failure, "timed out");
}

TEST(EgressLedger, TornLastLineIsCountedAndNeverJoinedToTheNextWrite) {
    TempDir dir;
    auto file = dir / "egress-ledger.jsonl";
    {
        auto ledger = EgressLedger::open(file);
        ASSERT_TRUE((*ledger)->recordLeaving(updateCheck()));
    }
    // The program died in the middle of a write, and some other line is damaged too.
    auto text = readFile(file);
    dir.write("egress-ledger.jsonl", "not json at all\n" + text + text.substr(0, text.size() / 2));
    {
        auto ledger = EgressLedger::open(file);
        ASSERT_TRUE(ledger);
        EXPECT_EQ((*ledger)->unreadableLines(), 2);
        EXPECT_EQ((*ledger)->entries().size(), 1u);
        ASSERT_TRUE((*ledger)->recordLeaving(updateCheck()));
    }
    auto ledger = EgressLedger::open(file);
    EXPECT_EQ((*ledger)->unreadableLines(), 2) << "the new line must stand on a line of its own";
    EXPECT_EQ((*ledger)->entries().size(), 2u);
}

TEST(EgressLedger, EmptyFileHasNoEntriesAndAUnopenableOneSaysWhy) {
    TempDir dir;
    dir.write("empty/egress-ledger.jsonl", "");
    auto empty = EgressLedger::open(dir / "empty/egress-ledger.jsonl");
    ASSERT_TRUE(empty);
    EXPECT_TRUE((*empty)->entries().empty());
    ASSERT_TRUE((*empty)->recordLeaving(updateCheck()));
    EXPECT_EQ(readFile(dir / "empty/egress-ledger.jsonl").front(), '{')
        << "no stray line feed before the first line";

    dir.mkdir("blocked/egress-ledger.jsonl"); // a folder where the file should be
    auto blocked = EgressLedger::open(dir / "blocked/egress-ledger.jsonl");
    ASSERT_FALSE(blocked);
    EXPECT_EQ(blocked.error().what, EgressLedger::Failure::Case::notOpened);
    EXPECT_EQ(blocked.error().sentence, "The network ledger at " +
                                            (dir / "blocked/egress-ledger.jsonl").string() +
                                            " could not be opened: Is a directory");
    EXPECT_EQ(blocked.error().reason, "Is a directory");
}

TEST(EgressLedger, EverySubscriberGetsEveryNewEntryInOrder) {
    TempDir dir;
    auto ledger = *EgressLedger::open(dir / "egress-ledger.jsonl");
    ASSERT_TRUE(ledger->recordLeaving(updateCheck())); // before subscribing: not delivered
    auto a = ledger->subscribe();
    auto b = ledger->subscribe();
    auto id = *ledger->recordLeaving(updateCheck());
    ASSERT_TRUE(ledger->recordResult(id, {.status = 304}));
    for (auto& stream : {a, b}) {
        auto first = stream->tryNext();
        auto second = stream->tryNext();
        ASSERT_TRUE(first && second);
        EXPECT_EQ(first->id, id);
        EXPECT_FALSE(first->status);
        EXPECT_EQ(second->status, 304);
        EXPECT_FALSE(stream->tryNext());
    }
    a.reset(); // a dropped stream is simply no longer fed
    ASSERT_TRUE(ledger->recordLeaving(updateCheck()));
    EXPECT_TRUE(b->tryNext());
}

TEST(EgressLedger, SilentLedgerHasNothingAndNeverYields) {
    LiteSilentLedger silent;
    EXPECT_TRUE(silent.entries().empty());
    EXPECT_FALSE(silent.subscribe()->tryNext());
}

TEST(LedgerEntry, LineCodingKeepsEveryFieldAndRefusesBadTimes) {
    LedgerEntry e{"0F8FAD5B-D9CB-469F-A165-70867728950E",
                  noon,
                  LedgerEntry::Purpose::search,
                  "example.org",
                  "https://example.org/?q=x",
                  "GET",
                  "x",
                  1,
                  2,
                  200,
                  "6B29FC40-CA47-1067-B31D-00DD010662DA",
                  "oops",
                  "https://a.example",
                  "curl"};
    e.at = toMilliseconds(e.at);
    auto line = encodeJson(e);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_TRUE(line.starts_with(
        R"({"id":"0F8FAD5B-D9CB-469F-A165-70867728950E","at":"2026-11-21T12:00:00.500Z","purpose":"search")"));
    EXPECT_EQ(decodeLedgerLine(line), e);

    auto bad = decodeLedgerLine(
        R"({"id":"x","at":"last tuesday","purpose":"page","host":"h","url":"u","method":"GET","bytesSent":0,"bytesReceived":0})");
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error(), "not a ledger time: last tuesday");
    EXPECT_FALSE(decodeLedgerLine(R"({"id":"x"})"));
    EXPECT_FALSE(decodeLedgerLine("[]"));
}

namespace {
std::string ledgerLine(std::string_view id, std::string_view at, std::string_view extra = "") {
    return std::string(R"({"id":")") + std::string(id) + R"(","at":)" + std::string(at) +
           R"(,"purpose":"page","host":"h","url":"https://h/","method":"GET","bytesSent":0,"bytesReceived":0)" +
           std::string(extra) + "}";
}
constexpr std::string_view goodId = "0F8FAD5B-D9CB-469F-A165-70867728950E";
} // namespace

TEST(LedgerEntry, LineWhoseIdOrRunIsNotAUuidIsUnreadable) {
    EXPECT_TRUE(decodeLedgerLine(ledgerLine(goodId, R"("2026-11-21T12:00:00.000Z")")));
    EXPECT_FALSE(decodeLedgerLine(ledgerLine("request-7", R"("2026-11-21T12:00:00.000Z")")));
    EXPECT_FALSE(decodeLedgerLine(ledgerLine(goodId, R"("2026-11-21T12:00:00.000Z")", R"(,"run":"run-1")")));
}

TEST(LedgerEntry, OutOfRangeValuesMakeTheLineUnreadableInsteadOfWrapping) {
    EXPECT_FALSE(decodeLedgerLine(ledgerLine(goodId, R"("9999-01-01T00:00:00.000Z")")))
        << "was shown as 1816";
    EXPECT_FALSE(
        decodeLedgerLine(ledgerLine(goodId, R"("2026-11-21T12:00:00.000Z")", R"(,"status":99999999999)")));
    EXPECT_FALSE(decodeLedgerLine(ledgerLine(goodId, R"("2026-11-21T12:00:00.000Z")", R"(,"status":2.5)")));
    EXPECT_TRUE(decodeLedgerLine(ledgerLine(goodId, R"("2262-01-01T00:00:00.000Z")")));
}

TEST(EgressLedger, AtNestedAHundredThousandDeepIsOneUnreadableLineNotACrash) {
    TempDir dir;
    std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
    dir.write("egress-ledger.jsonl",
              ledgerLine(goodId, R"("2026-11-21T12:00:00.000Z")") + "\n" + ledgerLine(goodId, deep) + "\n");
    auto ledger = EgressLedger::open(dir / "egress-ledger.jsonl");
    ASSERT_TRUE(ledger) << ledger.error().sentence;
    EXPECT_EQ((*ledger)->unreadableLines(), 1);
    EXPECT_EQ((*ledger)->entries().size(), 1u);
}

TEST(EgressLedger, FifoInPlaceOfTheLedgerIsNotOpenedRatherThanHanging) {
    TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "egress-ledger.jsonl").c_str(), 0600), 0);
    auto ledger = EgressLedger::open(dir / "egress-ledger.jsonl");
    ASSERT_FALSE(ledger);
    EXPECT_EQ(ledger.error().reason, "it is not a regular file");
}

TEST(EgressLedger, ShortWriteNeverGluesTwoLinesTogether) {
    TempDir dir;
    auto file = dir / "egress-ledger.jsonl";
    bool cutNext = true;
    auto write = [&](int fd, const void* bytes, size_t count) -> ssize_t {
        // The disk filled up a third of the way into the first line.
        if (std::exchange(cutNext, false)) return ::write(fd, bytes, count / 3);
        return ::write(fd, bytes, count);
    };
    {
        auto ledger = EgressLedger::open(file, systemClock(), write);
        ASSERT_TRUE(ledger);
        auto torn = (*ledger)->recordLeaving(updateCheck());
        ASSERT_FALSE(torn) << "a short write is a failed write: the request must not be sent";
        ASSERT_TRUE((*ledger)->recordLeaving(updateCheck()));
    }
    auto reopened = EgressLedger::open(file);
    ASSERT_TRUE(reopened);
    EXPECT_EQ((*reopened)->entries().size(), 1u) << "the whole second line survives";
    EXPECT_EQ((*reopened)->unreadableLines(), 1) << "only the torn fragment is lost";
}

TEST(LedgerEntry, HostOfUrl) {
    EXPECT_EQ(hostOfUrl("https://user:pw@Mail.Example.COM:8443/a?b#c"), "mail.example.com");
    EXPECT_EQ(hostOfUrl("http://[::1]:8080/"), "::1");
    EXPECT_EQ(hostOfUrl("https://example.org"), "example.org");
    EXPECT_EQ(hostOfUrl("not a url"), "");
}
