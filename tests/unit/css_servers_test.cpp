// What the CSS servers meet: a configuration, a sweep in the middle of a handshake, no memory.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdlib>

#include "tests/support/failing_allocations.h"
#include "tests/support/front_end.h"
#include "tests/support/sanitizer.h"
#include "wsserver/css_client_list.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

TEST(CssLimit, ComesFromAValidConfiguration) {
    const std::string key = "[HbbTV]\nMSMaxClientNum=";
    std::vector<std::pair<std::string, int>> table = {
        {key + "1", 1},
        {"MSMaxClientNum=2\n[Other]\nMSMaxClientNum=3\nnonsense\n[HbbTV]\nX=4\nMSMaxClientNum = 100 ; why\n", 100},
        {"[HbbTV]\nmsmaxclientnum=1\n[hbbtv]\nMSMaxClientNum=1\n", 25}};
    for (const char* bad : {"0", "-3", "ten", "", "10x", "1.5", "1 0", "0x10", "2147483648", "10\nMSMaxClientNum=11"})
        table.emplace_back(key + bad, 25);
    for (const auto& [text, limit] : table) {
        const int file = memfd_create("vel_config", 0);
        EXPECT_EQ(write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        setenv("VEL_CONFIG_FILE", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
        EXPECT_EQ(zenk::readCssClientLimit(), limit) << text;
        ::close(file);
    }
    for (const char* file : {"/nowhere/at/all", "/", "/dev/zero"}) {
        setenv("VEL_CONFIG_FILE", file, 1);
        EXPECT_EQ(zenk::readCssClientLimit(), 25) << file;
    }
}

// Of the allocations of a construction each fails once.
template <typename Server>
void buildWithoutMemory() {
    std::string text(100, '1');
    bool hasFailed = true;
    for (long count = 0; hasFailed; ++count) {
        failAllocationOf(pthread_self(), count);
        EXPECT_NO_THROW(Server{text});
        hasFailed = stopFailing();
        delete ZenkCSSEventDispatcher::m_instance;
    }
}

TEST(Constructors, ComeUpWithoutMemory) {
    if (kIsSanitized) GTEST_SKIP() << "the sanitizer's allocator does not fail";
    buildWithoutMemory<ZenkCSSCIIServer>();
    buildWithoutMemory<ZenkCSSTSServer>();
    buildWithoutMemory<ZenkCSSWCServer>();
}

using CssServers = FrontEnd;

TEST_F(CssServers, ShareAClientButNotTheirCountsAndSweepOneWhoseHandshakeIsUnderWay) {
    const ZenkCSSEventDispatcher dispatcher;
    ZenkCSSCIIServer cii;
    ZenkCSSTSServer ts;
    for (ClientObserver* each : std::initializer_list<ClientObserver*>{&cii, &ts}) server.addObserver(each);
    cii.setEnableInterDevSync(true), ts.setEnableInterDevSync(true);
    lws *const swept = open(7, "/css-cii/css-ts"), *const app = open(8, "/local/hbbtv/");
    for (lws* wsi : {swept, app}) {
        EXPECT_EQ(filter(wsi), 0);
        cii.setEnableInterDevSync(false);
        establish(wsi);
        cii.setEnableInterDevSync(true);
    }
    EXPECT_EQ(takeActions(), (std::vector<Action>(2, {Action::kClose, swept, 1001, ""}))) << "by both sweeps";
    EXPECT_EQ(std::pair(cii.ciiClientIdExists(1), ts.tsClientIdExists(1)), std::pair(0, 1));
    close(swept);
    EXPECT_EQ(std::pair(cii.ciiClientIdExists(1), ts.tsClientIdExists(1)), std::pair(0, 0));
}

}  // namespace
}  // namespace zenk_test
