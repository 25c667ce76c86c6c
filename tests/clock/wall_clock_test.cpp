#include "wsserver/wall_clock.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <utility>

#include "tests/clock/seams.h"

namespace {

using seams::scriptReads;

// A pair of reads that measures `tickNs`.
void scriptTick(long tickNs) {
    scriptReads({timespec{5, 0}, timespec{5 + tickNs / 1'000'000'000, tickNs % 1'000'000'000}});
}

TEST(WallClock, ReadsTheSelectedSystemClock) {
    ZenkWallClock clock;
    EXPECT_EQ(ZenkWallClock::m_instance, &clock);
    EXPECT_EQ(seams::takeLastClock(), CLOCK_MONOTONIC_RAW);
    const std::pair<ZenkWallClockType, clockid_t> table[] = {{WALLCLOCK_MONOTONIC, CLOCK_MONOTONIC},
                                                             {WALLCLOCK_MONOTONIC_COARSE, CLOCK_MONOTONIC_COARSE},
                                                             {WALLCLOCK_MONOTONIC_RAW, CLOCK_MONOTONIC_RAW}};
    for (const auto& [type, id] : table) {
        EXPECT_EQ(clock.Initialize(type), 0);
        EXPECT_EQ(seams::takeLastClock(), id);
        EXPECT_EQ(clock.GetMaxFreqError(), 500);
    }
}

TEST(WallClock, AnUnknownTypeStandsAtZero) {
    ZenkWallClock clock;
    ASSERT_EQ(clock.Initialize(static_cast<ZenkWallClockType>(3)), 0);
    seams::takeLastClock();
    EXPECT_EQ(clock.GetMaxFreqError(), 0);
    EXPECT_EQ(clock.CountPrecision(), -1);
    EXPECT_EQ(clock.GetPrecision(), 0);
    const timespec now = clock.GetWallClockTime();
    EXPECT_EQ(now.tv_sec, 0);
    EXPECT_EQ(now.tv_nsec, 0);
    EXPECT_EQ(seams::takeLastClock(), -1) << "no clock was to be read";
    clock.Initialize(WALLCLOCK_MONOTONIC);
    EXPECT_LT(clock.GetPrecision(), 0);
}

TEST(WallClock, MeasuresTheTickAcrossSecondsAndWrapsAt32Bits) {
    ZenkWallClock clock;
    scriptReads({{1, 999'999'900}, {2, 100}});
    EXPECT_EQ(clock.CountPrecision(), 200);
    scriptReads({{10, 0}, {13, 0}});
    EXPECT_EQ(clock.CountPrecision(), static_cast<int>(3'000'000'000u));
    EXPECT_EQ(seams::readsLeft(), 0u);
}

TEST(WallClock, ReportsTheLogarithmTruncatedTowardZero) {
    ZenkWallClock clock;
    const std::pair<long, int> table[] = {{1, -29},          {50, -24},        {500, -20},         {1000, -19},
                                          {500'000'000, -1}, {600'000'000, 0}, {1'000'000'000, 0}, {2'000'000'000, 1}};
    for (const auto& [tick, log2] : table) {
        SCOPED_TRACE(tick);
        scriptTick(tick);
        EXPECT_EQ(clock.GetPrecision(), log2);
    }
}

TEST(WallClock, CutsTheTimeByTheTickMeasuredLast) {
    ZenkWallClock clock;
    scriptTick(1000);
    clock.GetPrecision();
    scriptTick(7);
    EXPECT_EQ(clock.CountPrecision(), 7);  // stores nothing
    scriptReads({{42, 123'456'789}, {43, 999'999'999}});
    EXPECT_EQ(clock.GetWallClockTime().tv_nsec, 123'456'000);
    const timespec last = clock.GetWallClockTime();
    EXPECT_EQ(last.tv_sec, 43);
    EXPECT_EQ(last.tv_nsec, 999'999'000);
}

TEST(WallClock, ATickThatTellsNothingCountsAsTheSystemsResolution) {
    timespec resolution{};
    ASSERT_EQ(clock_getres(CLOCK_MONOTONIC_COARSE, &resolution), 0);
    ZenkWallClock clock;
    scriptTick(0);
    clock.Initialize(WALLCLOCK_MONOTONIC_COARSE);
    for (const long tick : {0L, 3'000'000'000L}) {
        SCOPED_TRACE(tick);
        scriptTick(tick);
        const int log2 = clock.GetPrecision();
        EXPECT_LT(log2, -5);
        EXPECT_GT(log2, -11);  // 1 to 10 ms
        scriptReads({{1, 999'999'999}});
        EXPECT_EQ(clock.GetWallClockTime().tv_nsec, 999'999'999 / resolution.tv_nsec * resolution.tv_nsec);
    }
    scriptTick(0);
    EXPECT_EQ(clock.CountPrecision(), 0);
}

TEST(WCMessage, HasTheBytesOfTheStandard) {
    ZenkWallClock clock;
    ZenkWCMessage message{0, 1, -19, 0, 500, 0x01020304, 0x05060708, 0xFFFFFFFF, 999'999'999, 5, 6};
    const unsigned char expected[32] = {0,    1,    0xED, 0,    0,    0,    0x01, 0xF4, 1, 2, 3, 4, 5, 6, 7, 8,
                                        0xFF, 0xFF, 0xFF, 0xFF, 0x3B, 0x9A, 0xC9, 0xFF, 0, 0, 0, 5, 0, 0, 0, 6};
    char wire[32];
    int length = 0;
    ASSERT_EQ(clock.ZenkWCMessageToString(&message, wire, &length), 0);
    EXPECT_EQ(length, 32);
    EXPECT_EQ(std::memcmp(wire, expected, sizeof expected), 0);
}

TEST(WCMessage, ComesBackByteForByteWhateverTheLengthSays) {
    ZenkWallClock clock;
    std::array<char, 32> wire, again;
    for (std::size_t i = 0; i < wire.size(); ++i) wire[i] = static_cast<char>(0xE0 + 9 * i);
    for (int length : {0, 32, -1}) {
        ZenkWCMessage message{};
        message.version = 0x12345678;
        ASSERT_EQ(clock.StringToZenkWCMessage(wire.data(), length, &message), 0);
        EXPECT_EQ(message.version, 0x123456E0) << "the upper bits of a byte field stay";
        EXPECT_EQ(message.precision, 0xF2);
        ASSERT_EQ(clock.ZenkWCMessageToString(&message, again.data(), &length), 0);
        EXPECT_EQ(again, wire);
    }
}

TEST(WCMessage, NullPointersAreRefusedWithNothingWritten) {
    ZenkWallClock clock;
    ZenkWCMessage message{77, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    char wire[32] = {};
    int length = -5;
    EXPECT_EQ(clock.ZenkWCMessageToString(nullptr, wire, &length), -1);
    EXPECT_EQ(clock.ZenkWCMessageToString(&message, nullptr, &length), -1);
    EXPECT_EQ(clock.StringToZenkWCMessage(nullptr, 32, &message), -1);
    EXPECT_EQ(clock.StringToZenkWCMessage(wire, 32, nullptr), -1);
    EXPECT_EQ(length, -5);
    EXPECT_EQ(message.version, 77);
}

}  // namespace
