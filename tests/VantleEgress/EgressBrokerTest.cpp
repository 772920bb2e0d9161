#include "VantleEgress/EgressBroker.h"
#include "VantleEgress/AddressRule.h"
#include "support/HttpsTestServer.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <sys/resource.h>
#include <thread>

using namespace vantle;
using vantle::testing::HttpsTestServer;
using vantle::testing::TempDir;

namespace {

using Response = HttpsTestServer::Response;

struct BrokerFixture {
    TempDir dir;
    std::shared_ptr<EgressLedger> ledger = *EgressLedger::open(dir / "egress-ledger.jsonl");
    HttpsTestServer server;
    EgressBroker broker;

    explicit BrokerFixture(HttpsTestServer::Handler handler, bool allowsLoopback = true,
                           std::vector<std::string> resolve = {})
        : server(dir.path(), std::move(handler)),
          broker(ledger, options(allowsLoopback, std::move(resolve))) {}

    EgressBroker::Options options(bool allowsLoopback, std::vector<std::string> resolve) const {
        EgressBroker::Options o;
        o.allowsLoopback = allowsLoopback;
        o.trustedCertificates = server.certificate();
        o.resolve = std::move(resolve);
        o.version = "1.2.3";
        return o;
    }

    std::expected<EgressResponse, EgressFailure> get(const std::string& url) {
        return broker.send(EgressRequest{.purpose = LedgerEntry::Purpose::update, .url = url});
    }
};

const EgressError& errorOf(const std::expected<EgressResponse, EgressFailure>& result) {
    return std::get<EgressError>(result.error());
}
const EgressRefusal& refusalOf(const std::expected<EgressResponse, EgressFailure>& result) {
    return std::get<EgressRefusal>(result.error());
}

HttpsTestServer::Handler redirectChain(int lastHop) {
    return [lastHop](const HttpsTestServer::Request& request) {
        int hop = std::stoi(request.target.substr(std::string("/hop/").size()));
        if (hop >= lastHop) return Response{200, {}, "arrived at " + std::to_string(hop)};
        return Response{302, {{"Location", "/hop/" + std::to_string(hop + 1)}}, ""};
    };
}

// Makes every write that would grow a file fail (EFBIG), as a full disk would, for this process.
class FileSizeLimit {
  public:
    FileSizeLimit() {
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        previous_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit none = saved_;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_FSIZE, &none);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &saved_);
        std::signal(SIGXFSZ, previous_);
    }

  private:
    rlimit saved_{};
    void (*previous_)(int) = nullptr;
};

} // namespace

TEST(EgressBroker, FollowsFiveRedirectsEachWithItsOwnLedgerLinesAndRefusesTheSixth) {
    {
        BrokerFixture f(redirectChain(5));
        auto answer = f.get(f.server.origin() + "/hop/0");
        ASSERT_TRUE(answer.has_value()) << sentenceOf(answer.error());
        EXPECT_EQ(answer->body, "arrived at 5");
        EXPECT_EQ(answer->url, f.server.origin() + "/hop/5");

        auto entries = f.ledger->entries();
        ASSERT_EQ(entries.size(), 12u); // a first line and a result line for each of the six requests
        for (size_t i = 0; i < entries.size(); i += 2) {
            EXPECT_EQ(entries[i].id, entries[i + 1].id);
            EXPECT_EQ(entries[i].failure, std::string(LedgerEntry::leavingNote));
            EXPECT_EQ(entries[i].url, f.server.origin() + "/hop/" + std::to_string(i / 2));
        }
        EXPECT_EQ(entries[1].status, 302);
        EXPECT_EQ(entries[1].redirectedFrom, std::nullopt);
        EXPECT_EQ(entries[11].status, 200);
        EXPECT_EQ(entries[11].redirectedFrom, f.server.origin() + "/hop/4");
        EXPECT_EQ(entries[11].bytesReceived, 12);
    }
    {
        BrokerFixture f(redirectChain(100));
        auto answer = f.get(f.server.origin() + "/hop/0");
        ASSERT_FALSE(answer.has_value());
        EXPECT_EQ(sentenceOf(answer.error()), "The site redirected more than 5 times.");
        EXPECT_EQ(f.server.requests().size(), 6u); // the sixth redirect's target was never asked for
    }
}

