// What a log call costs, with spdlog's synchronous logger beside it where it is installed. The printed lines of both
// go to files in the current directory; the results go to standard error, since standard output is measured.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "log/zenk_log.h"

#ifdef ZENK_BENCH_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

constexpr char kFile[] = "wsserver/media_sync_server.cpp";
constexpr char kText[] = "ws://127.0.0.1:7681/local/hbbtv/0123456789";
constexpr int kModules = 20;
constexpr char kOutput[] = "log_bench.zenk.out";
constexpr char kSpdlogOutput[] = "log_bench.spdlog.out";

void trace(const char* module) {
    zenk_log_print(LOG_TYPE_STRING, module, kFile, "onFilterConnection", 321, "requrl", kText);
}

void onlyOnce(const benchmark::State& state, void (*action)()) {
    if (state.thread_index() == 0) action();
}

void emptyTable() {
    clear_modules_list();
}

// Twenty entries that all share their first letters, the printed module among them.
void fullTable() {
    clear_modules_list();
    for (int i = 1; i < kModules; ++i) insert_modules_list(("PLUGIN_" + std::to_string(i)).c_str(), 2);
    insert_modules_list("PLUGIN", 1);
}

void silentWithEmptyTable(benchmark::State& state) {
    onlyOnce(state, emptyTable);
    for (auto _ : state) trace("PLUGIN");
}

// The module is not in the table, so that all of it is read.
void silentWithFullTable(benchmark::State& state) {
    onlyOnce(state, fullTable);
    for (auto _ : state) trace("PLUGIN_21");
}

void emptyOutput() {
    [[maybe_unused]] const int result = ftruncate(STDOUT_FILENO, 0);
}

// The line that a receiver prints at the default levels, one for each relayed message.
void printedToFile(benchmark::State& state) {
    onlyOnce(state, [] {
        emptyTable();
        emptyOutput();
    });
    for (auto _ : state) zenk_log_print(LOG_TYPE_ERROR, "PLUGIN", kFile, "onMessage", 321, nullptr, nullptr);
}

// A trace line with a text, beside spdlog's line of the same pattern.
void printedTextToFile(benchmark::State& state) {
    onlyOnce(state, [] {
        fullTable();
        emptyOutput();
    });
    for (auto _ : state) trace("PLUGIN");
}

BENCHMARK(silentWithEmptyTable)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(silentWithFullTable)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(printedToFile)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(printedTextToFile)->ThreadRange(1, 4)->UseRealTime();

#ifdef ZENK_BENCH_SPDLOG
spdlog::logger& spdlogLogger() {
    static const auto logger = [] {
        auto made = spdlog::basic_logger_mt("PLUGIN", kSpdlogOutput, true);
        made->set_pattern(
            "\033[32mtime=%d/%m/%Y %H:%M:%S,timestamp=%E,pid=%P,tid=%t,logtype=%l File:%s Function: %!(), "
            "line: %#, %v\n\033[0m",
            spdlog::pattern_time_type::local);
        return made;
    }();
    return *logger;
}

void spdlogTrace() {
    spdlogLogger().log(spdlog::source_loc{kFile, 321, "onFilterConnection"}, spdlog::level::info, "{}:{}", "requrl",
                       kText);
}

void spdlogSilent(benchmark::State& state) {
    onlyOnce(state, [] { spdlogLogger().set_level(spdlog::level::err); });
    for (auto _ : state) spdlogTrace();
}

void spdlogPrintedToFile(benchmark::State& state) {
    onlyOnce(state, [] { spdlogLogger().set_level(spdlog::level::info); });
    for (auto _ : state) spdlogTrace();
}

BENCHMARK(spdlogSilent)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(spdlogPrintedToFile)->ThreadRange(1, 4)->UseRealTime();
#endif

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    if (std::freopen(kOutput, "w", stdout) == nullptr) return 1;
    benchmark::ConsoleReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fclose(stdout);
    unlink(kOutput);
    unlink(kSpdlogOutput);
    return 0;
}
