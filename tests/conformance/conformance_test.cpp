// What RFC 6455 asks of a server, seen from both ends of the relay: what goes in at one side comes out at the other,
// or the connection ends with the right status. Cases named "known:" pin where libwebsockets departs from the RFC.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/net_util.h"
#include "tests/support/raw_client.h"
#include "wsserver/media_sync_server.h"

namespace {

using namespace std::string_literals;
using namespace zenk_test;

constexpr int kStaysOpen = 0;
constexpr int kWithoutWord = 1;  // the connection ends behind the answer, without a close frame
constexpr std::size_t kLimit = kMaxMessageBytes;

struct Case {
    const char* name;
    std::string sent;      // by one client
    std::string relayed;   // what its partner gets of it
    std::string answer;    // what comes back to the client before the end
    int end = kStaysOpen;  // or the status of the close frame that the client gets
    std::string closeReason = "";
};

std::string client(int firstByte, std::string_view payload) {
    return clientFrame(firstByte, payload);
}
std::string server(int firstByte, std::string_view payload) {
    return serverFrame(firstByte, payload);
}
/// With the length in so many bytes (2 or 8) although fewer would do, and a mask that changes nothing.
std::string clientWithLongLength(int firstByte, std::string_view payload, int lengthBytes) {
    const std::string head{static_cast<char>(firstByte), lengthBytes == 2 ? '\xFE' : '\xFF'};
    return (head + bigEndian(payload.size(), lengthBytes) + "\0\0\0\0"s).append(payload);
}
/// The payload of a close frame.
std::string closeBody(int status, std::string_view reason = "") {
    return bigEndian(static_cast<std::uint64_t>(status), 2).append(reason);
}
std::string repeat(std::string_view unit, std::size_t count) {
    std::string text;
    while (count-- > 0) text += unit;
    return text;
}

class Conformance : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_port = freePort();
        MediaSyncServer::getInstance()->enablePairing = true;
        s_service = std::thread([] { startWebSocketServer(s_port, MediaSyncServer::getInstance()); });
        RawClient probe;
        ASSERT_TRUE(waitUntil([&] { return probe.connect(s_port); }));
    }
    static void TearDownTestSuite() {
        sighandler(0);
        s_service.join();
    }

    void run(const std::vector<Case>& cases) {
        for (const Case& one : cases) {
            SCOPED_TRACE(one.name);
            run(one, one.sent.size());
        }
    }
    /// `pieceBytes` is how much goes out at once.
    void run(const Case& one, std::size_t pieceBytes) {
        RawClient client, partner;
        pair(client, partner);
        for (std::size_t at = 0; at < one.sent.size(); at += pieceBytes) {
            if (!client.send(one.sent.substr(at, pieceBytes))) break;  // a server may hang up before the last byte
        }
        EXPECT_EQ(client.receive(one.answer.size()), one.answer);
        if (one.end == kStaysOpen) {
            expectRelay(client, partner, one.relayed);
        } else {
            expectEnd(client, partner, one);
        }
    }

