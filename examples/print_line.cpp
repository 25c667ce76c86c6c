#include "examples/print_line.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

namespace {

std::FILE* g_screen = stdout;  // constant once the threads have started

}  // namespace

void printLine(const std::string& line) {
    std::fputs((line + "\n").c_str(), g_screen);
    std::fflush(g_screen);
}

void takeLogAway(const std::string& file) {
    const int screen = dup(STDOUT_FILENO);
    std::FILE* const lines = screen < 0 ? nullptr : fdopen(screen, "w");
    // The library writes to standard output, so it is this that has to go elsewhere.
    if (lines == nullptr || std::freopen(file.c_str(), "a", stdout) == nullptr)
        throw std::runtime_error("cannot write the log to " + file + ": " + std::generic_category().message(errno));
    g_screen = lines;
}

bool isOnTerminal() {
    return isatty(fileno(g_screen)) != 0;
}

std::string printable(std::string_view bytes) {
    constexpr std::size_t kMaxShown = 1000;  // more than a message of a companion that behaves
    const char* const digits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes.substr(0, kMaxShown)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= ' ' && byte <= '~') {
            text += c;
        } else {
            text += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        }
    }
    return bytes.size() > kMaxShown ? text + "..." : text;
}
