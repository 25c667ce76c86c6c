#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace zenk_test {

/// The bytes of one run, taken from the front. At their end every number is 0 and every text empty.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool isEmpty() const { return m_rest.empty(); }
    unsigned byte() {
        const std::string_view one = bytes(1);
        return one.empty() ? 0 : static_cast<unsigned char>(one[0]);
    }
    bool flag() { return (byte() & 1) != 0; }
    unsigned below(unsigned count) { return byte() % count; }
    /// At most `count` bytes.
    std::string_view bytes(std::size_t count) {
        const std::string_view taken = m_rest.substr(0, count);
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    /// A piece whose length of two bytes, the high one first, stands before it; at most `limit` bytes.
    std::string_view piece(std::size_t limit) {
        const std::size_t high = byte();
        return bytes(std::min<std::size_t>(high << 8 | byte(), limit));
    }

private:
    std::string_view m_rest;
};

/// Ends the run as a finding.
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "FINDING: %s\n", what);
    std::abort();
}

inline void require(bool holds, const char* what) {
    if (!holds) fail(what);
}

}  // namespace zenk_test
