// What the CSS servers meet: a configuration, a sweep in the middle of a handshake, no memory.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/failing_allocations.h"
#include "tests/support/front_end.h"
#include "tests/support/sanitizer.h"
#include "wsserver/css_client_list.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

TEST(CssLimit, ComesFromAValidConfiguration) {
    const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("vel_config", 0));
    const auto limitOf = [&path](const std::string& text) {
        std::ofstream(path) << text;
        return zenk::readCssClientLimit();
    };
    setenv("VEL_CONFIG_FILE", path.c_str(), 1);
    EXPECT_EQ(limitOf("MSMaxClientNum=2\n[X]\nMSMaxClientNum=3\nnonsense\n[HbbTV]\nMSMaxClientNum = 100 ; why\n"), 100);
    for (const char* bad : {"0", "-3", "", "10x", "1 0", "2147483648", "10\nMSMaxClientNum=11"})
        EXPECT_EQ(limitOf(std::string("[HbbTV]\nMSMaxClientNum=") + bad), 25) << bad;
    setenv("VEL_CONFIG_FILE", "/dev/zero", 1);
    EXPECT_EQ(zenk::readCssClientLimit(), 25) << "of a file without end";
}

// Of the allocations of the constructions each fails once.
TEST(Constructors, ComeUpWithoutMemory) {
    if (kIsSanitized) GTEST_SKIP() << "the sanitizer's allocator does not fail";
    std::string text(100, '1');
    bool hasFailed = true;
    for (long count = 0; hasFailed; ++count) {
        failAllocationOf(pthread_self(), count);
        EXPECT_NO_THROW((ZenkCSSCIIServer(text), ZenkCSSTSServer(text), ZenkCSSWCServer(text)));
        hasFailed = stopFailing();
        delete ZenkCSSEventDispatcher::m_instance;
    }
}

using CssServers = FrontEnd;

TEST_F(CssServers, SweepAClientWhoseHandshakeIsUnderWay) {
    const ZenkCSSEventDispatcher dispatcher;
    ZenkCSSCIIServer cii;
    server.addObserver(&cii);
    cii.setEnableInterDevSync(true);
    lws *const swept = open(7, "/css-cii"), *const app = open(8, "/local/hbbtv/");
    for (lws* wsi : {swept, app}) {
        EXPECT_EQ(filter(wsi), 0);
        cii.setEnableInterDevSync(false);
        establish(wsi);
        cii.setEnableInterDevSync(true);
    }
    EXPECT_EQ(takeActions(), (std::vector<Action>(2, {Action::kClose, swept, 1001, ""}))) << "by both sweeps";
    EXPECT_EQ(cii.ciiClientIdExists(1), 0);
}

}  // namespace
}  // namespace zenk_test
