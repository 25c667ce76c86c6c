// The benchmarks of single parts. Standard output is what a receiver logs to, so it goes to a file that vanishes with
// the process, and the results go to standard error and to --benchmark_out.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace {

bool divertOutput() {
    std::FILE* const file = std::tmpfile();
    return file != nullptr && dup2(fileno(file), STDOUT_FILENO) >= 0;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) || !divertOutput()) return 2;
    benchmark::ConsoleReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
