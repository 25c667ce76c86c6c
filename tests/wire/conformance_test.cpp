// What RFC 6455 asks of a server, seen from both ends of the relay: what goes in at one side comes out at the other,
// and the connection ends with the right status.
#include "tests/wire/wire.h"

namespace zenk_test {
namespace {

constexpr int kWholeText = kFin | kText, kWholeBinary = kFin | kBinary, kLast = kFin | kContinuation;
constexpr auto& masked = clientFrame;  // as a client sends it
constexpr auto& plain = serverFrame;   // as a server does

std::string clientClose(int status, std::string_view reason = "", int firstByte = kFin | kClose) {
    return masked(firstByte, bigEndian(static_cast<std::uint64_t>(status), 2).append(reason));
}

struct Case {
    std::string sent;          // by one client, which then leaves if there is nothing wrong with it
    std::string relayed = "";  // what its partner gets of it before the close frame
    int status = 1000;         // of the close frame that the client gets; 0 for an empty one
    std::string answer = "";   // what the client gets before that
};

struct Conformance : Wire {
    void SetUp() override { serve(); }
    /// @param pieceBytes  how much goes out at once
    void run(const std::vector<Case>& cases, std::size_t pieceBytes = kMaxMessageBytes) {
        for (const Case& one : cases) {
            SCOPED_TRACE(testing::PrintToString(one.sent.substr(0, 40)));
            Pair pair;
            ASSERT_TRUE(pair.connect(server->port, std::to_string(++m_pairs)));
            for (std::size_t at = 0; at < one.sent.size(); at += pieceBytes)
                pair.local.send(one.sent.substr(at, pieceBytes));  // a server may hang up before the last byte
            EXPECT_EQ(pair.local.receive(one.answer.size()), one.answer);
            if (one.status == 1000) pair.local.send(clientClose(1000));
            expectUpToItsClose(pair.local, "", one.status);
            pair.local.send(clientClose(1000));
            // The layer waits 5 seconds for a peer that does not answer. Nobody who does is to wait for that.
            EXPECT_TRUE(pair.local.waitForEnd(Milliseconds(4000)));
            expectUpToItsClose(pair.remote, one.relayed, 1000);
        }
    }
    static void expectUpToItsClose(RawClient& client, const std::string& bytes, int status) {
        EXPECT_TRUE(client.receive(bytes.size()) == bytes) << "something else came";
        const Frame close = client.receiveFrame().value_or(Frame());
        EXPECT_EQ(close.first, kFin | kClose);
        // The server may tell what is wrong in words of its own.
        EXPECT_EQ(fromBigEndian(close.payload.substr(0, 2)), status);
    }

    int m_pairs = 0;
};

TEST_F(Conformance, AnswersWhatComesWithTheRequest) {
    RawClient client, partner;
    ASSERT_TRUE(partner.upgrade(server->port, "/remote/hbbtv/t/early") && client.connect(server->port));
    client.send(handshakeRequest("/local/hbbtv/t/early") + masked(kWholeText, "early") + masked(kFin | 0x3, ""));
    client.receiveUntil("\r\n\r\n");
    const std::string paired = plain(kWholeText, "pairingcompleted");
    expectUpToItsClose(client, paired, 1002);
    expectUpToItsClose(partner, paired + plain(kWholeText, "early"), 1000);
}

TEST_F(Conformance, RelaysEveryFormOfLengthAndCutsAtTheLimit) {
    for (const std::size_t size : {0u, 125u, 126u, 65535u, 65536u, 131072u}) {
        const std::string payload(size, 'x');
        for (const int type : {kWholeText, kWholeBinary})
            run({{masked(type, payload), plain(type, payload)}}, size < 200 ? 1 : size + 99);
    }
    const std::string full(kMaxMessageBytes, 'x'), almost = full.substr(1);
    run({{masked(kBinary, full) + masked(kContinuation, full) + masked(kLast, "y"), plain(kWholeBinary, full)},
         {masked(kText, almost + "\xC3\xA4") + masked(kLast, ""), plain(kWholeText, almost)},
         {masked(kText, full) + masked(kLast, "x\xFF"), "", 1007}});
}

TEST_F(Conformance, JoinsFragmentsAnswersPingsAndChecksText) {
    const std::string start = masked(kText, "one,"), end = masked(kLast, "two"), ping = masked(kFin | kPing, "p");
    const std::string pong = masked(kFin | kPong, "\xFF"), cut = "\xE2\x82", rest = "\xAC", bad = "good\xFF";
    run({{start + ping + masked(kContinuation, "") + pong + end, plain(kWholeText, "one,two"), 1000,
          plain(kFin | kPong, "p")}},
        1);
    run({{masked(kLast, "x"), "", 1002},
         {start + masked(kWholeText, "x"), "", 1002},
         {clientClose(1000, "in fragments", kClose), "", 1002},
         {masked(kText, cut) + masked(kLast, rest), plain(kWholeText, cut + rest)},
         {masked(kText, bad), "", 1007},  // at once
         {masked(kWholeText, cut), "", 1007},
         {masked(kText, cut) + masked(kLast, ""), "", 1007},
         {masked(kWholeBinary, bad), plain(kWholeBinary, bad)}});
}

TEST_F(Conformance, AnswersCloseFrames) {
    run({{masked(kFin | kClose, ""), "", 0},
         {clientClose(1000, std::string(123, 'x')) + masked(kWholeText, "late"), "", 1000},
         {masked(kFin | kClose, "\x03"), "", 1002},
         {clientClose(3000, "bye\xE2\x82"), "", 1007},
         {masked(kText, "\xE2") + clientClose(1000, "\x82\xAC"), "", 1007}});
    for (const int status : {1003, 1007, 1011, 3000, 4999}) run({{clientClose(status), "", status}});
    for (const int status : {0, 999, 1004, 1006, 1015, 1016, 2999, 5000, 65535}) run({{clientClose(status), "", 1002}});
}

}  // namespace
}  // namespace zenk_test
