#include <gtest/gtest.h>

#include <string>

#include "platform/utf8_checker.h"

// What is plain is read in blocks, so that each text is judged before and behind more than one of them.
TEST(Utf8Checker, JudgesEverySplitOfATextAlike) {
    const std::string good = "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    for (const std::string bad : {"", "\x80", "\xC1\xBF", "\xF5\x80\x80\x80", "\xE0\x9F\xBF", "\xED\xA0\x80",
                                  "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xE2\x82", "\xC3\xA4\xA4"}) {
        for (const std::string& text : {good + bad + std::string(70, 'x'), std::string(70, 'x') + good + bad}) {
            const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
            for (std::size_t split = 0; split <= text.size(); ++split) {
                zenk_ws::Utf8Checker checker;
                EXPECT_EQ(bad.empty(), checker.feed({bytes, split}) &&
                                           checker.feed({bytes + split, text.size() - split}) && checker.isComplete())
                    << testing::PrintToString(bad) << " split at " << split;
            }
        }
    }
}