TEST(EgressBroker, AbandonsAnAnswerOverTheLimitWhetherAnnouncedOrNot) {
    for (bool announced : {true, false}) {
        BrokerFixture f([announced](const HttpsTestServer::Request& request) {
            size_t size = request.target == "/exact" ? 64000 : 64001;
            return Response{200, {}, std::string(size, 'x'), announced};
        });
        auto exact = f.get(f.server.origin() + "/exact");
        ASSERT_TRUE(exact.has_value()) << sentenceOf(exact.error());
        EXPECT_EQ(exact->body.size(), 64000u);

        auto over = f.get(f.server.origin() + "/over");
        ASSERT_FALSE(over.has_value()) << "announced " << announced;
        EXPECT_EQ(errorOf(over).what, EgressError::Case::answerTooLarge);
        EXPECT_EQ(sentenceOf(over.error()), "The answer is larger than 64000 bytes.");
        auto entries = f.ledger->entries();
        ASSERT_EQ(entries.size(), 4u);
        EXPECT_EQ(entries[3].failure, "answer too large, abandoned");
        EXPECT_EQ(entries[3].status, 200);
        EXPECT_LE(entries[3].bytesReceived, 64000);
    }
}

TEST(EgressBroker, SendsNothingWhenTheLedgerCannotBeWritten) {
    BrokerFixture f([](const HttpsTestServer::Request&) { return Response{200, {}, "hello"}; });
    std::expected<EgressResponse, EgressFailure> answer;
    {
        FileSizeLimit full;
        answer = f.get(f.server.origin() + "/");
    }
    ASSERT_FALSE(answer.has_value());
    EXPECT_EQ(errorOf(answer).what, EgressError::Case::ledgerNotWritten);
    EXPECT_TRUE(sentenceOf(answer.error())
                    .starts_with("Nothing was sent because the network ledger cannot be written: "))
        << sentenceOf(answer.error());
    EXPECT_EQ(f.server.connections(), 0);
    EXPECT_TRUE(f.ledger->entries().empty());
}

TEST(EgressBroker, RefusesBeforeWritingAnything) {
    BrokerFixture f([](const HttpsTestServer::Request&) { return Response{200, {}, "ok"}; });
    const std::string http = "http://127.0.0.1:" + std::to_string(f.server.port()) + "/";
    auto plain = f.get(http);
    ASSERT_FALSE(plain.has_value());
    EXPECT_EQ(refusalOf(plain).what, EgressRefusal::Case::notHTTPS);
    EXPECT_EQ(sentenceOf(plain.error()), "Only https addresses can be opened, not " + http);

    // Exactly 2000 characters pass; 2001 are refused.
    std::string base = f.server.origin() + "/";
    std::string at2000 = base + std::string(2000 - base.size(), 'a');
    ASSERT_EQ(at2000.size(), 2000u);
    auto fits = f.get(at2000);
    EXPECT_TRUE(fits.has_value()) << sentenceOf(fits.error());
    auto tooLong = f.get(at2000 + "a");
    ASSERT_FALSE(tooLong.has_value());
    EXPECT_EQ(sentenceOf(tooLong.error()), "The address is longer than 2000 characters.");

    // A body of 4096 bytes is sent; 4097 are refused.
    EgressRequest post{
        .url = base + "post", .method = EgressRequest::Method::post, .body = std::string(4096, 'b')};
    auto posted = f.broker.send(post);
    EXPECT_TRUE(posted.has_value()) << sentenceOf(posted.error());
    post.body->push_back('b');
    auto tooBig = f.broker.send(post);
    ASSERT_FALSE(tooBig.has_value());
    EXPECT_EQ(sentenceOf(tooBig.error()), "The request is larger than 4096 bytes.");

    // Only the two requests that passed reached the server and the ledger.
    EXPECT_EQ(f.server.requests().size(), 2u);
    EXPECT_EQ(f.server.requests()[1].body.size(), 4096u);
    auto entries = f.ledger->entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[3].bytesSent, 4096);
    EXPECT_EQ(entries[2].method, "POST");
}

