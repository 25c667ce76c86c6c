// What one run of the load generator does, and what it gives.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>

namespace zenk_bench {

struct Options {
    std::uint16_t port = 0;
    pid_t serverPid = 0;      // whose CPU time and memory are read
    double seconds = 1.0;     // of measuring, after the warm-up
    std::size_t pairs = 1;    // busy pairs
    std::size_t window = 64;  // messages in flight per busy pair
    std::size_t messageBytes = 100;
    std::size_t idle = 0;     // connections in silent pairs, opened before the busy ones
    std::size_t waiting = 0;  // local connections without a partner, opened before the measurement
};

/// Figures by their names.
using Report = nlohmann::ordered_json;

/// Local clients send with a window of messages in flight; CPU per message and messages per second.
Report runThroughput(const Options& options);

/// Ping-pong, one message in flight per pair: local to remote and back, which is two hops through the relay.
Report runLatency(const Options& options);

/// Handshakes and closing handshakes, one after the other, beside connections that wait for a partner.
Report runConnections(const Options& options);

/// Resident memory per connection: open and idle, and after one message each.
Report runMemory(const Options& options);

}  // namespace zenk_bench
