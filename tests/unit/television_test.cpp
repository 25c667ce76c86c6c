// The television's rules without a network: where it is after each command, and what companions are told of that.

#include "examples/television.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "examples/css_messages.h"

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr const char* kPts = "urn:dvb:css:timeline:pts";

class TelevisionTest : public testing::Test {
protected:
    TelevisionTest() {
        m_television.listen([this](const Scene& scene) { m_told.push_back(scene); });
        m_told.clear();
    }

    /// What a companion with this setup is told after the last change, a few seconds later.
    nlohmann::json stamp(const css::Setup& setup, std::int64_t laterNs = 0) const {
        const Scene& scene = m_told.back();
        return nlohmann::json::parse(css::controlTimestamp(setup, scene, scene.sinceNs + laterNs));
    }

    std::int64_t m_now = 1000 * kSecond;
    Television m_television{
        {{"A", "dvb://1.2.3;4~x", {ptsTimeline(900), temiTimeline(1, 2, 7)}}, {"B", "dvb://1.2.5;6", {ptsTimeline(0)}}},
        [this] { return m_now; },
        0};
    std::vector<Scene> m_told;
};

// A second passes before each command. Position and speed are those behind the command.
TEST_F(TelevisionTest, EachCommandStartsFromWhereTheLastOneHasLed) {
    const struct {
        const char* command;
        double position, speed;
    } steps[] = {{"pause", 1, 0},           {"pause", 1, 0},        {"seek +10", 11, 0},
                 {"play", 11, 1},           {"speed 2", 12, 2},     {" seek  -3.5\r", 10.5, 2},
                 {"speed 0.5", 12.5, .5},   {"seek 100", 100, .5},  {"blackout", 100.5, .5},
                 {"blackout on", 101, .5},  {"seek -500", 0, .5},   {"blackout off", .5, .5},
                 {"seek 86400", 86400, .5}, {"seek +1", 86400, .5}, {"speed -0", 86400.5, 0},
                 {"service 2", 0, 1}};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.command);
        m_now += kSecond;
        m_told.clear();
        EXPECT_TRUE(m_television.execute(step.command).starts_with("ok service ")) << m_television.execute("status");
        const nlohmann::json status = m_television.status();
        EXPECT_EQ(status["position"], step.position);
        EXPECT_EQ(status["speed"], step.speed);
        EXPECT_FALSE(std::signbit(status["speed"].get<double>()));
        ASSERT_EQ(m_told.size(), step.command == std::string("service 2") ? 2 : 1);
        EXPECT_EQ(m_told.back().sinceNs, m_now);
    }
}

TEST_F(TelevisionTest, WrongCommandsAreRefusedWithAReasonAndChangeNothing) {
    const std::string before = m_television.status().dump();
    const std::string cases[] = {"",
                                 "paus",
                                 "PAUSE",
                                 "pause now",
                                 "speed",
                                 "speed x",
                                 "speed -1",
                                 "speed 65",
                                 "speed nan",
                                 "speed 1x",
                                 "speed 1e999",
                                 "seek",
                                 "seek +",
                                 "seek +-1",
                                 "seek inf",
                                 "seek 86401",
                                 "service",
                                 "service 0",
                                 "service 3",
                                 "service -1",
                                 "service 99999999999999999999",
                                 "blackout maybe",
                                 "play\nplay",
                                 std::string("play\0", 5),
                                 "pl\xffy",
                                 "\x1b[2J",
                                 std::string(1 << 20, 'a')};
    for (const std::string& command : cases) {
        const std::string answer = m_television.execute(command);
        EXPECT_TRUE(answer.starts_with("error: ") && answer.size() < 300) << command.substr(0, 99) << " -> " << answer;
    }
    EXPECT_TRUE(m_told.empty());
    EXPECT_EQ(m_television.status().dump(), before);
}

TEST_F(TelevisionTest, OnlyAStemOfTheContentAndAnOfferedSelectorHaveATimeline) {
    m_television.execute("play");
    const struct {
        css::Setup setup;
        const char* contentTime;  // null: no timeline
    } cases[] = {{{"", kPts}, "180900"},
                 {{"dvb://1.2.3;4~x", kPts}, "180900"},
                 {{"dvb://1.2.3", "urn:dvb:css:timeline:temi:1:2"}, "2007"},
                 {{"dvb://1.2.3;4~xy", kPts}, nullptr},
                 {{"vb://1.2.3", kPts}, nullptr},
                 {{"dvb://1.2.5", kPts}, nullptr},
                 {{"", ""}, nullptr},
                 {{"", "urn:dvb:css:timeline:temi:1:1"}, nullptr}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.setup.contentIdStem + " " + one.setup.timelineSelector);
        const nlohmann::json answer = stamp(one.setup, 2 * kSecond);
        EXPECT_EQ(answer["wallClockTime"], "1002000000000");
        ASSERT_EQ(answer["contentTime"].is_null(), one.contentTime == nullptr);
        ASSERT_EQ(answer["timelineSpeedMultiplier"].is_null(), one.contentTime == nullptr);
        if (one.contentTime == nullptr) continue;
        EXPECT_EQ(answer["contentTime"], one.contentTime);
    }
    for (const char* command : {"blackout", "service 2"}) {  // back, and both looked at anew
        EXPECT_EQ(stamp({"dvb://1.2.5", kPts})["contentTime"], nullptr);
        m_television.execute(command);
    }
    EXPECT_EQ(stamp({"dvb://1.2.5", kPts})["contentTime"], "0");
    EXPECT_EQ(stamp({"dvb://1.2.3", kPts})["contentTime"], nullptr);
}

