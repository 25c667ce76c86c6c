#pragma once

#include <cstddef>

/// The length of `text` without a UTF-8 character (RFC 3629) that `length` bytes hold only in part: 0 to 3 bytes less.
/// Expects a piece from the beginning of valid UTF-8; of other bytes it may cut up to 3 off, never reads beyond.
inline std::size_t wholeUtf8Length(const unsigned char* text, std::size_t length) {
    // Step back over at most 3 continuation bytes (10xxxxxx) to the byte that begins the last character.
    std::size_t start = length;
    while (start > 0 && length - start < 4) {
        --start;
        if ((text[start] & 0xC0u) == 0x80u) continue;
        const unsigned char lead = text[start];
        const std::size_t needed = lead >= 0xF0u ? 4 : lead >= 0xE0u ? 3 : lead >= 0xC0u ? 2 : 1;
        return length - start < needed ? start : length;
    }
    return length;
}