TEST(EgressBroker, SendsTheFixedIdentityAndHeadersWhateverTheRequestAsks) {
    BrokerFixture f([](const HttpsTestServer::Request&) {
        return Response{200, {{"X-Answer", "yes"}}, "ok"};
    });
    EgressRequest request{
        .url = f.server.origin() + "/who",
        .headers = {{"User-Agent", "someone else"}, {"X-Extra", "1"}, {"X-Bad", "a\r\nInjected: 1"}}};
    auto answer = f.broker.send(request);
    ASSERT_TRUE(answer.has_value()) << sentenceOf(answer.error());
    EXPECT_EQ(answer->headers.at("x-answer"), "yes");
    request.identity.kind = EgressIdentity::Kind::browser;
    ASSERT_TRUE(f.broker.send(request).has_value());

    auto seen = f.server.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].headers.at("user-agent"), "Vantle/1.2.3 (https://vantle.app; Mac app)");
    EXPECT_EQ(seen[0].headers.at("accept-language"), "en-US,en;q=0.9");
    EXPECT_EQ(seen[0].headers.at("sec-gpc"), "1");
    EXPECT_EQ(seen[0].headers.at("x-extra"), "1");
    EXPECT_FALSE(seen[0].headers.contains("injected"));
    EXPECT_FALSE(seen[0].headers.contains("x-bad"));
    EXPECT_TRUE(seen[1].headers.at("user-agent").starts_with("Mozilla/5.0 (Macintosh;"));
    EXPECT_EQ(seen[1].headers.at("accept"), "text/html,application/xhtml+xml;q=0.9,*/*;q=0.5");
    EXPECT_EQ(seen[1].headers.at("sec-gpc"), "1");
}

TEST(EgressBroker, MapsStatusesAndBadRedirectsToTheirSentences) {
    BrokerFixture f([](const HttpsTestServer::Request& request) {
        if (request.target == "/missing") return Response{404, {}, "no"};
        if (request.target == "/forbidden") return Response{403, {}, "no"};
        if (request.target == "/nowhere") return Response{302, {}, ""};
        if (request.target == "/to-http") return Response{302, {{"Location", "http://127.0.0.1/"}}, ""};
        if (request.target == "/to-private") return Response{302, {{"Location", "https://10.1.2.3/"}}, ""};
        if (request.target == "/post-elsewhere") return Response{307, {{"Location", "/other"}}, ""};
        return Response{200, {}, "ok"};
    });
    auto missing = f.get(f.server.origin() + "/missing");
    EXPECT_EQ(sentenceOf(missing.error()), "The site answered with status 404.");
    EXPECT_EQ(errorOf(missing).status, 404);
    EXPECT_EQ(sentenceOf(f.get(f.server.origin() + "/forbidden").error()),
              "The site did not allow this page to be read (status 403).");
    EXPECT_EQ(sentenceOf(f.get(f.server.origin() + "/nowhere").error()),
              "The site redirected to an address that cannot be read.");
    EXPECT_EQ(sentenceOf(f.get(f.server.origin() + "/to-http").error()),
              "Only https addresses can be opened, not http://127.0.0.1/");
    EXPECT_EQ(sentenceOf(f.get(f.server.origin() + "/to-private").error()),
              "10.1.2.3 is a private or local address, not a public site.");
    auto resend = f.broker.send(EgressRequest{
        .url = f.server.origin() + "/post-elsewhere", .method = EgressRequest::Method::post, .body = "q=1"});
    EXPECT_EQ(sentenceOf(resend.error()), "The site asked for the request to be sent again somewhere else.");
    // No redirect above was followed: one request each reached the server.
    EXPECT_EQ(f.server.requests().size(), 6u);
    auto entries = f.ledger->entries();
    ASSERT_EQ(entries.size(), 12u);
    EXPECT_EQ(entries[1].status, 404);
}

