#include "platform/utf8_checker.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "platform/send_queue.h"
#include "platform/zenk_websockets.h"

namespace {

using namespace std::string_view_literals;
using zenk_ws::Utf8Checker;

bool feed(Utf8Checker& checker, std::string_view text) {
    return checker.feed({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

bool isText(std::string_view text, std::size_t splitAt) {
    Utf8Checker checker;
    return feed(checker, text.substr(0, splitAt)) && feed(checker, text.substr(splitAt)) && checker.isComplete();
}

TEST(Utf8Checker, JudgesEverySplitOfATextAlike) {
    constexpr std::string_view good[] = {""sv, "plain\0text"sv, "\x7F\xC2\x80\xDF\xBF"sv,
                                         "\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"sv,
                                         "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"sv};
    constexpr std::string_view bad[] = {
        "\x80"sv,         "\xC0\xAF"sv,         "\xC1\xBF"sv,         "\xE0\x9F\xBF"sv,
        "\xED\xA0\x80"sv, "\xF0\x8F\xBF\xBF"sv, "\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv,
        "\xFF"sv,         "\xE2\x82"sv,         "\xE2\x82!"sv,        "\xC3\xA4\xA4"sv};
    const std::string padding(100, 'x');  // so that the blocks of plain ASCII are passed over as well
    const auto check = [&](std::string_view text, bool isGood) {
        // An unfinished sequence with something behind it is bad for another reason; it stays bad.
        for (const std::string& whole : {std::string(text), padding + std::string(text), std::string(text) + padding}) {
            for (std::size_t split = 0; split <= whole.size(); ++split) {
                EXPECT_EQ(isText(whole, split), isGood) << testing::PrintToString(whole) << " split at " << split;
            }
        }
    };
    for (const std::string_view text : good) check(text, true);
    for (const std::string_view text : bad) check(text, false);
}

TEST(FrameHeader, HasTheShortestLengthForm) {
    const struct {
        std::size_t payload;
        int type;
        std::string_view bytes;
    } cases[] = {
        {0, zenk_ws::kWriteText, "\x81\x00"sv},
        {125, zenk_ws::kWriteBinary, "\x82\x7D"sv},
        {126, zenk_ws::kWriteText | zenk_ws::kWriteNoFin, "\x01\x7E\x00\x7E"sv},
        {65535, zenk_ws::kWriteContinuation, "\x80\x7E\xFF\xFF"sv},
        {65536, zenk_ws::kWriteContinuation | zenk_ws::kWriteNoFin, "\x00\x7F\x00\x00\x00\x00\x00\x01\x00\x00"sv},
    };
    for (const auto& [payload, type, bytes] : cases) {
        const zenk_ws::FrameHeader header = zenk_ws::makeFrameHeader(payload, type);
        EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(header.bytes), header.size), bytes) << payload;
    }
}

}  // namespace