private:
    void pair(RawClient& client, RawClient& partner) {
        const std::string endpoint = "/t/case" + std::to_string(++m_pairs);
        ASSERT_TRUE(client.upgrade(s_port, "/local/hbbtv" + endpoint));
        ASSERT_TRUE(partner.upgrade(s_port, "/remote/hbbtv" + endpoint));
        client.receiveUntil("pairingcompleted");
        partner.receiveUntil("pairingcompleted");
    }
    /// Nothing else came, and both directions work still.
    void expectRelay(RawClient& client, RawClient& partner, const std::string& relayed) {
        client.send(clientFrame(kFin | kText, "next"));
        const std::string expected = relayed + server(kFin | kText, "next");
        EXPECT_TRUE(partner.receive(expected.size()) == expected) << "the partner got something else";
        partner.send(clientFrame(kFin | kText, "back"));
        EXPECT_EQ(client.receive(6), server(kFin | kText, "back"));
    }
    void expectEnd(RawClient& client, RawClient& partner, const Case& one) {
        if (one.end != kWithoutWord) {
            const std::string frame = client.receive(4);
            ASSERT_EQ(frame.size(), 4u) << "no close frame";
            EXPECT_EQ(frame[0], '\x88');
            EXPECT_EQ(frame.substr(2), closeBody(one.end));
            const auto reasonBytes = static_cast<std::size_t>(frame[1]) - 2;
            const std::string reason = client.receive(reasonBytes);
            EXPECT_EQ(reason.size(), reasonBytes);
            // The server may tell what is wrong in words of its own.
            if (!one.closeReason.empty()) {
                EXPECT_EQ(reason, one.closeReason);
            }
            client.send(clientFrame(kFin | kClose, closeBody(one.end)));
            // known: behind reserved bits the answer is not understood, and the server waits 5 seconds for another.
            if (one.end == 1002) client.finishSending();
        }
        EXPECT_EQ(client.receive(1), "") << "bytes behind the end";
        EXPECT_TRUE(client.waitForEnd());
        const std::string expected = one.relayed + server(kFin | kClose, closeBody(1000));
        EXPECT_TRUE(partner.receive(expected.size()) == expected) << "the partner got something else";
    }

    static int s_port;
    static std::thread s_service;
    int m_pairs = 0;
};

int Conformance::s_port = 0;
std::thread Conformance::s_service;

