// Preloaded: the wall clock goes back and forth by an hour with every second. The steady clocks stay as they are, and
// time() as well, which is too coarse to measure with.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (clock == CLOCK_REALTIME && now->tv_sec % 2 == 1) now->tv_sec -= 3600;
    return static_cast<int>(result);
}

extern "C" int gettimeofday(timeval* now, void*) noexcept {
    timespec exact{};
    const int result = clock_gettime(CLOCK_REALTIME, &exact);
    *now = {exact.tv_sec, exact.tv_nsec / 1000};
    return result;
}
