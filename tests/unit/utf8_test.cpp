#include <gtest/gtest.h>

#include <string>

#include "platform/utf8_checker.h"

namespace {

using namespace std::string_literals;

TEST(Utf8Checker, JudgesEverySplitOfATextAlike) {
    const std::string good[] = {"plain\0text"s, "\x7F\xC2\x80\xDF\xBF", "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80",
                                "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"};
    const std::string bad[] = {"\x80",         "\xC1\xBF",         "\xF5\x80\x80\x80", "\xE0\x9F\xBF",
                               "\xED\xA0\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xE2\x82",
                               "\xE2\x82!",    "\xC3\xA4\xA4"};
    const auto expect = [](bool isGood, const std::string& text) {
        for (const std::string& whole : {text + std::string(100, 'x'), std::string(100, 'x') + text}) {
            const auto* const bytes = reinterpret_cast<const std::uint8_t*>(whole.data());
            for (std::size_t split = 0; split <= whole.size(); ++split) {
                zenk_ws::Utf8Checker checker;
                EXPECT_EQ(isGood, checker.feed({bytes, split}) && checker.feed({bytes + split, whole.size() - split}) &&
                                      checker.isComplete())
                    << testing::PrintToString(whole) << " split at " << split;
            }
        }
    };
    for (const std::string& text : good) expect(true, text);
    for (const std::string& text : bad) expect(false, text);
}

}  // namespace