TEST_F(Conformance, RelaysEveryFormOfLength) {
    for (const std::size_t size : {0u, 1u, 125u, 126u, 127u, 128u, 65535u, 65536u, 131071u, 131072u}) {
        for (const int opcode : {kText, kBinary}) {
            SCOPED_TRACE(size);
            const std::string payload(size, static_cast<char>('a' + size % 26));
            const Case one{"", client(kFin | opcode, payload), server(kFin | opcode, payload), ""};
            run(one, one.sent.size());
            if (size < 200) run(one, 1);
        }
    }
    run({
        {"known: a length with its highest bit set ends without a close frame",
         "\x82\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s, "", "", kWithoutWord},
        {"known: 2 bytes of length for a payload of 5", clientWithLongLength(kFin | kText, "hello", 2),
         server(kFin | kText, "hello"), ""},
        {"known: 8 bytes of length for a payload of 5", clientWithLongLength(kFin | kText, "hello", 8),
         server(kFin | kText, "hello"), ""},
        {"known: a frame without a mask", server(kFin | kText, "hello"), server(kFin | kText, "hello"), ""},
    });
}

TEST_F(Conformance, CutsAtTheLimitAndGoesOn) {
    const std::string full(kLimit, 'x');
    const std::string euro = "\xE2\x82\xAC";  // 131072 is no multiple of 3: the last character is cut in two
    const std::string euros = repeat(euro, kLimit / 3);
    run({
        {"one byte over, binary", client(kFin | kBinary, full + "y"), server(kFin | kBinary, full), ""},
        {"one byte over, text", client(kFin | kText, full + "y"), server(kFin | kText, full), ""},
        {"text is cut to whole characters", client(kFin | kText, euros + euro), server(kFin | kText, euros), ""},
        {"an empty fragment behind the cut", client(kText, euros + euro) + client(kFin | kContinuation, ""),
         server(kFin | kText, euros), ""},
        {"the last fragment passes the limit",
         client(kText, std::string(kLimit - 1, 'x')) + client(kFin | kContinuation, "xyz"), server(kFin | kText, full),
         ""},
        {"many times over", client(kBinary, full) + client(kContinuation, full) + client(kFin | kContinuation, full),
         server(kFin | kBinary, full), ""},
        {"the next message is whole again", client(kFin | kText, euros + euro) + client(kFin | kText, euros),
         server(kFin | kText, euros) + server(kFin | kText, euros), ""},
        {"bad text beyond the limit", client(kText, full) + client(kFin | kContinuation, "x\xFF"), "", "", 1007},
    });
}

TEST_F(Conformance, JoinsFragmentsWithControlFramesBetween) {
    const std::string start = client(kText, "one,"), end = client(kFin | kContinuation, "two");
    const std::string whole = server(kFin | kText, "one,two");
    run({
        {"two fragments", start + end, whole, ""},
        {"fragments without a byte", client(kText, "") + client(kContinuation, "") + client(kFin | kContinuation, ""),
         server(kFin | kText, ""), ""},
        {"empty fragments around", client(kBinary, "") + client(kContinuation, "x") + client(kFin | kContinuation, ""),
         server(kFin | kBinary, "x"), ""},
        {"many fragments",
         client(kBinary, "x") + repeat(client(kContinuation, "x"), 500) + client(kFin | kContinuation, "x"),
         server(kFin | kBinary, std::string(502, 'x')), ""},
        {"ping between", start + client(kFin | kPing, "p") + end, whole, server(kFin | kPong, "p")},
        {"pong between", start + client(kFin | kPong, "p") + end, whole, ""},
        {"close between", start + client(kFin | kClose, closeBody(1000)) + end, "", "", 1000},
        {"continuation of nothing", client(kFin | kContinuation, "x"), "", "", 1002},
        {"open continuation of nothing", client(kContinuation, "x"), "", "", 1002},
        {"continuation of a finished message", start + end + client(kFin | kContinuation, "x"), whole, "", 1002},
        {"text inside a message", start + client(kFin | kText, "x"), "", "", 1002},
        {"binary inside a message", start + client(kFin | kBinary, "x"), "", "", 1002},
    });
    run({"byte by byte", start + client(kFin | kPing, "p") + end, whole, server(kFin | kPong, "p")}, 1);
}

TEST_F(Conformance, AnswersPingsAndTakesPongs) {
    const std::string bytes = "\0\xFF\x80"s, longest(125, 'p'), tooLong(126, 'p');
    run({
        {"ping without payload", client(kFin | kPing, ""), "", server(kFin | kPong, "")},
        {"ping of any bytes", client(kFin | kPing, bytes), "", server(kFin | kPong, bytes)},
        {"longest ping", client(kFin | kPing, longest), "", server(kFin | kPong, longest)},
        {"pong that nobody asked for", client(kFin | kPong, bytes), "", ""},
        {"bytes in a pong behind a text", client(kFin | kText, "t") + client(kFin | kPong, bytes),
         server(kFin | kText, "t"), ""},
        {"known: of pings at once the first is answered, not the last",
         client(kFin | kPing, "1") + client(kFin | kPing, "2"), "", server(kFin | kPong, "1")},
        {"known: too long a ping ends without a close frame", client(kFin | kPing, tooLong), "", "", kWithoutWord},
        {"known: too long a pong ends without a close frame", client(kFin | kPong, tooLong), "", "", kWithoutWord},
        {"fragment of a ping", client(kPing, "p"), "", "", 1002},
        {"fragment of a pong", client(kPong, "p"), "", "", 1002},
    });
}

TEST_F(Conformance, ChecksText) {
    for (const std::string& good : {"\xC2\x80"s, "\xDF\xBF"s, "\xE0\xA0\x80"s, "\xED\x9F\xBF"s, "\xEE\x80\x80"s,
                                    "\xEF\xBF\xBF"s, "\xF0\x90\x80\x80"s, "\xF4\x8F\xBF\xBF"s, "\xEF\xBF\xBE"s, "a\0b"s,
                                    "\xCE\xBA\xE1\xBD\xB9\xCF\x83\xCE\xBC\xCE\xB5"s}) {
        SCOPED_TRACE(testing::PrintToString(good));
        const std::string whole = server(kFin | kText, good);
        run({"whole", client(kFin | kText, good), whole, ""}, 100);
        run({"byte by byte", client(kFin | kText, good), whole, ""}, 1);
        for (std::size_t cut = 0; cut <= good.size(); ++cut) {
            run({"two fragments", client(kText, good.substr(0, cut)) + client(kFin | kContinuation, good.substr(cut)),
                 whole, ""},
                100);
        }
    }
    for (const std::string& bad :
         {"\x80"s, "\xBF"s, "\xC0\x80"s, "\xC1\xBF"s, "\xC2"s, "\xC2x"s, "\xE0\x80\x80"s, "\xE0\x9F\xBF"s, "\xE2\x82"s,
          "\xED\xA0\x80"s, "\xED\xBF\xBF"s, "\xF0\x80\x80\x80"s, "\xF0\x8F\xBF\xBF"s, "\xF0\x90\x80"s,
          "\xF4\x90\x80\x80"s, "\xF5\x80\x80\x80"s, "\xFE"s, "\xFF"s, "good\xCE\xBA\xFF"s}) {
        SCOPED_TRACE(testing::PrintToString(bad));
        run({"whole", client(kFin | kText, bad), "", "", 1007}, 100);
        run({"byte by byte", client(kFin | kText, bad), "", "", 1007}, 1);
        run({"behind a good fragment", client(kText, "good") + client(kFin | kContinuation, bad), "", "", 1007}, 100);
        run({"before an empty fragment", client(kText, bad) + client(kFin | kContinuation, ""), "", "", 1007}, 100);
        run({"as bytes", client(kFin | kBinary, bad), server(kFin | kBinary, bad), ""}, 100);
    }
    run({{"bad at once in an unfinished message", client(kText, "good\xFF"), "", "", 1007}});
}

TEST_F(Conformance, AnswersCloseFrames) {
    const std::string longest(123, 'r');
    run({
        {"with a reason", client(kFin | kClose, closeBody(1000, "bye")), "", "", 1000, "bye"},
        {"with the longest reason", client(kFin | kClose, closeBody(1000, longest)), "", "", 1000, longest},
        {"nothing behind a close counts", client(kFin | kClose, closeBody(1000)) + client(kFin | kText, "late"), "", "",
         1000},
        {"what stands before a close is relayed",
         client(kFin | kText, "early") + client(kFin | kClose, closeBody(1000)), server(kFin | kText, "early"), "",
         1000},
        {"without a body", client(kFin | kClose, ""), "", server(kFin | kClose, ""), kWithoutWord},
        {"known: half a status comes back", client(kFin | kClose, "\x03"), "", server(kFin | kClose, "\x03"),
         kWithoutWord},
        {"known: bad text comes back", client(kFin | kClose, closeBody(1000, "\xFF")), "", "", 1000, "\xFF"},
        {"known: too long, and ends without a close frame", client(kFin | kClose, closeBody(1000, longest + "x")), "",
         "", kWithoutWord},
        {"in fragments", client(kClose, closeBody(1000)), "", "", 1002},
    });
    for (const int status : {1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 3000, 3999, 4000, 4999}) {
        SCOPED_TRACE(status);
        run({"allowed status", client(kFin | kClose, closeBody(status)), "", "", status}, 100);
    }
    for (const int status : {0, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999}) {
        SCOPED_TRACE(status);
        run({"status that nobody may send", client(kFin | kClose, closeBody(status)), "", "", 1002}, 100);
    }
    for (const int status : {5000, 65535}) {
        SCOPED_TRACE(status);
        run({"known: status beyond all ranges comes back", client(kFin | kClose, closeBody(status)), "", "", status},
            100);
    }
}

TEST_F(Conformance, RefusesReservedBitsAndOpcodes) {
    for (const int bit : {0x40, 0x20, 0x10, 0x70}) {
        for (const int opcode : {kText, kBinary, kPing, kPong, kClose}) {
            SCOPED_TRACE(bit << 8 | opcode);
            run({"", client(kFin | bit | opcode, ""), "", "", 1002}, 100);
        }
        run({"", client(kText, "one") + client(kFin | bit | kContinuation, "two"), "", "", 1002}, 100);
    }
    for (const int opcode : {0x3, 0x4, 0x5, 0x6, 0x7, 0xB, 0xC, 0xD, 0xE, 0xF}) {
        SCOPED_TRACE(opcode);
        run({"", client(kFin | opcode, ""), "", "", 1002}, 100);
        run({"", client(kFin | opcode, "x"), "", "", 1002}, 100);
        run({"", client(kFin | kText, "before") + client(opcode, "x"), server(kFin | kText, "before"), "", 1002}, 100);
    }
}

}  // namespace
