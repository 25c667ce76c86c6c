#pragma once

#include <string>

/// @return `text` as a QR code for a terminal, several lines; empty when it is too long for one
std::string qrCode(const std::string& text);
