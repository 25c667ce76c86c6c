#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

/// The system calls whose failures have exits of their own, in the test's hand through the linker's wrap.
namespace outside {

inline std::atomic<bool> noSockets = false;             ///< socket() fails
inline std::atomic<bool> receiveFails = false;          ///< recvmsg() fails
inline std::atomic<int> receives = 0;                   ///< how often it was called
inline auto& routes = *new std::optional<std::string>;  ///< the route table; none: it cannot be opened
inline auto& address = *new std::string;  ///< of every interface; empty: there is none. Test's thread only

}  // namespace outside

extern "C" {

std::FILE* __real_fopen(const char* path, const char* mode);
int __real_socket(int family, int type, int protocol);
ssize_t __real_recvmsg(int fd, msghdr* datagram, int flags);

std::FILE* __wrap_fopen(const char* path, const char* mode) {
    if (std::strcmp(path, "/proc/net/route") != 0) return __real_fopen(path, mode);
    return outside::routes ? fmemopen(outside::routes->data(), outside::routes->size(), "r") : nullptr;
}

int __wrap_socket(int family, int type, int protocol) {
    if (!outside::noSockets) return __real_socket(family, type, protocol);
    errno = EMFILE;
    return -1;
}

int __wrap_ioctl(int /*fd*/, unsigned long request, ifreq* interface) {
    if (request != SIOCGIFADDR || interface->ifr_addr.sa_family != AF_INET || outside::address.empty()) return -1;
    const sockaddr_in address{AF_INET, 0, {inet_addr(outside::address.c_str())}, {}};
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
