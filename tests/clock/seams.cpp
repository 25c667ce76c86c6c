#include "tests/clock/seams.h"

#include <deque>
#include <mutex>
#include <utility>

namespace {

std::mutex g_mutex;                         // guards all below
auto& g_reads = *new std::deque<timespec>;  // never destroyed: detached threads read the clock until the very end
clockid_t g_lastClock = -1;

}  // namespace

namespace seams {

void scriptReads(std::vector<timespec> reads) {
    std::lock_guard lock(g_mutex);
    g_reads.assign(reads.begin(), reads.end());
}

std::size_t readsLeft() {
    std::lock_guard lock(g_mutex);
    return g_reads.size();
}

clockid_t takeLastClock() {
    std::lock_guard lock(g_mutex);
    return std::exchange(g_lastClock, -1);
}

}  // namespace seams

extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now);

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    std::lock_guard lock(g_mutex);
    g_lastClock = clock;
    if (g_reads.empty()) return __real_clock_gettime(clock, now);
    *now = g_reads.front();
    g_reads.pop_front();
    return 0;
}

}  // extern "C"
