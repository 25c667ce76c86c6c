// What RFC 6455 asks of a server, seen from both ends of the relay: what goes in at one side comes out at the other,
// or the connection ends with the right status. Cases named "known:" pin where libwebsockets departs from the RFC.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "tests/support/server.h"

namespace {

using namespace std::string_literals;
using namespace zenk_test;

constexpr int kStaysOpen = 0;
constexpr int kWithoutWord = 1;  // the connection ends behind the answer, without a close frame
// libwebsockets waits 5 seconds for a peer that does not understand it. Nobody who answers is to wait for that.
constexpr Milliseconds kPrompt{4000};
constexpr int kWholeText = kFin | kText, kWholeBinary = kFin | kBinary, kLast = kFin | kContinuation;
constexpr std::size_t kLimit = kMaxMessageBytes;

struct Case {
    std::string name;
    std::string sent;          // by one client
    std::string relayed = "";  // what its partner gets of it
    int end = kStaysOpen;      // or the status of the close frame that the client gets
    std::string answer = "";   // what comes back to the client before the end
    std::string closeReason = "";
};

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

class Conformance : public testing::Test {
protected:
    static void SetUpTestSuite() { s_server = std::make_unique<Server>(); }
    static void TearDownTestSuite() { s_server.reset(); }

    void run(const std::vector<Case>& cases, std::size_t pieceBytes = kLimit) {
        for (const Case& one : cases) {
            SCOPED_TRACE(one.name);
            run(one, pieceBytes);
        }
    }
    /// `pieceBytes` is how much goes out at once.
    void run(const Case& one, std::size_t pieceBytes) {
        Pair pair;
        ASSERT_TRUE(pair.connect(s_server->port, "case" + std::to_string(++m_pairs)));
        for (std::size_t at = 0; at < one.sent.size(); at += pieceBytes) {
            if (!pair.local.send(one.sent.substr(at, pieceBytes))) break;  // a server may hang up before the last byte
        }
        EXPECT_EQ(pair.local.receive(one.answer.size()), one.answer);
        if (one.end == kStaysOpen) {
            expectFrom(pair.remote, one.relayed);
            EXPECT_TRUE(pair.exchange()) << "something else came, or the connection is broken";
        } else {
            expectEnd(pair.local, one);
            expectFrom(pair.remote, one.relayed + plain(kFin | kClose, closeBody(1000)));
        }
    }
    void expectEnd(RawClient& client, const Case& one) {
        if (one.end != kWithoutWord) {
            const std::optional<Frame> close = client.receiveFrame();
            ASSERT_TRUE(close) << "no close frame";
            EXPECT_EQ(close->first, kFin | kClose);
            // The server may tell what is wrong in words of its own.
            EXPECT_TRUE(close->payload.starts_with(closeBody(one.end, one.closeReason))) << close->payload;
            if (m_atClose == AtClose::Answers) client.send(clientClose(one.end));
            if (m_atClose == AtClose::Leaves) client.finishSending();
        }
        EXPECT_EQ(client.receive(1, kPrompt), "") << "bytes behind the end";
        EXPECT_TRUE(client.waitForEnd(kPrompt));
    }
    void expectFrom(RawClient& client, const std::string& bytes) {
        EXPECT_TRUE(client.receive(bytes.size()) == bytes) << "the partner got something else";
    }

