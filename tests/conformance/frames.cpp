#include "tests/conformance/frames.h"

#include "tests/support/raw_client.h"

namespace frames {
namespace {

std::string bigEndian(std::uint64_t value, int bytes) {
    std::string text;
    while (bytes-- > 0) text.push_back(static_cast<char>(value >> (8 * bytes)));
    return text;
}

}  // namespace

std::string client(int firstByte, std::string_view payload) {
    return zenk_test::clientFrame(static_cast<std::uint8_t>(firstByte), payload);
}

std::string server(int firstByte, std::string_view payload) {
    std::string frame(1, static_cast<char>(firstByte));
    if (payload.size() < 126) {
        frame += bigEndian(payload.size(), 1);
    } else if (payload.size() < 65536) {
        frame += "\x7E" + bigEndian(payload.size(), 2);
    } else {
        frame += "\x7F" + bigEndian(payload.size(), 8);
    }
    return frame.append(payload);
}

std::string clientWithLongLength(int firstByte, std::string_view payload, int lengthBytes) {
    const std::string mask(4, '\0');
    const char* const form = lengthBytes == 2 ? "\xFE" : "\xFF";
    std::string frame(1, static_cast<char>(firstByte));
    return frame.append(form).append(bigEndian(payload.size(), lengthBytes)).append(mask).append(payload);
}

std::string closeBody(int status, std::string_view reason) {
    return bigEndian(static_cast<std::uint64_t>(status), 2).append(reason);
}

std::string repeat(std::string_view unit, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) text += unit;
    return text;
}

}  // namespace frames
