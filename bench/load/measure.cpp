#include "bench/load/measure.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace zenk_bench {
namespace {

double ownCpuSeconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

std::string procFile(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// The exact count of pages: the figure in "status" lags behind by up to some dozen pages per processor.
std::uint64_t residentBytes(pid_t pid) {
    std::ifstream file(procFile(pid, "smaps_rollup"));
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind("Rss:", 0) == 0) return std::stoull(line.substr(4)) * 1024;
    }
    throw std::runtime_error("cannot read the server's resident memory");
}

}  // namespace

std::uint64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(now.tv_nsec);
}

double serverCpuSeconds(pid_t pid) {
    if (pid == 0) return 0;
    std::uint64_t totalNs = 0;
    bool found = false;
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator(procFile(pid, "task"), gone)) {
        std::ifstream file(task.path() / "schedstat");
        std::uint64_t ranNs = 0;
        if (!(file >> ranNs)) continue;  // a thread that has just ended
        totalNs += ranNs;
        found = true;
    }
    if (gone || !found) throw std::runtime_error("cannot read the server's CPU time");
    return static_cast<double>(totalNs) / 1e9;
}

std::uint64_t settledResidentBytes(pid_t pid) {
    constexpr int kLooks = 30;
    constexpr int kQuietLooks = 4;
    std::uint64_t last = residentBytes(pid);
    int quiet = 0;
    for (int i = 0; i < kLooks && quiet < kQuietLooks; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const std::uint64_t now = residentBytes(pid);
        quiet = now == last ? quiet + 1 : 0;
        last = now;
    }
    return last;
}

Interval::Interval(pid_t pid, double warmupSeconds, double seconds)
    : m_pid(pid),
      m_dueNs(nowNs() + static_cast<std::uint64_t>(warmupSeconds * 1e9)),
      m_lengthNs(static_cast<std::uint64_t>(seconds * 1e9)) {
}

bool Interval::isOver(std::uint64_t now, std::uint64_t count) {
    if (now < m_dueNs) return false;
    if (!hasBegun()) {
        begin(now, count);
        return false;
    }
    end(now, count);
    return true;
}

void Interval::begin(std::uint64_t now, std::uint64_t count) {
    m_beginNs = now;
    m_dueNs = now + m_lengthNs;
    m_countAtBegin = count;
    m_serverSeconds = serverCpuSeconds(m_pid);
    m_loadSeconds = ownCpuSeconds();
}

void Interval::end(std::uint64_t now, std::uint64_t count) {
    m_serverSeconds = serverCpuSeconds(m_pid) - m_serverSeconds;
    m_loadSeconds = ownCpuSeconds() - m_loadSeconds;
    m_elapsedSeconds = static_cast<double>(now - m_beginNs) / 1e9;
    m_done = static_cast<double>(count - m_countAtBegin);
    if (m_done == 0) throw std::runtime_error("nothing was done in the measured time");
}

void Interval::addShares(Report& report) const {
    report["server_cpu_pct"] = 100 * m_serverSeconds / m_elapsedSeconds;
    report["load_cpu_pct"] = 100 * m_loadSeconds / m_elapsedSeconds;
}

double percentileUs(std::vector<std::uint32_t>& valuesNs, double share) {
    if (valuesNs.empty()) return 0;
    const auto rank = static_cast<std::size_t>(share * static_cast<double>(valuesNs.size()));
    const auto nth = valuesNs.begin() + static_cast<std::ptrdiff_t>(std::min(rank, valuesNs.size() - 1));
    std::nth_element(valuesNs.begin(), nth, valuesNs.end());
    return *nth / 1000.0;
}

}  // namespace zenk_bench
