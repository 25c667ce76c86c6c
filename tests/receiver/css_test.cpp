// Companion devices of both kinds: who is let in, what the host hears and answers.

#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "tests/support/config_file.h"
#include "tests/support/receiver.h"
#include "tests/support/ws_client.h"

using namespace zenk_test;

namespace {

constexpr const char* kNothing = "";

std::string eventLine(int event, int client, std::size_t bytes) {
    return "event " + std::to_string(event) + " client " + std::to_string(client) + " bytes " + std::to_string(bytes);
}

TEST(CssServices, TellTheHostAllEventsInOrderAndAnswer) {
    Receiver receiver;
    WsClient cii;
    ASSERT_TRUE(cii.connect(receiver.port(), receiver.path("css-cii")));
    EXPECT_EQ(receiver.nextEvent(), eventLine(0, 1, 0));
    const auto greeting = nlohmann::json::parse(cii.receiveText(), nullptr, false);
    ASSERT_TRUE(greeting.is_object());
    EXPECT_EQ(greeting["protocolVersion"], "1.1");
    EXPECT_EQ(greeting["tsUrl"], receiver.url("css-ts"));
    EXPECT_EQ(greeting["wcUrl"], receiver.url("css-wc"));

    WsClient ts;
    ASSERT_TRUE(ts.connect(receiver.port(), receiver.path("css-ts")));
    EXPECT_EQ(receiver.nextEvent(), eventLine(3, 2, 0));
    const std::string selector = greeting["timelines"][0]["timelineSelector"];
    const std::string setup = nlohmann::json{{"contentIdStem", ""}, {"timelineSelector", selector}}.dump();
    ASSERT_TRUE(ts.sendText(setup));
    EXPECT_EQ(receiver.nextEvent(), eventLine(4, 2, setup.size()));
    const auto stamp = nlohmann::json::parse(ts.receiveText(), nullptr, false);
    ASSERT_TRUE(stamp.is_object());
    EXPECT_GT(std::stoll(stamp.value("wallClockTime", "0")), 0);
    EXPECT_GE(std::stoll(stamp.value("contentTime", "-1")), 0);
    EXPECT_EQ(stamp["timelineSpeedMultiplier"], 1.0);

    ASSERT_TRUE(cii.sendBinary(std::string("a\0b", 3)));
    EXPECT_EQ(receiver.nextEvent(), eventLine(1, 1, 3));
    EXPECT_TRUE(cii.close());
    EXPECT_EQ(receiver.nextEvent(), eventLine(2, 1, 0));
    ts.reset();
    EXPECT_EQ(receiver.nextEvent(), eventLine(5, 2, 0));
    EXPECT_EQ(receiver.end(SIGTERM), 0);
}

TEST(CssServices, SayThatAnUnknownTimelineIsNotAvailable) {
    Receiver receiver;
    WsClient ts;
    ASSERT_TRUE(ts.connect(receiver.port(), receiver.path("css-ts")));
    // The first message decides, later ones only report what the client can play.
    for (const char* message : {R"({"contentIdStem":"","timelineSelector":"urn:dvb:css:timeline:temi:1:1"})",
                                R"({"timelineSelector":"urn:dvb:css:timeline:pts"})", "[[[[ no JSON"}) {
        ASSERT_TRUE(ts.sendText(message));
        const auto stamp = nlohmann::json::parse(ts.receiveText(), nullptr, false);
        ASSERT_TRUE(stamp.is_object());
        EXPECT_TRUE(stamp["contentTime"].is_null() && stamp["timelineSpeedMultiplier"].is_null());
    }
}

TEST(CssServices, RefuseTheirClientsWhileDisabledAndNobodyElse) {
    Receiver receiver({"--no-sync"});
    for (const char* name : {"css-cii", "css-ts"}) {
        WsClient client;
        EXPECT_FALSE(client.connect(receiver.port(), receiver.path(name)));
        EXPECT_EQ(client.httpStatus(), 403) << name;
    }
    WsClient app;
    EXPECT_TRUE(app.connect(receiver.port(), receiver.path("app2app-local") + "game"));
    EXPECT_EQ(receiver.process().lineWith("event ", Milliseconds(0)), std::nullopt);
    EXPECT_EQ(receiver.end(SIGTERM), 0);
}

TEST(CssServices, RefuseClientsAtTheLimitUntilOneHasLeft) {
    const ConfigFile config("[HbbTV]\nMSMaxClientNum=1\n");
    for (const char* name : {"css-cii", "css-ts"}) {
        SCOPED_TRACE(name);
        Receiver receiver;
        WsClient first;
        ASSERT_TRUE(first.connect(receiver.port(), receiver.path(name)));
        WsClient second;
        EXPECT_FALSE(second.connect(receiver.port(), receiver.path(name)));
        EXPECT_EQ(second.httpStatus(), 503);
        first.reset();
        ASSERT_NE(receiver.nextEvent(), kNothing);  // the first came
        ASSERT_NE(receiver.nextEvent(), kNothing);  // and left
        EXPECT_TRUE(second.connect(receiver.port(), receiver.path(name)));
    }
}

}  // namespace
