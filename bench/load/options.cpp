#include "bench/load/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <map>

namespace zenk_bench {
namespace {

// Bounds keep a slip of the finger from exhausting the ports or the patience of the machine.
constexpr std::size_t kMaxConnections = 9000;
constexpr double kMaxSeconds = 60;

const std::map<std::string, Mode> kModes = {{"tput", Mode::throughput},
                                            {"lat", Mode::latency},
                                            {"conn", Mode::connections},
                                            {"mem", Mode::memory},
                                            {"check", Mode::check}};

void declare(CLI::App& app, Options& options) {
    app.add_option("--mode", options.mode, "tput, lat, conn, mem or check")
        ->required()
        ->transform(CLI::CheckedTransformer(kModes));
    app.add_option("--port", options.port, "Port of the relay on 127.0.0.1")->required();
    app.add_option("--pid", options.serverPid, "Process of the relay, for its CPU time and memory")
        ->check(CLI::PositiveNumber);
    app.add_option("--time", options.seconds, "Seconds of measuring")->check(CLI::Range(0.05, kMaxSeconds));
    app.add_option("--pairs", options.pairs, "Busy pairs")->check(CLI::Range(std::size_t{1}, kMaxConnections / 2));
    app.add_option("--window", options.window, "Messages in flight per pair (tput)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{65536}));
    app.add_option("--size", options.messageBytes, "Bytes per message")
        ->check(CLI::Range(std::size_t{0}, std::size_t{131072}));
    app.add_option("--idle", options.idle, "Connections in silent pairs (tput, lat)")
        ->check(CLI::Range(std::size_t{0}, kMaxConnections));
    app.add_option("--waiting", options.waiting, "Connections without a partner (conn)")
        ->check(CLI::Range(std::size_t{0}, kMaxConnections));
    app.add_option("--conc", options.concurrency, "Handshakes under way at once (conn)")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1000}));
    app.add_option("--connections", options.connections, "Connections to open (mem)")
        ->check(CLI::Range(std::size_t{2}, kMaxConnections));
}

}  // namespace

Options parseOptions(int argc, char** argv) {
    Options options;
    CLI::App app{"Load generator for a WebSocket pair relay on the loopback interface"};
    declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
    return options;
}

}  // namespace zenk_bench
