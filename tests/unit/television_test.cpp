// The television's rules without a network: where it is after each command, and what it takes from others.

#include "examples/television.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "examples/css_messages.h"

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

// A second passes before each command. Position and speed are those behind the command.
TEST(Television, EachCommandStartsWhereTheLastOneLedAndAWrongOneChangesNothing) {
    std::int64_t now = 1000 * kSecond;
    Television television(
        {{"A", "dvb://1.2.3;4", {}}, {"B", "dvb://1.2.5;6", {}}}, [&now] { return now; }, 0);
    std::vector<Scene> told;
    television.listen([&told](const Scene& scene) { told.push_back(scene); });
    const std::tuple<const char*, double, double> steps[] = {
        {"pause", 1, 0},          {" seek  +10\r", 11, 0}, {"speed 2", 11, 2}, {"seek -3.5", 9.5, 2},
        {"blackout on", 11.5, 2}, {"seek -500", 0, 2},     {"blackout", 2, 2}, {"seek 86400", 86400, 2},
        {"seek +1", 86400, 2},    {"speed 0", 86402, 0},   {"play", 86402, 1}, {"service 2", 0, 1}};
    for (const auto& [command, position, speed] : steps) {
        now += kSecond;
        EXPECT_TRUE(television.execute(command).starts_with("ok service ")) << command;
        EXPECT_EQ(static_cast<double>(told.back().positionNs), position * kSecond) << command;
        EXPECT_EQ(told.back().speed, speed) << command;
        EXPECT_EQ(told.back().sinceNs, now) << command;
    }
    const std::string wrongs[] = {"pause now", {"play\0", 5}, "blackout maybe", "speed nan", "seek 86401", "service 3"};
    for (const std::string& wrong : wrongs) {
        const std::string answer = television.execute(wrong);
        EXPECT_TRUE(answer.starts_with("error: ") && answer.size() < 300) << wrong.substr(0, 99) << " -> " << answer;
    }
    EXPECT_EQ(told.size(), 1 + std::size(steps) + 1) << "the first scene, one for each command and two for a service";
}

TEST(CssMessages, OnlyAStemOfTheContentAndAnOfferedSelectorHaveATimeline) {
    const Scene scene{.service = {"A", "dvb://1.2.3;4~x", {temiTimeline(1, 2, 7)}}, .sinceNs = kSecond};
    const auto contentTime = [&scene](const css::Setup& setup) {
        return nlohmann::json::parse(css::controlTimestamp(setup, scene, 3 * kSecond))["contentTime"];
    };
    EXPECT_EQ(contentTime({"dvb://1.2.3;4~x", "urn:dvb:css:timeline:temi:1:2"}), "2007");
    EXPECT_EQ(contentTime({"dvb://1.2.3;4~xy", "urn:dvb:css:timeline:temi:1:2"}), nullptr);
    EXPECT_EQ(contentTime({"", "urn:dvb:css:timeline:temi:1:1"}), nullptr);
}

TEST(Television, AServicesFileIsReadOrRefused) {
    const std::string file = "television_test.services.json";
    const auto read = [&file](const std::string& text) {
        std::ofstream(file) << text;
        return readServices(file);
    };
    const std::string head = R"([{"name":"N","contentId":"dvb://1","temi":[{"timelineId":0,"componentTag":)";
    EXPECT_EQ(read(head + "255}]}]").size(), readServices("").size() + 1);
    for (const char* wrong : {"256}]}]", "1}]},1]"}) EXPECT_THROW(read(head + wrong), std::runtime_error) << wrong;
    std::filesystem::remove(file);
}

}  // namespace
