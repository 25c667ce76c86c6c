#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Bytes of WebSocket frames, right ones and wrong ones.
namespace frames {

using namespace std::string_literals;

/// First bytes of frames.
inline constexpr std::uint8_t kFin = 0x80, kContinuation = 0x0, kText = 0x1, kBinary = 0x2, kClose = 0x8, kPing = 0x9,
                              kPong = 0xA;

std::string client(int firstByte, std::string_view payload);  ///< masked, of the shortest form
std::string server(int firstByte, std::string_view payload);  ///< unmasked, of the shortest form

/// Masked, with the length in `lengthBytes` bytes (2 or 8) although fewer would do.
std::string clientWithLongLength(int firstByte, std::string_view payload, int lengthBytes);
/// The payload of a close frame.
std::string closeBody(int status, std::string_view reason = "");

std::string repeat(std::string_view unit, std::size_t count);

}  // namespace frames
