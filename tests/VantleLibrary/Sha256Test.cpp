#include "VantleLibrary/Sha256.h"
#include "support/HashingSupport.h"
#include "support/Patterned.h"

#include <gtest/gtest.h>

using namespace vantle;
using vantle::testing::patterned;
using vantle::testing::sha256;

namespace {

std::span<const std::uint8_t> bytesOf(std::string_view s) {
    return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

} // namespace

// Every length around the block and padding edges, given whole and in two pieces split anywhere:
// the padding that spills into a second block, and a piece that ends inside a block, are where a
// hand-made SHA-256 goes wrong.
TEST(Sha256, MatchesTheLibraryForEveryLengthAndSplit) {
    const auto text = patterned(300, 11);
    Sha256 hash;
    Sha256 library(Sha256::Engine::library);
    for (size_t length = 0; length <= 200; ++length) {
        auto message = std::string_view(text).substr(0, length);
        hash.restart();
        hash.update(bytesOf(message));
        ASSERT_EQ(hash.finish(), sha256(message)) << length;
        for (size_t split : {size_t{1}, size_t{55}, size_t{63}, size_t{64}, size_t{65}, length / 2}) {
            if (split > length) continue;
            hash.restart();
            hash.update(bytesOf(message.substr(0, split)));
            hash.update(bytesOf(message.substr(split)));
            ASSERT_EQ(hash.finish(), sha256(message)) << length << " split at " << split;
            library.restart();
            library.update(bytesOf(message.substr(0, split)));
            library.update(bytesOf(message.substr(split)));
            ASSERT_EQ(library.finish(), sha256(message))
                << "the library's, " << length << " split at " << split;
        }
    }
}

// Two lanes of messages hashed side by side must each come out as if hashed alone, whatever the
// lengths of the messages and of the pieces they come in, and however full each one's last block was
// when the other lane's bytes met it; a copy taken between pieces goes on alone. The same holds when
// a lane is the library's, which hashes alone.
TEST(Sha256, TwoStreamsOfMessagesHashAsEachAlone) {
    for (auto engine : {Sha256::Engine::fastest, Sha256::Engine::library}) {
        SCOPED_TRACE(engine == Sha256::Engine::library ? "the library's in lane 1" : "the fastest");
        const auto text = patterned(200'000, 3);
        struct Message {
            size_t from, length, piece;
        };
        const std::vector<Message> lanes[2] = {
            {{0, 0, 64},
             {1, 1, 64},
             {10, 63, 7},
             {100, 64, 64},
             {0, 65, 64},
             {7, 70'000, 16'384},
             {3, 17, 5},
             {9, 1'000, 999}},
            {{50, 5, 5}, {60, 128, 100}, {70, 129, 129}, {80, 50'000, 1'048'576}, {90, 0, 1}, {99, 3, 1}}};
        std::array<Sha256, 2> shas{Sha256(), Sha256(engine)};
        std::array<size_t, 2> message{0, 0}, given{0, 0};
        std::array<std::vector<Digest>, 2> made;
        std::optional<Sha256> copy;
        std::optional<std::string_view> copied;
        auto more = [&](size_t lane) -> std::span<const std::uint8_t> {
            while (message[lane] < lanes[lane].size()) {
                const auto& m = lanes[lane][message[lane]];
                if (given[lane] == m.length) {
                    made[lane].push_back(shas[lane].finish());
                    shas[lane].restart();
                    ++message[lane];
                    given[lane] = 0;
                    continue;
                }
                if (lane == 0 && m.length == 70'000 && given[lane] == 16'384) {
                    copy = shas[lane];
                    copied = std::string_view(text).substr(m.from, given[lane]);
                }
                auto n = std::min(m.piece, m.length - given[lane]);
                auto piece = bytesOf(std::string_view(text).substr(m.from + given[lane], n));
                given[lane] += n;
                return piece;
            }
            return {};
        };
        Sha256::hashTwoStreams(shas[0], shas[1], more);
        for (size_t lane = 0; lane < 2; ++lane) {
            ASSERT_EQ(made[lane].size(), lanes[lane].size());
            for (size_t i = 0; i < made[lane].size(); ++i) {
                const auto& m = lanes[lane][i];
                EXPECT_EQ(made[lane][i], sha256(std::string_view(text).substr(m.from, m.length)))
                    << "lane " << lane << ", message " << i;
            }
        }
        ASSERT_TRUE(copy);
        EXPECT_EQ(copy->finish(), sha256(*copied)) << "a copy keeps what was given, and nothing after it";
        copy = Sha256(Sha256::Engine::library);
        copy->update(bytesOf("abc"));
        *copy = shas[0];
        EXPECT_EQ(copy->finish(), sha256("")) << "assigned, a state of the other engine hashes as its source";
    }
}
