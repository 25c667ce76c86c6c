// What RFC 6455 asks of a server, seen from both ends of the relay: what goes in at one side comes out at the other,
// or the connection ends with the right status.
#include "tests/wire/wire.h"

namespace zenk_test {
namespace {

using namespace std::string_literals;

constexpr int kStaysOpen = 0;
constexpr int kWithoutWord = 1;  // the connection ends behind the answer, without a close frame
// The layer waits 5 seconds for a peer that does not answer. Nobody who does is to wait for that.
constexpr Milliseconds kPrompt{4000};
constexpr int kWholeText = kFin | kText, kWholeBinary = kFin | kBinary, kLast = kFin | kContinuation;
constexpr std::size_t kLimit = kMaxMessageBytes;
constexpr auto& masked = clientFrame;  // as a client sends it
constexpr auto& plain = serverFrame;   // as a server does

std::string closeBody(int status, std::string_view reason = "") {
    return bigEndian(static_cast<std::uint64_t>(status), 2).append(reason);
}
std::string clientClose(int status, std::string_view reason = "") {
    return masked(kFin | kClose, closeBody(status, reason));
}
std::string repeat(std::string_view unit, std::size_t count) {
    std::string text;
    while (count-- > 0) text += unit;
    return text;
}

struct Case {
    std::string sent;          // by one client
    std::string relayed = "";  // what its partner gets of it
    int end = kStaysOpen;      // or the status of the close frame that the client gets
    std::string answer = "";   // what comes back to the client before the end
};

struct Conformance : Wire {
    void SetUp() override { serve(); }
    /// @param pieceBytes  how much goes out at once
    void run(const std::vector<Case>& cases, std::size_t pieceBytes = kLimit) {
        for (const Case& one : cases) {
            SCOPED_TRACE(testing::PrintToString(one.sent.substr(0, 40)));
            Pair pair;
            ASSERT_TRUE(pair.connect(server->port, std::to_string(++m_pairs)));
            for (std::size_t at = 0; at < one.sent.size(); at += pieceBytes)
                pair.local.send(one.sent.substr(at, pieceBytes));  // a server may hang up before the last byte
            EXPECT_EQ(pair.local.receive(one.answer.size()), one.answer);
            if (one.end != kStaysOpen) expectEnd(pair.local, one.end);
            expectFrom(pair.remote, one.relayed + (one.end == kStaysOpen ? "" : plain(kFin | kClose, closeBody(1000))));
            EXPECT_TRUE(one.end != kStaysOpen || pair.exchange()) << "something else came, or it is broken";
        }
    }
    void expectEnd(RawClient& client, int status) const {
        if (status != kWithoutWord) {
            // The server may tell what is wrong in words of its own.
            const std::optional<Frame> close = client.receiveFrame();
            ASSERT_TRUE(close && close->first == (kFin | kClose)) << "no close frame";
            EXPECT_EQ(close->payload.substr(0, 2), closeBody(status));
            if (m_isAnswering) client.send(clientClose(status));
        }
        EXPECT_EQ(client.receive(1, kPrompt), "") << "bytes behind the end";
        EXPECT_TRUE(client.waitForEnd(Milliseconds(1)));
    }
    static void expectFrom(RawClient& client, const std::string& bytes) {
        EXPECT_TRUE(client.receive(bytes.size()) == bytes) << "the partner got something else";
    }