    /// What the client does when it gets a close frame.
    enum class AtClose { Answers, Waits, Leaves } m_atClose = AtClose::Answers;
    static std::unique_ptr<Server> s_server;
    int m_pairs = 0;
};

std::unique_ptr<Server> Conformance::s_server;

TEST_F(Conformance, ComparesHeadersAsHttpHasIt) {
    const std::string request = handshakeRequest("/local/hbbtv/t/header");
    struct {
        std::string_view header;
        const char* value;
        const char* answer = "HTTP/1.1 101 ";
    } const cases[] = {
        {"Upgrade: ", "WebSocket"},
        {"Upgrade: ", "   WEBSOCKET"},
        {"Upgrade: ", "h2c", "HTTP/1.1 400 "},
        {"Upgrade: ", "h2c, websocket", "HTTP/1.0 403 "},  // known: no lists there,
        {"Upgrade: ", "websocket ", "HTTP/1.0 403 "},      // known: and no white space behind
        {"Connection: ", "keep-alive , upgrade"},
        {"Sec-WebSocket-Version: ", " 13 "},
        {"Sec-WebSocket-Version: ", "8 , 13,"},
        {"Sec-WebSocket-Version: ", "113", "HTTP/1.1 426 "},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(std::string(one.header) + one.value);
        const std::size_t value = request.find(one.header) + one.header.size();
        RawClient client;
        client.connect(s_server->port);
        client.send(std::string(request).replace(value, request.find('\r', value) - value, one.value));
        EXPECT_EQ(client.receive(13), one.answer);
    }
}

TEST_F(Conformance, AnswersWhatComesWithTheRequest) {
    RawClient client, partner;
    ASSERT_TRUE(partner.upgrade(s_server->port, "/remote/hbbtv/t/early") && client.connect(s_server->port));
    client.send(handshakeRequest("/local/hbbtv/t/early") + masked(kWholeText, "early") + masked(kFin | 0x3, ""));
    client.receiveUntil("\r\n\r\n");
    const std::string paired = plain(kWholeText, "pairingcompleted");
    EXPECT_EQ(client.receive(paired.size()), paired);
    expectEnd(client, {"", "", "", 1002});
    expectFrom(partner, paired + plain(kWholeText, "early") + plain(kFin | kClose, closeBody(1000)));
}

TEST_F(Conformance, RelaysEveryFormOfLength) {
    for (const std::size_t size : {0u, 1u, 125u, 126u, 127u, 128u, 65535u, 65536u, 131071u, 131072u}) {
        const std::string payload(size, 'x');
        run({{"text", masked(kWholeText, payload), plain(kWholeText, payload)},
             {"binary", masked(kWholeBinary, payload), plain(kWholeBinary, payload)}},
            size < 200 ? 1 : size + 99);
    }
    const std::string hello = plain(kWholeText, "hello");
    run({
        {"known: a length of 2^63", "\x82\xFF\x80\0\0\0\0\0\0\0"s, "", kWithoutWord},
        {"known: long lengths", "\x81\xFE\0\x05\0\0\0\0hello"s + "\x81\xFF\0\0\0\0\0\0\0\x05\0\0\0\0hello"s,
         hello + hello},
        {"known: a frame without a mask", hello, hello},
    });
}

TEST_F(Conformance, CutsAtTheLimitAndGoesOn) {
    const std::string full(kLimit, 'x');
    const std::string euro = "\xE2\x82\xAC";  // 131072 is no multiple of 3: the last character is cut in two
    const std::string euros = repeat(euro, kLimit / 3);
    run({
        {"over", masked(kWholeBinary, full + "y"), plain(kWholeBinary, full)},
        {"nothing behind the cut", masked(kText, euros + euro) + masked(kLast, ""), plain(kWholeText, euros)},
        {"many times over", masked(kBinary, full) + masked(kContinuation, full) + masked(kLast, full),
         plain(kWholeBinary, full)},
        {"whole characters, and the next is whole again", masked(kWholeText, euros + euro) + masked(kWholeText, euros),
         plain(kWholeText, euros) + plain(kWholeText, euros)},
        {"bad text beyond the limit", masked(kText, full) + masked(kLast, "x\xFF"), "", 1007},
    });
}

TEST_F(Conformance, JoinsFragmentsAndAnswersPings) {
    const std::string start = masked(kText, "one,"), end = masked(kLast, "two");
    const std::string whole = plain(kWholeText, "one,two");
    const std::string bytes = "\0\xFF\x80"s, longest(125, 'p');
    run({"byte by byte", start + masked(kFin | kPing, "p") + end, whole, kStaysOpen, plain(kFin | kPong, "p")}, 1);
    run({
        {"empty fragments", masked(kText, "") + masked(kContinuation, "") + masked(kLast, ""), plain(kWholeText, "")},
        {"empty ends", masked(kBinary, "") + masked(kContinuation, "x") + masked(kLast, ""), plain(kWholeBinary, "x")},
        {"many fragments", masked(kBinary, "x") + repeat(masked(kContinuation, "x"), 500) + masked(kLast, "x"),
         plain(kWholeBinary, std::string(502, 'x'))},
        {"ping between", start + masked(kFin | kPing, "p") + end, whole, kStaysOpen, plain(kFin | kPong, "p")},
        {"continuation of nothing", masked(kLast, "x"), "", 1002},
        {"nothing is left to continue", start + end + masked(kLast, "x"), whole, 1002},
        {"text inside a message", start + masked(kWholeText, "x"), "", 1002},
        {"binary inside a message", start + masked(kWholeBinary, "x"), "", 1002},
        {"ping of nothing", masked(kFin | kPing, ""), "", kStaysOpen, plain(kFin | kPong, "")},
        {"longest ping", masked(kFin | kPing, longest), "", kStaysOpen, plain(kFin | kPong, longest)},
        {"bytes in a pong", masked(kWholeText, "t") + masked(kFin | kPong, bytes), plain(kWholeText, "t")},
        {"known: two pings", masked(kFin | kPing, "1") + masked(kFin | kPing, "2"), "", kStaysOpen,
         plain(kFin | kPong, "1")},
        {"fragment of a ping", masked(kPing, "p"), "", 1002},
    });
}

TEST_F(Conformance, ChecksText) {
    for (const std::string& good : {"\xED\x9F\xBF"s, "\xF4\x8F\xBF\xBF"s, "a\0b"s, "\xCE\xBA\xE1\xBD\xB9\xCF\x83"s}) {
        run({good, masked(kWholeText, good), plain(kWholeText, good)}, 1);
        for (std::size_t cut = 0; cut <= good.size(); ++cut)
            run({{good, masked(kText, good.substr(0, cut)) + masked(kLast, good.substr(cut)),
                  plain(kWholeText, good)}});
    }
    for (const std::string& bad :
         {"\x80"s, "\xC0\x80"s, "\xE2\x82"s, "\xED\xA0\x80"s, "\xF4\x90\x80\x80"s, "good\xFF"s}) {
        SCOPED_TRACE(testing::PrintToString(bad));
        run({"byte by byte", masked(kWholeText, bad), "", 1007}, 1);
        run({
            {"whole", masked(kWholeText, bad), "", 1007},
            {"before an empty fragment", masked(kText, bad) + masked(kLast, ""), "", 1007},
            {"as bytes", masked(kWholeBinary, bad), plain(kWholeBinary, bad)},
        });
    }
    run({{"at once", masked(kText, "good\xFF"), "", 1007}});
}

TEST_F(Conformance, AnswersCloseFrames) {
    m_atClose = AtClose::Waits;
    const std::string longest = repeat("\xE2\x82\xAC", 41);
    run({
        {"without a body", masked(kFin | kClose, ""), "", kWithoutWord, plain(kFin | kClose, "")},
        {"with a reason", clientClose(1000, longest), "", 1000, "", longest},
        {"inside a message", masked(kText, "one") + clientClose(1000), "", 1000},
        {"before a text", clientClose(1000) + masked(kWholeText, "late"), "", 1000},
        {"behind a text", masked(kWholeText, "early") + clientClose(1000), plain(kWholeText, "early"), 1000},
        {"half a status", masked(kFin | kClose, "\x03"), "", 1002},
        {"bad text", clientClose(1000, "\xFF"), "", 1007},
        {"text that is cut", clientClose(3000, "bye\xE2\x82"), "", 1007},
        {"bad text inside a message", masked(kText, "\xE2") + clientClose(1000, "\x82\xAC"), "", 1007},
        {"known: a status of servers", clientClose(1012), "", 1002},
        {"known: too long", clientClose(1000, longest + "x"), "", kWithoutWord},
    });
    for (const int status : {1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 3000, 3999, 4000, 4999})
        run({{"allowed: " + std::to_string(status), clientClose(status), "", status}});
    for (const int status : {0, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999, 5000, 65535})
        run({{"not allowed: " + std::to_string(status), clientClose(status), "", 1002}});
    m_atClose = AtClose::Answers;
    run({{"in fragments", masked(kClose, closeBody(1000)), "", 1002}});
}

TEST_F(Conformance, RefusesReservedBitsAndOpcodes) {
    for (const int opcode : {0x3, 0x4, 0x5, 0x6, 0x7, 0xB, 0xC, 0xD, 0xE, 0xF})
        run({{std::to_string(opcode), masked(kWholeText, "before") + masked(kFin | opcode, "x"),
              plain(kWholeText, "before"), 1002}});
    // known: behind reserved bits the answer is not understood, and the server waits 5 seconds for another.
    m_atClose = AtClose::Leaves;
    for (const int bit : {0x40, 0x20, 0x10, 0x70}) {
        for (const int opcode : {kText, kBinary, kPing, kPong, kClose})
            run({{std::to_string(bit | opcode), masked(kFin | bit | opcode, ""), "", 1002}});
        run({{std::to_string(bit), masked(kText, "one") + masked(kFin | bit | kContinuation, "two"), "", 1002}});
    }
}

}  // namespace