TEST_F(TelevisionTest, ZappingGoesThroughAPartialContentId) {
    m_television.execute("service 2");
    std::vector<std::string> seen;
    for (const Scene& scene : m_told) {
        const nlohmann::json cii = nlohmann::json::parse(css::cii(scene, "ts", "wc"));
        for (const char* key : {"protocolVersion", "wcUrl", "tsUrl", "timelines"})
            EXPECT_TRUE(cii.contains(key)) << key;
        for (const char* key : {"contentId", "contentIdStatus", "presentationStatus"}) seen.push_back(cii[key]);
        EXPECT_EQ(css::isFollowing({"", kPts}, scene), !scene.isTransitioning);
    }
    EXPECT_EQ(seen,
              (std::vector<std::string>{"dvb://1.2.5", "partial", "transitioning", "dvb://1.2.5;6", "final", "okay"}));
}

bool isRefused(const std::string& message, bool isFirst) {
    try {
        css::readTsMessage(message, isFirst);
        return false;
    } catch (const std::runtime_error& reason) {
        return *reason.what() != '\0';
    }
}

TEST(CssMessages, JunkIsRefusedWithAReason) {
    const std::string nested(130'000, '[');
    for (const std::string& junk :
         {std::string(), std::string("[[[ no JSON"), std::string("null"), std::string("[]"), std::string("7"),
          std::string("{}"), std::string("{\"contentIdStem\":\"\""), std::string("\xff\xfe"), nested,
          "{\"contentIdStem\":" + nested, std::string(R"({"contentIdStem":""})"),
          std::string(R"({"contentIdStem":null,"timelineSelector":""})"),
          std::string(R"({"contentIdStem":"","timelineSelector":1})")}) {
        for (const bool isFirst : {true, false}) EXPECT_TRUE(isRefused(junk, isFirst)) << junk.substr(0, 99);
    }
    const auto point = [](const std::string& content, const std::string& wall) {
        return R"({"contentTime":")" + content + R"(","wallClockTime":")" + wall + "\"}";
    };
    const std::string good = point("1", "-2");
    const struct {
        std::string actual, earliest, latest;
        bool isGood;
    } cases[] = {{good, point("1", "minusinfinity"), point("1", "plusinfinity"), true},
                 {"", good, good, true},
                 {point("1", "plusinfinity"), good, good, false},
                 {"[]", good, good, false},
                 {"", point("1", "plusinfinity"), good, false},
                 {"", good, point("1", "minusinfinity"), false},
                 {"", good, "", false},
                 {"", good, point("-", "1"), false},
                 {"", good, point("1.5", "1"), false},
                 {"", good, point(std::string(100, '1'), "1"), false},
                 {"", good, R"({"contentTime":1,"wallClockTime":"1"})", false}};
    for (const auto& one : cases) {
        const std::string message = std::string("{") + (one.actual.empty() ? "" : "\"actual\":" + one.actual + ",") +
                                    "\"earliest\":" + one.earliest +
                                    (one.latest.empty() ? "" : ",\"latest\":" + one.latest) + "}";
        EXPECT_EQ(isRefused(message, false), !one.isGood) << message;
    }
}

TEST(Services, AFileIsReadOrRefusedWithItsNameAndTheReason) {
    const std::string file = "services_test." + std::to_string(getpid()) + ".json";
    const auto read = [&file](const std::string& text) {
        std::ofstream(file) << text;
        try {
            return std::to_string(readServices(file).size());
        } catch (const std::runtime_error& wrong) {
            return std::string(wrong.what());
        }
    };
    const std::string head = R"([{"name":"N","contentId":"dvb://1")";
    for (const std::string& good :
         {std::string("}]"), std::string(R"(,"pts":{},"temi":[{"componentTag":255,"timelineId":0}]}])")})
        EXPECT_EQ(read(head + good), "4") << good;
    for (const std::string& wrong :
         {std::string(), std::string("{"), std::string("{}"), std::string("[1]"), std::string(100'000, '['),
          head + ",\"pts\":1}]", head + ",\"pts\":{\"origin\":-1}}]", head + ",\"pts\":{\"origin\":1e99}}]",
          head + ",\"temi\":{}}]", head + ",\"temi\":[{\"componentTag\":256,\"timelineId\":0}]}]",
          head + "},{\"name\":\"\xff\"}]", std::string(R"([{"name":"N","contentId":"http://1"}])"),
          std::string(2 << 20, ' ')})
        EXPECT_TRUE(read(wrong).starts_with(file + " ")) << wrong.substr(0, 99);
    std::filesystem::remove(file);
    EXPECT_THROW(readServices(file), std::runtime_error);
    EXPECT_THROW(readServices("/dev/zero"), std::runtime_error);
}

}  // namespace
