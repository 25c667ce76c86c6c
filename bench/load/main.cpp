// Load generator for a WebSocket pair relay: one run measures one thing and prints one JSON object.
#include <sys/resource.h>

#include <cstdio>
#include <exception>

#include "bench/load/modes.h"

namespace zenk_bench {
namespace {

// Thousands of connections need as many descriptors.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

Report run(const Options& options) {
    switch (options.mode) {
        case Mode::throughput:
            return runThroughput(options);
        case Mode::latency:
            return runLatency(options);
        case Mode::connections:
            return runConnections(options);
        case Mode::memory:
            return runMemory(options);
        case Mode::check:
            return runCheck(options);
    }
    return {};
}

}  // namespace
}  // namespace zenk_bench

int main(int argc, char** argv) {
    const zenk_bench::Options options = zenk_bench::parseOptions(argc, argv);
    try {
        zenk_bench::raiseDescriptorLimit();
        zenk_bench::run(options).print();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_load: %s\n", error.what());
        return 1;
    }
    return 0;
}
