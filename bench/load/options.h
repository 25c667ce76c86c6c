// What one run of the load generator does.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace zenk_bench {

enum class Mode { throughput, latency, connections, memory, check };

struct Options {
    Mode mode = Mode::throughput;
    std::uint16_t port = 0;
    pid_t serverPid = 0;      // whose CPU time and memory are read
    double seconds = 1.0;     // of measuring, after the warm-up
    std::size_t pairs = 1;    // busy pairs
    std::size_t window = 64;  // messages in flight per busy pair
    std::size_t messageBytes = 100;
    std::size_t idle = 0;            // connections in silent pairs, opened before the busy ones
    std::size_t waiting = 0;         // local connections without a partner, opened before the measurement
    std::size_t concurrency = 32;    // handshakes under way at once
    std::size_t connections = 2000;  // of the memory mode
};

/// Reads the command line; prints help or the fault and ends the process where there is nothing to run.
Options parseOptions(int argc, char** argv);

}  // namespace zenk_bench
