#include <gtest/gtest.h>

#include "tools/wc_ledger.h"
#include "tools/wc_statistics.h"

namespace {

using zenk::WCCandidate;
using zenk::WCDatagram;
using zenk::WCLedger;

constexpr std::int64_t kSecond = 1'000'000'000;

TEST(WCStatistics, FollowTheFormulasOfTheStandard) {
    // 1 ms there, 3 ms back, 2 ms in the server, whose clock is 1000 s ahead; precision 2^-10 s, 256/256 ppm.
    const WCCandidate slow{
        5 * kSecond, 1005 * kSecond + 1'000'000, 1005 * kSecond + 3'000'000, 5 * kSecond + 6'000'000, -10, 256};
    const zenk::WCOwnClock own{1000, 3};
    EXPECT_EQ(zenk::roundTripNs(slow), 4'000'000);
    EXPECT_DOUBLE_EQ(zenk::offsetNs(slow), 1000e9 - 1e6);
    const double atArrival = 2e6 + 1000 + 976562.5 + 3e-6 * 6e6 + 1e-6 * 2e6;
    EXPECT_NEAR(zenk::dispersionNs(slow, own, slow.arrivalNs), atArrival, 1e-3);
    EXPECT_NEAR(zenk::dispersionNs(slow, own, slow.arrivalNs + 10 * kSecond), atArrival + 40'000, 1e-3);

    // A shorter round trip is better for a while, until drift has eaten it up.
    WCCandidate old = slow;
    old.transmitNs += 20'000;  // round trip 20 us shorter, that is 10 us less dispersion
    WCCandidate fresh = slow;
    for (std::int64_t* time : {&fresh.originateNs, &fresh.receiveNs, &fresh.transmitNs, &fresh.arrivalNs}) {
        *time += 5 * kSecond;  // 4 ppm over 5 s are 20 us
    }
    EXPECT_EQ(zenk::bestCandidate(std::vector{slow, old}, own, old.arrivalNs), 1u);
    EXPECT_EQ(zenk::bestCandidate(std::vector{slow, old, fresh}, own, fresh.arrivalNs), 2u);
}

TEST(WCStatistics, RankAndCountEveryValueOnce) {
    std::vector<std::int64_t> values{7};
    EXPECT_EQ(zenk::percentile(values, 0), 7);
    EXPECT_EQ(zenk::percentile(values, 99), 7);
    EXPECT_EQ(zenk::histogram(values, 4).size(), 4u);
    for (std::int64_t i = 8; i < 207; ++i) values.push_back(i);
    values.back() = 1'000'000;
    EXPECT_EQ(zenk::percentile(values, 50), 106);
    EXPECT_EQ(zenk::percentile(values, 99), 204);
    std::size_t total = 0;
    const auto rows = zenk::histogram(values, 4);
    for (const auto& row : rows) total += row.count;
    EXPECT_EQ(total, values.size());
    EXPECT_EQ(rows.back().toNs, 1'000'001) << "the tail has a row of its own";
}

// A good reply: received at 2 s, sent at 3 s of the server's clock.
WCDatagram replyTo(WCDatagram request) {
    request[1] = 1;
    request[2] = 0xED;
    request[6] = 0x01;
    request[7] = 0xF4;
    request[19] = 2;
    request[27] = 3;
    return request;
}

TEST(WCLedger, TakesEachReplyOnceByItsOriginateTime) {
    WCLedger ledger;
    const WCDatagram first = ledger.makeRequest(7 * kSecond + 5);
    const WCDatagram second = ledger.makeRequest(7 * kSecond + 5);
    EXPECT_EQ(first, (WCDatagram{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 5}));
    EXPECT_NE(second, first) << "also when the clock stands still";
    ledger.takeReply(replyTo(second), 9 * kSecond);
    ledger.takeReply(replyTo(second), 9 * kSecond);
    EXPECT_EQ(ledger.sent(), 2u);
    EXPECT_EQ(ledger.lost(), 1u);
    EXPECT_EQ(ledger.unmatched(), 1u);
    const WCCandidate& candidate = ledger.candidates().at(0);
    EXPECT_EQ(candidate.originateNs, 7 * kSecond + 6);
    EXPECT_EQ(candidate.receiveNs, 2 * kSecond);
    EXPECT_EQ(candidate.transmitNs, 3 * kSecond);
    EXPECT_EQ(candidate.arrivalNs, 9 * kSecond);
    EXPECT_EQ(candidate.precisionLog2, -19);
    EXPECT_EQ(candidate.freqError, 500u);
}

TEST(WCLedger, RefusesWhatIsNoTrueReply) {
    WCLedger ledger;
    const WCDatagram good = replyTo(ledger.makeRequest(7 * kSecond));
    const std::pair<std::size_t, std::uint8_t> spoilt[] = {{0, 1},     {1, 0},     {1, 3}, {11, 8},
                                                           {20, 0xFF}, {28, 0xFF}, {27, 9}};  // {27, 9}: round trip < 0
    for (const auto& [at, value] : spoilt) {
        WCDatagram bad = good;
        bad[at] = value;
        ledger.takeReply(bad, 9 * kSecond);
    }
    ledger.takeReply(std::span(good).first(31), 9 * kSecond);
    ledger.takeReply({}, 9 * kSecond);
    EXPECT_EQ(ledger.candidates().size(), 0u);
    EXPECT_EQ(ledger.unmatched(), std::size(spoilt) + 2);
    ledger.takeReply(good, 9 * kSecond);
    EXPECT_EQ(ledger.lost(), 0u);
}

}  // namespace
