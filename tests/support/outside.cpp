#include "tests/support/outside.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {

std::FILE* __real_fopen(const char* path, const char* mode);
int __real_socket(int family, int type, int protocol);
ssize_t __real_recvmsg(int fd, msghdr* datagram, int flags);

std::FILE* __wrap_fopen(const char* path, const char* mode) {
    if (std::strcmp(path, "/proc/net/route") != 0) return __real_fopen(path, mode);
    if (!outside::routes) return nullptr;
    if (outside::routes->empty()) return __real_fopen("/dev/null", mode);
    return fmemopen(outside::routes->data(), outside::routes->size(), "r");
}

int __wrap_socket(int family, int type, int protocol) {
    if (!outside::noSockets) return __real_socket(family, type, protocol);
    errno = EMFILE;
    return -1;
}

int __wrap_ioctl(int /*fd*/, unsigned long request, ifreq* interface) {
    sockaddr_in address{};
    if (request != SIOCGIFADDR || interface->ifr_addr.sa_family != AF_INET) return -1;
    if (inet_pton(AF_INET, outside::address.c_str(), &address.sin_addr) != 1) return -1;
    std::memcpy(&interface->ifr_addr, &address, sizeof address);
    return 0;
}

ssize_t __wrap_recvmsg(int fd, msghdr* datagram, int flags) {
    ++outside::receives;
    if (!outside::receiveFails) return __real_recvmsg(fd, datagram, flags);
    errno = EIO;
    return -1;
}

}  // extern "C"
