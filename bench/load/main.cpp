// Load generator for a WebSocket pair relay: one run measures one thing and prints one JSON object.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>

#include "bench/load/options.h"

namespace zenk_bench {
namespace {

// Bounds keep a slip of the finger from exhausting the ports or the patience of the machine.
constexpr std::size_t kMaxConnections = 9000;
constexpr double kMaxSeconds = 60;

using Run = Report (*)(const Options&);
const std::map<std::string, Run> kModes = {
    {"tput", runThroughput}, {"lat", runLatency}, {"conn", runConnections}, {"mem", runMemory}};

void declare(CLI::App& app, Options& options, std::string& mode) {
    const CLI::Range connections(std::size_t{0}, kMaxConnections);
    app.add_option("--mode", mode, "What to measure")->required()->check(CLI::IsMember(kModes));
    app.add_option("--port", options.port, "Port of the relay on 127.0.0.1")->required();
    app.add_option("--pid", options.serverPid, "Process of the relay, for its CPU time and memory");
    app.add_option("--time", options.seconds, "Seconds of measuring")->check(CLI::Range(0.05, kMaxSeconds));
    app.add_option("--pairs", options.pairs, "Busy pairs")->check(CLI::Range(std::size_t{1}, kMaxConnections / 2));
    app.add_option("--window", options.window, "Messages in flight per pair (tput)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{65536}));
    app.add_option("--size", options.messageBytes, "Bytes per message")
        ->check(CLI::Range(std::size_t{0}, std::size_t{131072}));
    app.add_option("--idle", options.idle, "Connections in silent pairs (tput, lat)")->check(connections);
    app.add_option("--waiting", options.waiting, "Connections without a partner (conn)")->check(connections);
}

// Thousands of connections need as many descriptors.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace zenk_bench

int main(int argc, char** argv) {
    using namespace zenk_bench;
    Options options;
    std::string mode;
    CLI::App app{"Load generator for a WebSocket pair relay on the loopback interface"};
    declare(app, options, mode);
    CLI11_PARSE(app, argc, argv);
    try {
        raiseDescriptorLimit();
        std::cout << kModes.at(mode)(options) << std::endl;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_load: %s\n", error.what());
        return 1;
    }
    return 0;
}