TEST(EgressBroker, WithholdsTheAnswerOfAPublicNameThatResolvesToThisMachine) {
    // Without the test-only loopback allowance, a name pinned to 127.0.0.1 stands for a public site
    // whose address record points back into this machine.
    BrokerFixture probe([](const HttpsTestServer::Request&) { return Response{200, {}, "secret"}; });
    EgressBroker strict(
        probe.ledger,
        probe.options(false, {"updates.example.com:" + std::to_string(probe.server.port()) + ":127.0.0.1"}));
    auto answer = strict.send(
        EgressRequest{.url = "https://updates.example.com:" + std::to_string(probe.server.port()) + "/feed"});
    ASSERT_FALSE(answer.has_value());
    EXPECT_EQ(probe.server.connections(), 0);
    auto entries = probe.ledger->entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1].failure, "answer withheld: the site resolved to a private address");
    EXPECT_EQ(entries[1].bytesReceived, 0);
}

TEST(EgressBroker, RunsRequestsAtTheSameTime) {
    // Each answer waits until all four requests have arrived, which only happens when the broker
    // sends them side by side.
    std::mutex mutex;
    std::condition_variable arrived;
    int count = 0;
    BrokerFixture f([&](const HttpsTestServer::Request&) {
        std::unique_lock lock(mutex);
        ++count;
        arrived.notify_all();
        bool together = arrived.wait_for(lock, std::chrono::seconds(10), [&] { return count >= 4; });
        return Response{together ? 200 : 503, {}, "ok"};
    });
    std::vector<std::thread> threads;
    std::vector<int> statuses(4, 0);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            auto answer = f.get(f.server.origin() + "/together/" + std::to_string(i));
            statuses[i] = answer ? answer->status : errorOf(answer).status.value_or(-1);
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(statuses, std::vector<int>(4, 200));
    EXPECT_EQ(f.ledger->entries().size(), 8u);
}

TEST(AddressRule, RefusesNamesAndAddressesOfThisMachineAndTheLocalNetwork) {
    AddressRule rule;
    struct Case {
        const char* url;
        EgressRefusal::Case expected;
    };
    for (auto [url, expected] : std::initializer_list<Case>{
             {"https://10.0.0.8/", EgressRefusal::Case::privateAddress},
             {"https://192.168.1.1/", EgressRefusal::Case::privateAddress},
             {"https://172.31.255.255/", EgressRefusal::Case::privateAddress},
             {"https://169.254.169.254/latest", EgressRefusal::Case::privateAddress},
             {"https://127.0.0.1/", EgressRefusal::Case::privateAddress},
             {"https://0x7f000001/", EgressRefusal::Case::privateAddress},
             {"https://[::1]/", EgressRefusal::Case::privateAddress},
             {"https://[fe80::1]/", EgressRefusal::Case::privateAddress},
             {"https://[fd12:3456::1]/", EgressRefusal::Case::privateAddress},
             {"https://[::ffff:192.168.0.1]/", EgressRefusal::Case::privateAddress},
             {"https://[::ffff:7f00:1]/", EgressRefusal::Case::privateAddress},
             {"https://printer.local/", EgressRefusal::Case::localName},
             {"https://router/", EgressRefusal::Case::localName},
             {"https://nas.home.arpa/", EgressRefusal::Case::localName},
             {"HTTPS://user:pw@example.com/", EgressRefusal::Case::credentials},
             {"ftp://example.com/", EgressRefusal::Case::notHTTPS},
             {"https://", EgressRefusal::Case::noHost},
         }) {
        auto checked = rule.check(url);
        ASSERT_FALSE(checked.has_value()) << url;
        EXPECT_EQ(checked.error().what, expected) << url;
    }
    EXPECT_EQ(rule.check("https://[fd00::1]/").error().sentence,
              "fd00::1 is a private or local address, not a public site.");
    EXPECT_EQ(rule.check("https://printer.local/").error().sentence,
              "printer.local is a name on this Mac or the local network, not a public site.");

    EXPECT_EQ(rule.check("HTTPS://Example.COM/x").value_or(""), "example.com");
    EXPECT_EQ(rule.check("https://8.8.8.8/").value_or(""), "8.8.8.8");
    EXPECT_EQ(rule.check("https://[2606:4700::1111]/").value_or(""), "2606:4700::1111");
    AddressRule forTests{.allowsLoopback = true};
    EXPECT_TRUE(forTests.check("https://127.0.0.1:8443/").has_value());
    EXPECT_FALSE(forTests.check("https://10.0.0.1/").has_value());
}
