#pragma once

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

/// Moves the calling thread, and what it starts from now on, to a network of its own with nothing but a loopback
/// interface. Where that is not allowed the tests stay on the machine's, under CTest's resource lock.
inline void enterOwnNetwork() {
    if (unshare(CLONE_NEWNET) != 0) return;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    ioctl(fd, SIOCSIFFLAGS, &request);
    close(fd);
}
