#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/failing_allocations.h"
#include "tests/support/outside.h"
#include "wsserver/local_address.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/url_token.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

const std::string kHeader = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n";
const std::string kNumbers = "\t0001A8C0\t00000000\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";

TEST(Tokens, AreTheMd5OfADrawnNumber) {
    EXPECT_EQ(md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    std::srand(7);
    char decimal[17];
    std::snprintf(decimal, sizeof decimal, "%016u", static_cast<unsigned>(std::rand()));
    std::srand(7);
    EXPECT_EQ(randomToken(), md5Hex(decimal));
}

std::optional<std::string> nameIn(const File& table) {
    const std::optional<zenk::InterfaceName> name = zenk::firstRouteInterface(table.get());
    return name ? std::optional<std::string>(name->text) : std::nullopt;
}

TEST(RouteTable, FirstCompleteLineNamesTheInterface) {
    const struct {
        std::string text;
        std::optional<std::string> name;
    } cases[] = {{"", std::nullopt},
                 {kHeader, ""},
                 {"no newline", ""},
                 {kHeader + "eth0" + kNumbers + "wlan0" + kNumbers, "eth0"},
                 {kHeader + "a-name-of-19-letters" + kNumbers, "s"},
                 {kHeader + "0123456789abcdefghi" + kNumbers, "0123456789abcdefghi"},
                 // The first line lacks columns: "wlan0" stops it, and is read on as a name of its own.
                 {kHeader + "eth0\t1\t2\nwlan0" + kNumbers, "wlan0"},
                 // A short line takes the missing columns from the next one, whose rest is no route.
                 {kHeader + "eth0\t1\t2\t3\t4\t5\t6\t7\t8\t9\nabc" + kNumbers, "abc"},
                 {kHeader + "eth0\t1\t2\t3\t4\t5\t6\n7\t8\t9\t10\n", "eth0"},
                 {kHeader + "x y z\n\n\n! ! !", ""}};
    for (const auto& [text, name] : cases) {
        const File table(
            text.empty() ? std::fopen("/dev/null", "r") : fmemopen(const_cast<char*>(text.data()), text.size(), "r"),
            std::fclose);
        EXPECT_EQ(nameIn(table), name) << text;
    }

    cookie_io_functions_t breaksAfterTheHeader = {};
    breaksAfterTheHeader.read = [](void* cookie, char* buffer, std::size_t size) -> ssize_t {
        if (std::exchange(*static_cast<bool*>(cookie), true)) return -1;
        return static_cast<ssize_t>(kHeader.copy(buffer, size));
    };
    bool isBroken = false;
    const File table(fopencookie(&isBroken, "r", breaksAfterTheHeader), std::fclose);
    EXPECT_EQ(nameIn(table), "") << "a read error is the end";
}

class Urls : public testing::Test {
protected:
    /// What each operation makes of "kept".
    std::vector<std::string> ask() {
        std::vector<std::string> urls(5, "kept");
        server.getApp2AppLocalBaseUrl(urls[0]);
        server.getApp2AppRemoteBaseUrl(urls[1]);
        server.getInterDevSyncUrl(urls[2]);
        server.getCssTsEndpoint(urls[3]);
        clock.getCssWcEndpoint(urls[4]);
        return urls;
    }

    MediaSyncServer server;
    ZenkCSSEventDispatcher dispatcher;  // or the clock would make one that outlives this test
    std::string clockPort = "6677x";
    ZenkCSSWCServer clock{clockPort};
};

TEST_F(Urls, NeedAnAddress) {
    const std::vector<std::string> kept(5, "kept");
    outside::address = "10.11.12.13";
    for (const std::optional<std::string>& routes : {std::optional<std::string>(), {""}}) {
        outside::routes = routes;
        EXPECT_EQ(ask(), kept);
    }
    outside::address = "";
    outside::routes = kHeader + "eth9" + kNumbers + "lo" + kNumbers;
    EXPECT_EQ(ask(), kept);
    EXPECT_EQ(outside::interface, "eth9");

    outside::routes = kHeader + "exactly15chars_more" + kNumbers;
    outside::address = "192.168.100.200";
    char address[17] = "untouched";
    address[15] = '#';
    EXPECT_EQ(getLocalIpAddr(address, 15), 0);
    EXPECT_EQ(outside::interface, "exactly15chars_");
    EXPECT_STREQ(address, "192.168.100.200#") << "15 characters and no terminator";
    outside::address = "10.0.0.1";
    zenk_test::failAllocationOf(pthread_self(), 0);
    EXPECT_EQ(getLocalIpAddr(address, 15), 0) << "without memory too";
    EXPECT_FALSE(zenk_test::stopFailing());
    EXPECT_EQ(std::string(address, 16), std::string("10.0.0.1\0\0\0\0\0\0\0#", 16));
}

TEST_F(Urls, JoinTheirPieces) {
    outside::routes = kHeader + "lo" + kNumbers;
    outside::address = "192.168.100.100";
    std::time_t seed = 0;
    do {  // the seed is the second of the drawing
        seed = std::time(nullptr);
        MediaSyncServer::createRandom();
    } while (std::time(nullptr) != seed);
    std::srand(static_cast<unsigned>(seed));
    const std::string local = randomToken(), remote = randomToken(), sync = randomToken();
    for (const int port : {0, 7681}) {
        server.m_port = port;
        const std::string base = "ws://192.168.100.100:" + std::to_string(port);
        EXPECT_EQ(ask(), (std::vector<std::string>{
                             base + "/local/hbbtv/" + local + "/", base + "/remote/hbbtv/" + remote + "/",
                             base + "/css-cii/" + sync + "/", base + "/css-ts/", "udp://192.168.100.100:6677x"}));
    }
}

struct LastQuestion {
    MediaSyncServer& server;
    std::string url;
};
LastQuestion* g_lastQuestion = nullptr;

// Registered before the constructors of all statics, so it is called behind their destructors.
[[gnu::constructor(101)]] void askAtExit() {
    std::atexit([] {
        std::string url;
        if (g_lastQuestion == nullptr) return;
        g_lastQuestion->server.getApp2AppLocalBaseUrl(url);
        std::_Exit(url == g_lastQuestion->url ? 0 : 1);
    });
}

TEST_F(Urls, AreThereUntilTheProcessEnds) {
    const auto exit = [&] {
        outside::routes = kHeader + "lo" + kNumbers;
        outside::address = "10.0.0.1";
        g_lastQuestion = new LastQuestion{server, {}};
        server.getApp2AppLocalBaseUrl(g_lastQuestion->url);
        std::exit(2);
    };
    EXPECT_EXIT(exit(), testing::ExitedWithCode(0), "");
}

}  // namespace
