// Message contents that can be told apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zenk_bench {

constexpr std::uint32_t kFixedMask = 0x37fa213d;

/// Letters, so that it is valid UTF-8; differs with the seed.
inline std::string asciiPayload(std::size_t bytes, std::size_t seed) {
    std::string text(bytes, 'a');
    for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
    return text;
}

}  // namespace zenk_bench
