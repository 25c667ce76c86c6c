// What a log call costs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "bench/micro/output.h"
#include "log/zenk_log.h"

namespace {

constexpr char kFile[] = "wsserver/media_sync_server.cpp";
constexpr char kText[] = "ws://127.0.0.1:7681/local/hbbtv/0123456789";
constexpr int kModules = 20;

void trace(const char* module) {
    zenk_log_print(LOG_TYPE_STRING, module, kFile, "onFilterConnection", 321, "requrl", kText);
}

// A full table has twenty entries that all share their first letters, the printed module among them.
void beginOnce(const benchmark::State& state, bool isTableFull) {
    if (state.thread_index() != 0) return;
    clear_modules_list();
    for (int i = 1; isTableFull && i < kModules; ++i) insert_modules_list(("PLUGIN_" + std::to_string(i)).c_str(), 2);
    if (isTableFull) insert_modules_list("PLUGIN", 1);
    zenk_bench::emptyOutput();
}

void logSilentWithEmptyTable(benchmark::State& state) {
    beginOnce(state, false);
    for (auto _ : state) trace("PLUGIN");
}

// The module is not in the table, so that all of it is read.
void logSilentWithFullTable(benchmark::State& state) {
    beginOnce(state, true);
    for (auto _ : state) trace("PLUGIN_21");
}

// The line that a receiver prints at the default levels, one for each relayed message.
void logPrinted(benchmark::State& state) {
    beginOnce(state, false);
    for (auto _ : state) zenk_log_print(LOG_TYPE_ERROR, "PLUGIN", kFile, "onMessage", 321, nullptr, nullptr);
}

// A trace line with a text.
void logPrintedText(benchmark::State& state) {
    beginOnce(state, true);
    for (auto _ : state) trace("PLUGIN");
}

BENCHMARK(logSilentWithEmptyTable)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(logSilentWithFullTable)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(logPrinted)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(logPrintedText)->ThreadRange(1, 4)->UseRealTime();

}  // namespace
