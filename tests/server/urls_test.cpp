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
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "wsserver/media_sync_server.h"
#include "wsserver/route_table.h"
#include "wsserver/url_token.h"

namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

const std::string kHeader = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n";
const std::string kNumbers = "\t0001A8C0\t00000000\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";

TEST(Tokens, AreTheMd5OfADrawnNumber) {
    EXPECT_EQ(md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    std::srand(7);
    char decimal[17];
    std::snprintf(decimal, sizeof decimal, "%016u", static_cast<unsigned>(std::rand()));
    std::srand(7);
    EXPECT_EQ(randomToken(), md5Hex(decimal));
}

TEST(RouteTable, FirstCompleteLineNamesTheInterface) {
    const struct {
        std::string text;
        std::optional<std::string> name;
    } cases[] = {{"", std::nullopt},
                 {kHeader, ""},
                 {"no newline", ""},
                 {kHeader + "eth0" + kNumbers + "wlan0" + kNumbers, "eth0"},
                 {kHeader + "a-name-of-19-letters" + kNumbers, "s"},
                 {kHeader + "0123456789abcdefghi" + kNumbers, "0123456789abcdefghi"},
                 // The first line lacks columns: "wlan0" stops it, and is read on as a name of its own.
                 {kHeader + "eth0\t1\t2\nwlan0" + kNumbers, "wlan0"},
                 // A short line takes the missing columns from the next one, whose rest is no route.
                 {kHeader + "eth0\t1\t2\t3\t4\t5\t6\t7\t8\t9\nabc" + kNumbers, "abc"},
                 {kHeader + "eth0\t1\t2\t3\t4\t5\t6\n7\t8\t9\t10\n", "eth0"},
                 {kHeader + "x y z\n\n\n! ! !", ""}};
    for (const auto& [text, name] : cases) {
        const File table(
            text.empty() ? std::fopen("/dev/null", "r") : fmemopen(const_cast<char*>(text.data()), text.size(), "r"),
            std::fclose);
        EXPECT_EQ(firstRouteInterface(table.get()), name) << text;
    }

    cookie_io_functions_t breaksAfterTheHeader = {};
    breaksAfterTheHeader.read = [](void* cookie, char* buffer, std::size_t size) -> ssize_t {
        if (std::exchange(*static_cast<bool*>(cookie), true)) return -1;
        return static_cast<ssize_t>(kHeader.copy(buffer, size));
    };
    bool isBroken = false;
    const File table(fopencookie(&isBroken, "r", breaksAfterTheHeader), std::fclose);
    EXPECT_EQ(firstRouteInterface(table.get()), "") << "a read error is the end";
}

/// The interface "lo" of a fresh network namespace, and a route table that the test writes.
class Machine {
public:
    static bool enter() {
        return ::unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 && ::mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0 &&
               ::mount("tmpfs", "/proc/self/net", "tmpfs", 0, "") == 0;
    }
    static void setRoutes(const std::string& text) { std::ofstream("/proc/self/net/route") << text; }
    static void setAddress(const char* interface, const char* address) {
        ifreq request = named(interface);
        sockaddr_in in = {};
        in.sin_family = AF_INET;
        ::inet_pton(AF_INET, address, &in.sin_addr);
        std::memcpy(&request.ifr_addr, &in, sizeof in);
        command(SIOCSIFADDR, request);
    }
    static void rename(const char* interface, const char* name) {
        ifreq request = named(interface);
        std::strcpy(request.ifr_newname, name);
        command(SIOCSIFNAME, request);
    }

private:
    static ifreq named(const char* interface) {
        ifreq request = {};
        std::strcpy(request.ifr_name, interface);
        return request;
    }
    static void command(unsigned long what, ifreq& request) {
        const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_EQ(::ioctl(fd, what, &request), 0) << std::strerror(errno);
        ::close(fd);
    }
};

constexpr int kNotAllowed = 77;

/// Runs `body` in a child that has a machine of its own. @return its exit code
int inOwnMachine(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        if (!Machine::enter()) std::_Exit(kNotAllowed);
        body();
        std::fflush(nullptr);
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

using UrlOperation = void (MediaSyncServer::*)(std::string&);
constexpr UrlOperation kOperations[] = {&MediaSyncServer::getApp2AppLocalBaseUrl,
                                        &MediaSyncServer::getApp2AppRemoteBaseUrl, &MediaSyncServer::getInterDevSyncUrl,
                                        &MediaSyncServer::getCssTsEndpoint};

void expectNoAddress() {
    MediaSyncServer server;
    for (const UrlOperation operation : kOperations) {
        std::string url = "kept";
        (server.*operation)(url);
        EXPECT_EQ(url, "kept");
    }
}

void checkLookups() {
    expectNoAddress();
    for (const std::string& routes : {std::string(), kHeader}) {
        Machine::setRoutes(routes);
        expectNoAddress();
    }
    Machine::setAddress("lo", "192.168.100.200");
    Machine::setRoutes(kHeader + "eth9" + kNumbers + "lo" + kNumbers);
    expectNoAddress();

    Machine::rename("lo", "exactly15chars_");
    Machine::setRoutes(kHeader + "exactly15chars_more" + kNumbers);
    char address[17] = "untouched";
    address[15] = '#';
    EXPECT_EQ(getLocalIpAddr(address, 15), 0);
    EXPECT_STREQ(address, "192.168.100.200#") << "15 characters and no terminator";
    Machine::setAddress("exactly15chars_", "10.0.0.1");
    EXPECT_EQ(getLocalIpAddr(address, 15), 0);
    EXPECT_EQ(std::string(address, 16), std::string("10.0.0.1\0\0\0\0\0\0\0#", 16));
}

void checkUrls() {
    Machine::setRoutes(kHeader + "lo" + kNumbers);
    Machine::setAddress("lo", "10.11.12.13");
    MediaSyncServer server;
    std::time_t seed = 0;
    do {  // the seed is the second of the drawing
        seed = std::time(nullptr);
        MediaSyncServer::createRandom();
    } while (std::time(nullptr) != seed);
    std::srand(static_cast<unsigned>(seed));
    const std::string local = randomToken(), remote = randomToken(), sync = randomToken();

    const std::string expected[] = {"/local/hbbtv/" + local + "/", "/remote/hbbtv/" + remote + "/",
                                    "/css-cii/" + sync + "/", "/css-ts/"};
    for (const int port : {0, 7681}) {
        server.m_port = port;
        for (std::size_t i = 0; i < std::size(kOperations); ++i) {
            std::string url = "replaced";
            (server.*kOperations[i])(url);
            EXPECT_EQ(url, "ws://10.11.12.13:" + std::to_string(port) + expected[i]);
        }
    }
}

TEST(Urls, NeedAnAddressAndJoinTheirPieces) {
    for (const auto check : {checkLookups, checkUrls}) {
        const int code = inOwnMachine(check);
        if (code == kNotAllowed) GTEST_SKIP() << "this machine gives no network namespace to a test";
        EXPECT_EQ(code, 0);
    }
}

}  // namespace
