#include "platform/vel_config.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/config_file.h"

namespace {

constexpr int kUntouched = 4711;

// The value for a file with this content, or kUntouched after a failure.
int read(const std::string& content) {
    const zenk_test::ConfigFile file(content);
    int value = kUntouched;
    const int result = zenk_vel_config_get_int("HbbTV", "MSMaxClientNum", &value);
    EXPECT_EQ(result != 0, value == kUntouched);
    return value;
}

TEST(VelConfig, GivesWholeNumbersOfTheRightSectionAndKey) {
    for (const int number : {1, 25, 1000, 0, -3, 2147483647}) {
        EXPECT_EQ(read("[HbbTV]\nMSMaxClientNum=" + std::to_string(number) + "\n"), number);
    }
    EXPECT_EQ(read("MSMaxClientNum=1\n[Other]\nMSMaxClientNum=2\nnonsense\n[HbbTV]\nX=3\nMSMaxClientNum = 10 ; why\n"),
              10);
}

TEST(VelConfig, RefusesEverythingElseAndLeavesTheValueAlone) {
    for (const char* text :
         {"ten", "", "10x", "1.5", "1 0", "0x10", "2147483648", "10\nMSMaxClientNum=11", "10\n  11"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(read("[HbbTV]\nMSMaxClientNum=" + std::string(text) + "\n"), kUntouched);
    }
    EXPECT_EQ(read(""), kUntouched);
    EXPECT_EQ(read("[HbbTV]\nmsmaxclientnum=1\n[hbbtv]\nMSMaxClientNum=1\n"), kUntouched);

    int value = kUntouched;
    for (const char* file : {"/nowhere/at/all", "/", "/dev/zero", ""}) {
        setenv("VEL_CONFIG_FILE", file, 1);
        EXPECT_NE(zenk_vel_config_get_int("HbbTV", "MSMaxClientNum", &value), 0);
    }
    EXPECT_NE(zenk_vel_config_get_int("HbbTV", "MSMaxClientNum", nullptr), 0);
    EXPECT_EQ(value, kUntouched);
}

}  // namespace
