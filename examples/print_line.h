#pragma once

#include <cstdio>
#include <string>

/// Prints one line to standard output at once, in one call, so that it never mixes with the log lines that the
/// library's threads print to the same stream.
inline void printLine(const std::string& line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}
