#include "examples/qr_code.h"

#include <qrencode.h>

#include <memory>

namespace {

constexpr int kQuietZone = 2;  // readers want four around it, and find them in the terminal's own margin

bool isDark(const QRcode& code, int x, int y) {
    if (x < 0 || y < 0 || x >= code.width || y >= code.width) return false;
    return (code.data[y * code.width + x] & 1) != 0;
}

}  // namespace

std::string qrCode(const std::string& text) {
    const std::unique_ptr<QRcode, void (*)(QRcode*)> code(
        QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_L, QR_MODE_8, 1), QRcode_free);
    if (code == nullptr) return {};
    // Two rows in one line of half blocks, white and black whatever the terminal's own colours are.
    static const char* const kBlocks[2][2] = {{"\u2588", "\u2580"}, {"\u2584", " "}};
    std::string lines;
    for (int y = -kQuietZone; y < code->width + kQuietZone; y += 2) {
        lines += "\033[97;40m";
        for (int x = -kQuietZone; x < code->width + kQuietZone; ++x) {
            lines += kBlocks[isDark(*code, x, y)][isDark(*code, x, y + 1)];
        }
        lines += "\033[0m\n";
    }
    return lines;
}
