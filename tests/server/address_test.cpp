// The whole look-up of the receiver's address against the system, in a network that the test makes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "wsserver/media_sync_server.h"

namespace {

constexpr int kNotAllowed = 77;

bool enterOwnNetwork() {
    return ::unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 && ::mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0 &&
           ::mount("tmpfs", "/proc/self/net", "tmpfs", 0, "") == 0;
}

void setRoutesOver(const std::string& interfaces) {
    std::ofstream table("/proc/self/net/route");
    table << "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n";
    if (!interfaces.empty()) table << interfaces << "\t0001A8C0\t00000000\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
}

ifreq named(const char* interface) {
    ifreq request = {};
    std::strcpy(request.ifr_name, interface);
    return request;
}

void command(unsigned long what, ifreq request) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(::ioctl(fd, what, &request), 0) << std::strerror(errno);
    ::close(fd);
}

void setAddress(const char* interface, const char* address) {
    ifreq request = named(interface);
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    ::inet_pton(AF_INET, address, &in.sin_addr);
    std::memcpy(&request.ifr_addr, &in, sizeof in);
    command(SIOCSIFADDR, request);
}

void checkLookUps() {
    char address[17] = "untouched";
    address[15] = '#';
    EXPECT_LT(getLocalIpAddr(address, 15), 0) << "no table";
    setRoutesOver("");
    EXPECT_LT(getLocalIpAddr(address, 15), 0) << "no route";
    setRoutesOver("eth9");
    EXPECT_LT(getLocalIpAddr(address, 15), 0) << "no such interface";
    EXPECT_STREQ(address, "untouched");

    ifreq renaming = named("lo");
    std::strcpy(renaming.ifr_newname, "exactly15chars_");
    command(SIOCSIFNAME, renaming);
    setRoutesOver("exactly15chars_more");
    EXPECT_LT(getLocalIpAddr(address, 15), 0) << "no address";
    setAddress("exactly15chars_", "192.168.100.200");
    EXPECT_EQ(getLocalIpAddr(address, 15), 0);
    EXPECT_STREQ(address, "192.168.100.200#") << "15 characters and no terminator";
    setAddress("exactly15chars_", "10.0.0.1");
    EXPECT_EQ(getLocalIpAddr(address, 15), 0);
    EXPECT_EQ(std::string(address, 16), std::string("10.0.0.1\0\0\0\0\0\0\0#", 16));
}

TEST(Address, NeedsARouteAnInterfaceAndItsAddress) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        if (!enterOwnNetwork()) std::_Exit(kNotAllowed);
        checkLookUps();
        std::fflush(nullptr);
        std::_Exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotAllowed) GTEST_SKIP() << "this machine gives a test no network";
    EXPECT_EQ(status, 0);
}

}  // namespace
