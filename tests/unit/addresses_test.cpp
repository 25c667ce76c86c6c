// Where the receiver finds its address, and who asks for it last.
#include <gtest/gtest.h>

#include "log/zenk_log.h"
#include "tests/support/outside.h"
#include "wsserver/local_address.h"
#include "wsserver/media_sync_server.h"

namespace {

const std::string kHeader = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n";
const std::string kNumbers = "\t0001A8C0\t00000000\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";

TEST(RouteTable, FirstCompleteLineNamesTheInterface) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "none"},
        {"no newline", ""},
        {kHeader + "eth0" + kNumbers + "wlan0" + kNumbers, "eth0"},
        {kHeader + "a-name-of-19-letters" + kNumbers, "s"},
        // The first line lacks columns: "wlan0" stops it, and is read on as a name of its own.
        {kHeader + "eth0\t1\t2\nwlan0" + kNumbers, "wlan0"},
        // A short line takes the missing columns from the next one, whose rest is no route.
        {kHeader + "eth0\t1\t2\t3\t4\t5\t6\t7\t8\t9\nabc" + kNumbers, "abc"},
        {kHeader + "x y z\n\n\n! ! !", ""}};
    for (const auto& [text, name] : cases) {
        std::FILE* const table = std::tmpfile();
        std::fputs(text.c_str(), table);
        std::rewind(table);
        EXPECT_EQ(zenk::firstRouteInterface(table).value_or(zenk::InterfaceName{"none"}).text, name) << text;
        std::fclose(table);
    }
}

MediaSyncServer* g_lastServer = nullptr;

// Registered before the constructors of all statics, so it is called behind their destructors.
[[gnu::constructor(101)]] void askInTheEnd() {
    std::atexit([] {
        std::string url;
        if (g_lastServer == nullptr) return;
        g_lastServer->getApp2AppLocalBaseUrl(url);
        const bool isLogEmpty = insert_modules_list("A", 1) == 0 && get_modules_list(nullptr) == 0;
        std::_Exit(isLogEmpty && zenk_log_getLevel("A") == 1 && url.size() > 60 ? 42 : 1);
    });
}

TEST(AtExit, UrlsAreThereAndTheLogsTableCountsAsEmpty) {
    const auto exit = [] {
        outside::routes = kHeader + "lo" + kNumbers;
        outside::address = "10.0.0.1";
        g_lastServer = new MediaSyncServer;
        insert_modules_list("A", 1);
        std::exit(0);
    };
    EXPECT_EXIT(exit(), testing::ExitedWithCode(42), "");
}

}  // namespace
