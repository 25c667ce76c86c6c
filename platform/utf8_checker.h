#pragma once

#include <cstdint>
#include <span>

namespace zenk_ws {

/// Checks a text that arrives in pieces for well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing
/// above U+10FFFF. One object per text; a sequence may be split anywhere.
class Utf8Checker {
public:
    /// @return false at the first byte that no well-formed text can have there; the object is of no use then
    bool feed(std::span<const std::uint8_t> bytes);

    /// True when no sequence is left unfinished, so that the text may end here.
    bool isComplete() const { return m_missing == 0; }

private:
    bool begin(std::uint8_t lead);

    // What the next continuation byte may be; the first one behind a lead byte has narrower bounds than the others.
    std::uint8_t m_missing = 0;
    std::uint8_t m_lowest = 0x80;
    std::uint8_t m_highest = 0xBF;
};

}  // namespace zenk_ws