    bool m_isAnswering = true;
    int m_pairs = 0;
};

TEST_F(Conformance, AnswersWhatComesWithTheRequest) {
    RawClient client, partner;
    ASSERT_TRUE(partner.upgrade(server->port, "/remote/hbbtv/t/early") && client.connect(server->port));
    client.send(handshakeRequest("/local/hbbtv/t/early") + masked(kWholeText, "early") + masked(kFin | 0x3, ""));
    client.receiveUntil("\r\n\r\n");
    const std::string paired = plain(kWholeText, "pairingcompleted");
    expectFrom(client, paired);
    expectEnd(client, 1002);
    expectFrom(partner, paired + plain(kWholeText, "early") + plain(kFin | kClose, closeBody(1000)));
}

TEST_F(Conformance, RelaysEveryFormOfLengthAndCutsAtTheLimit) {
    for (const std::size_t size : {0u, 1u, 125u, 126u, 65535u, 65536u, 131072u}) {
        const std::string payload(size, 'x');
        run({{masked(kWholeText, payload), plain(kWholeText, payload)},
             {masked(kWholeBinary, payload), plain(kWholeBinary, payload)}},
            size < 200 ? 1 : size + 99);
    }
    const std::string full(kLimit, 'x'), euro = "\xE2\x82\xAC";
    const std::string euros = repeat(euro, kLimit / 3);  // no multiple of 3: the last character is cut in two
    run({{masked(kBinary, full) + masked(kContinuation, full) + masked(kLast, "y"), plain(kWholeBinary, full)},
         {masked(kText, euros + euro) + masked(kLast, ""), plain(kWholeText, euros)},
         {masked(kText, full) + masked(kLast, "x\xFF"), "", 1007}});
}

TEST_F(Conformance, JoinsFragmentsAndAnswersPings) {
    const std::string start = masked(kText, "one,"), end = masked(kLast, "two"), ping = masked(kFin | kPing, "p");
    const std::string longest(125, 'p');
    run({{start + ping + end, plain(kWholeText, "one,two"), kStaysOpen, plain(kFin | kPong, "p")}}, 1);
    run({{masked(kBinary, "") + repeat(masked(kContinuation, "x"), 500) + masked(kLast, ""),
          plain(kWholeBinary, std::string(500, 'x'))},
         {masked(kFin | kPing, longest), "", kStaysOpen, plain(kFin | kPong, longest)},
         {masked(kWholeText, "t") + masked(kFin | kPong, "\0\xFF"s), plain(kWholeText, "t")},
         {masked(kLast, "x"), "", 1002},
         {start + masked(kWholeText, "x"), "", 1002},
         {masked(kWholeText, "before") + masked(kFin | 0x3, "x"), plain(kWholeText, "before"), 1002}});
}

TEST_F(Conformance, ChecksText) {
    const std::string good = "\xCE\xBA\xF4\x8F\xBF\xBF", cut = "\xE2\x82", bad = "good\xFF";
    for (std::size_t at = 0; at <= good.size(); ++at)
        run({{masked(kText, good.substr(0, at)) + masked(kLast, good.substr(at)), plain(kWholeText, good)}}, 1);
    run({{masked(kText, bad), "", 1007},  // at once
         {masked(kWholeText, cut), "", 1007},
         {masked(kText, cut) + masked(kLast, ""), "", 1007},
         {masked(kWholeBinary, bad), plain(kWholeBinary, bad)}});
}

TEST_F(Conformance, AnswersCloseFrames) {
    m_isAnswering = false;
    const std::string longest = closeBody(1000, std::string(123, 'x')), early = plain(kWholeText, "early");
    run({{masked(kFin | kClose, ""), "", kWithoutWord, plain(kFin | kClose, "")},
         {masked(kFin | kClose, longest), "", kWithoutWord, plain(kFin | kClose, longest)},
         {masked(kWholeText, "early") + clientClose(1000) + masked(kWholeText, "late"), early, 1000},
         {masked(kFin | kClose, "\x03"), "", 1002},
         {clientClose(3000, "bye\xE2\x82"), "", 1007},
         {masked(kText, "\xE2") + clientClose(1000, "\x82\xAC"), "", 1007}});
    for (const int status : {1000, 1003, 1007, 1011, 3000, 4999}) run({{clientClose(status), "", status}});
    for (const int status : {0, 999, 1004, 1006, 1015, 1016, 2999, 5000, 65535}) run({{clientClose(status), "", 1002}});
    m_isAnswering = true;
    run({{masked(kClose, closeBody(1000)), "", 1002}});  // in fragments
}

}  // namespace
}  // namespace zenk_test
