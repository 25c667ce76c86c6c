// Preloaded: the wall clock goes back and forth by an hour with every second; the steady clocks stay as they are.
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && clock == CLOCK_REALTIME && now->tv_sec % 2 == 1) now->tv_sec -= 3600;
    return static_cast<int>(result);
}

int gettimeofday(timeval* now, void*) noexcept {
    timespec exact;
    const int result = clock_gettime(CLOCK_REALTIME, &exact);
    *now = {exact.tv_sec, exact.tv_nsec / 1000};
    return result;
}

time_t time(time_t* place) noexcept {
    timespec exact;
    clock_gettime(CLOCK_REALTIME, &exact);
    if (place != nullptr) *place = exact.tv_sec;
    return exact.tv_sec;
}
}
