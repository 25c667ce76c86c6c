// The television's rules without a network: where it is after each command, and what companions are told of that.

#include "examples/television.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "examples/css_messages.h"

namespace {

using namespace std::string_view_literals;
using Json = nlohmann::json;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr const char* kPts = "urn:dvb:css:timeline:pts";

class TelevisionTest : public testing::Test {
protected:
    TelevisionTest() {
        m_television.listen([this](const Scene& scene) { m_told.push_back(scene); });
        m_told.clear();
    }

    /// What a companion with this setup is told after the last change, a few seconds later.
    Json stamp(const css::Setup& setup, std::int64_t laterNs = 0) const {
        const Scene& scene = m_told.back();
        return Json::parse(css::controlTimestamp(setup, scene, scene.sinceNs + laterNs));
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
        const Json status = m_television.status();
        EXPECT_EQ(status["position"], step.position);
        EXPECT_EQ(status["speed"], step.speed);
        EXPECT_FALSE(std::signbit(status["speed"].get<double>()));
        ASSERT_EQ(m_told.size(), step.command == std::string("service 2") ? 2 : 1);
        EXPECT_EQ(m_told.back().sinceNs, m_now);
    }
}

TEST_F(TelevisionTest, WrongCommandsAreRefusedWithAReasonAndChangeNothing) {
    const std::string before = m_television.status().dump();
    const auto expectRefusal = [this](const std::string& command) {
        const std::string answer = m_television.execute(command);
        EXPECT_TRUE(answer.starts_with("error: ") && answer.size() < 300) << command.substr(0, 99) << " -> " << answer;
    };
    for (const char* wrong :
         {"", "paus", "pause now", "play\nplay", "pl\xffy", "blackout maybe", "speed", "speed -1", "speed 65",
          "speed nan", "speed 1e999", "seek +-1", "seek 86401", "service 0", "service 3"})
        expectRefusal(wrong);
    expectRefusal({"play\0", 5});
    expectRefusal(std::string(1 << 20, 'a'));
    EXPECT_TRUE(m_told.empty());
    EXPECT_EQ(m_television.status().dump(), before);
}

TEST_F(TelevisionTest, OnlyAStemOfTheContentAndAnOfferedSelectorHaveATimeline) {
    m_television.execute("play");
    const struct {
        css::Setup setup;
        Json contentTime;  // null: no timeline
    } cases[] = {{{"", kPts}, "180900"},
                 {{"dvb://1.2.3;4~x", kPts}, "180900"},
                 {{"dvb://1.2.3", "urn:dvb:css:timeline:temi:1:2"}, "2007"},
                 {{"dvb://1.2.3;4~xy", kPts}, nullptr},
                 {{"vb://1.2.3", kPts}, nullptr},
                 {{"", "urn:dvb:css:timeline:temi:1:1"}, nullptr}};
    for (const auto& [setup, contentTime] : cases) {
        SCOPED_TRACE(setup.contentIdStem + " " + setup.timelineSelector);
        const Json answer = stamp(setup, 2 * kSecond);
        EXPECT_EQ(answer["wallClockTime"], "1002000000000");
        EXPECT_EQ(answer["contentTime"], contentTime);
        EXPECT_EQ(answer["timelineSpeedMultiplier"].is_null(), contentTime.is_null());
    }
    for (const char* command : {"blackout", "service 2"}) {  // back, and both looked at anew
        EXPECT_EQ(stamp({"dvb://1.2.5", kPts})["contentTime"], nullptr);
        m_television.execute(command);
    }
    EXPECT_EQ(stamp({"dvb://1.2.5", kPts})["contentTime"], "0");
    EXPECT_EQ(stamp({"dvb://1.2.3", kPts})["contentTime"], nullptr);
}

/// Calls it, and returns the reason why it refused; empty if it did not.
template <typename Call>
std::string refusal(const Call& call) {
    try {
        call();
        return "";
    } catch (const std::runtime_error& reason) {
        return reason.what();
    }
}

TEST(CssMessages, JunkIsRefusedWithAReason) {
    const std::string nested = "{\"contentIdStem\":" + std::string(130'000, '[');
    for (const std::string_view junk : {""sv, "[[[ no JSON"sv, "7"sv, "{}"sv, "\xff\xfe"sv,
                                        R"({"contentIdStem":"","timelineSelector":1})"sv, std::string_view(nested)}) {
        for (const bool isFirst : {true, false})
            EXPECT_NE(refusal([&] { css::readTsMessage(std::string(junk), isFirst); }), "");
    }
    const Json good = Json::parse(R"({"actual": {"contentTime": "1", "wallClockTime": "-2"},
                                      "earliest": {"contentTime": "1", "wallClockTime": "minusinfinity"},
                                      "latest": {"contentTime": "-1", "wallClockTime": "plusinfinity"}})");
    const auto refusalOf = [&good](const char* change, bool isFirst = false) {
        Json message = good;
        message.merge_patch(Json::parse(change));
        return refusal([&] { css::readTsMessage(message.dump(), isFirst); });
    };
    EXPECT_EQ(refusalOf("{}"), "");
    EXPECT_EQ(refusalOf(R"({"actual":null})"), "");  // it may be missing
    EXPECT_NE(refusalOf("{}", true), "");            // a setup comes first
    for (const char* wrong :
         {R"({"actual":[]})", R"({"latest":null})", R"({"latest":{"wallClockTime":"minusinfinity"}})",
          R"({"earliest":{"wallClockTime":"plusinfinity"}})", R"({"latest":{"contentTime":"-"}})",
          R"({"latest":{"contentTime":"111111111111111111111"}})", R"({"latest":{"contentTime":1}})"})
        EXPECT_NE(refusalOf(wrong), "") << wrong;
}

TEST(Services, AFileIsReadOrRefusedWithItsNameAndTheReason) {
    const std::string file = "services_test." + std::to_string(getpid()) + ".json";
    const auto isRefused = [&file](const std::string& text) {
        std::ofstream(file) << text;
        return refusal([&file] { readServices(file); }).starts_with(file + " ");
    };
    const std::string head = R"([{"name":"N","contentId":"dvb://1")";
    EXPECT_FALSE(isRefused(head + R"(,"pts":{},"temi":[{"componentTag":255,"timelineId":0}]}])"));
    EXPECT_EQ(readServices(file).size(), readServices("").size() + 1);
    for (const char* wrong :
         {",\"pts\":{\"origin\":-1}}]", ",\"pts\":{\"origin\":1e99}}]", ",\"temi\":{}}]",
          ",\"temi\":[{\"componentTag\":256,\"timelineId\":0}]}]", "},{\"name\":\"\xff\"}]", "},1]"})
        EXPECT_TRUE(isRefused(head + wrong)) << wrong;
    for (const std::string& wrong : {std::string(), std::string(100'000, '['), std::string(2 << 20, ' ')})
        EXPECT_TRUE(isRefused(wrong)) << wrong.substr(0, 99);
    std::filesystem::remove(file);
    EXPECT_NE(refusal([&file] { readServices(file); }), "");
    EXPECT_NE(refusal([] { readServices("/dev/zero"); }), "");
}

}  // namespace
