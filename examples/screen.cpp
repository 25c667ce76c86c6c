#include "examples/screen.h"

#include <qrencode.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

namespace {

constexpr int kQuietZone = 2;  // readers want four around it, and find them in the terminal's own margin

std::FILE* g_screen = stdout;  // constant once the threads have started

bool isDark(const QRcode& code, int x, int y) {
    if (x < 0 || y < 0 || x >= code.width || y >= code.width) return false;
    return (code.data[y * code.width + x] & 1) != 0;
}

}  // namespace

void printLine(const std::string& line) {
    std::fputs((line + "\n").c_str(), g_screen);
    std::fflush(g_screen);
}

void printQrCode(const std::string& text) {
    const std::unique_ptr<QRcode, void (*)(QRcode*)> code(
        QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_L, QR_MODE_8, 1), QRcode_free);
    if (code == nullptr || isatty(fileno(g_screen)) == 0) return;
    // Two rows in one line of half blocks, white and black whatever the terminal's own colours are.
    static const char* const kBlocks[2][2] = {{"\u2588", "\u2580"}, {"\u2584", " "}};
    std::string lines;
    for (int y = -kQuietZone; y < code->width + kQuietZone; y += 2) {
        lines += "\033[97;40m";
        for (int x = -kQuietZone; x < code->width + kQuietZone; ++x)
            lines += kBlocks[isDark(*code, x, y)][isDark(*code, x, y + 1)];
        lines += "\033[0m\n";
    }
    printLine(lines);
}

void takeLogAway(const std::string& file) {
    std::FILE* const lines = fdopen(dup(STDOUT_FILENO), "w");
    // The library writes to standard output, so it is this that has to go elsewhere.
    if (lines == nullptr || std::freopen(file.c_str(), "a", stdout) == nullptr)
        throw std::system_error(errno, std::generic_category(), "cannot write the log to " + file);
    g_screen = lines;
}

std::string printable(std::string_view bytes) {
    constexpr std::size_t kMaxShown = 1000;  // more than a message of a companion that behaves
    const char* const digits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes.substr(0, kMaxShown)) {
        const bool isPrintable = c >= ' ' && c <= '~';
        const auto byte = static_cast<unsigned char>(c);
        text += isPrintable ? std::string(1, c) : std::string{'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    }
    return bytes.size() > kMaxShown ? text + "..." : text;
}
