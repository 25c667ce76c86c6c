// What a run measures. Each mode opens its connections, measures, and gives back its figures.
#pragma once

#include "bench/load/measure.h"
#include "bench/load/options.h"

namespace zenk_bench {

/// Local clients send with a window of messages in flight; CPU per message and messages per second.
Report runThroughput(const Options& options);

/// Ping-pong, one message in flight per pair: local to remote and back, which is two hops through the relay.
Report runLatency(const Options& options);

/// Handshakes and closing handshakes, one after the other, beside connections that wait for a partner.
Report runConnections(const Options& options);

/// Resident memory per connection: open and idle, and after one message each.
Report runMemory(const Options& options);

/// Every size class, both directions, text and binary: content, kind and order must come out unchanged.
/// @throws std::runtime_error naming the cases that failed
Report runCheck(const Options& options);

}  // namespace zenk_bench
