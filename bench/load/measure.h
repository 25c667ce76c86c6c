// Clocks, and the server's own accounts in /proc.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "bench/load/options.h"

namespace zenk_bench {

/// Monotonic time in nanoseconds.
std::uint64_t nowNs();

/// CPU seconds that the server has used, over all its living threads, from the scheduler's accounting. Time spent
/// waiting for a processor is not in it, which is why it can be trusted on a busy machine. 0 without a process id.
/// @throws std::runtime_error when the process has gone or the kernel keeps no such account
double serverCpuSeconds(pid_t pid);

/// Resident bytes of the server once they have stopped changing (looked at for 3 seconds at most).
std::uint64_t settledResidentBytes(pid_t pid);

/// The interval that is measured: begins after the warm-up, ends after the given seconds.
class Interval {
public:
    Interval(pid_t pid, double warmupSeconds, double seconds);

    /// Looks at the clock; true when the interval has ended. `count` is what has been done so far in this run.
    bool isOver(std::uint64_t now, std::uint64_t count);
    bool hasBegun() const { return m_beginNs != 0; }

    double done() const { return m_done; }
    double perSecond() const { return m_done / m_elapsedSeconds; }
    double serverMicrosecondsPer(double units) const { return units > 0 ? m_serverSeconds * 1e6 / units : 0; }

    /// How busy the server and this process were, in percent of one processor: tells who was the bottleneck.
    void addShares(Report& report) const;

private:
    void begin(std::uint64_t now, std::uint64_t count);
    void end(std::uint64_t now, std::uint64_t count);

    pid_t m_pid;
    std::uint64_t m_dueNs;
    std::uint64_t m_lengthNs;
    std::uint64_t m_beginNs = 0;
    std::uint64_t m_countAtBegin = 0;
    double m_serverSeconds = 0;
    double m_loadSeconds = 0;
    double m_elapsedSeconds = 0;
    double m_done = 0;
};

/// The value at `share` (0 to 1) of the sorted values, in microseconds; reorders the values. 0 for none.
double percentileUs(std::vector<std::uint32_t>& valuesNs, double share);

}  // namespace zenk_bench
