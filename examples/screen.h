#pragma once

#include <string>
#include <string_view>

/// What the host says, on the standard output it was started with.

/// Prints one line at once, in one call, so that it never mixes with the log lines that the library's threads print to
/// the same stream. Any thread.
void printLine(const std::string& line);

/// Prints `text` as a QR code where a terminal shows it; nothing elsewhere, or when it is too long for one.
void printQrCode(const std::string& text);

/// The library's log goes to the end of `file` from now on, and what printLine() gets stays where it was. Before the
/// threads start. @throw std::runtime_error with the reason when the file cannot be written
void takeLogAway(const std::string& file);

/// @return foreign bytes as they can be shown: a terminal obeys control characters, and a reader expects short lines
std::string printable(std::string_view bytes);
