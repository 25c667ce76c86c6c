// What the benchmarks that print share.
#pragma once

#include <unistd.h>

#include <cstdio>

namespace zenk_bench {

/// Empties the file behind standard output: a benchmark at full speed prints gigabytes.
inline void emptyOutput() {
    std::fflush(stdout);
    if (ftruncate(STDOUT_FILENO, 0) == 0) std::rewind(stdout);
}

}  // namespace zenk_bench
