// The wall-clock server over any datagrams. Its loop runs here: receiving gives the next piece of the input, sending
// is compared with what the reply must be, byte for byte.
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include "tests/fuzz/fuzz_input.h"
#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

using zenk_test::FuzzInput;
using zenk_test::require;

constexpr std::size_t kBufferBytes = 128;
constexpr std::size_t kReplyBytes = 32;
constexpr in_port_t kSenderPort = 4711;
constexpr std::string_view kWakeWord = "quitwc";

/// What one run of the server has seen.
struct Run {
    FuzzInput input{nullptr, 0};
    std::array<char, kBufferBytes + 1> received{};  // never cleared, as the server's own
    int maxFreqError = 0;
    int owedReplies = 0;
    bool isStopping = false;
    bool hasQuit = false;
} g_run;

ZenkCSSWCServer& server() {
    static std::string port = "0";
    static ZenkCSSWCServer server(port);
    return server;
}

std::uint32_t word(const char* bytes) {
    std::uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return ntohl(value);
}

void checkReply(const char* reply) {
    const char* const request = g_run.received.data();
    require(reply[0] == request[0] && reply[3] == request[3], "version or reserved byte not copied");
    require(reply[1] == 1, "not a response");
    require(word(reply + 4) == static_cast<std::uint32_t>(g_run.maxFreqError), "wrong frequency error");
    require(std::memcmp(reply + 8, request + 8, 8) == 0, "originate time not copied");
    require(word(reply + 20) < 1'000'000'000 && word(reply + 28) < 1'000'000'000, "a second of nanoseconds and more");
    require(word(reply + 24) + 1 >= word(reply + 16), "sent before it was received");
}

}  // namespace

// In the place of the system's, for the library's calls only.
extern "C" {

ssize_t __wrap_recvmsg(int, msghdr* request, int);
ssize_t __wrap_sendmsg(int, const msghdr* reply, int);
ssize_t __wrap_sendto(int, const void*, std::size_t, int, const sockaddr*, socklen_t);

ssize_t __wrap_recvmsg(int, msghdr* request, int) {
    const iovec& buffer = request->msg_iov[0];
    require(buffer.iov_len == kBufferBytes && request->msg_namelen >= sizeof(sockaddr_in), "the buffers have changed");
    require(g_run.owedReplies == 0 && !g_run.hasQuit, "a request was not answered");
    std::string_view datagram = kWakeWord;
    if (g_run.input.isEmpty()) {
        g_run.isStopping = true;
        server().stopWCServer();
    } else {
        datagram = g_run.input.bytes(g_run.input.byte()).substr(0, buffer.iov_len);
    }
    std::memcpy(buffer.iov_base, datagram.data(), datagram.size());
    std::memcpy(g_run.received.data(), datagram.data(), datagram.size());
    g_run.hasQuit = g_run.received.data() == kWakeWord;
    g_run.owedReplies = g_run.hasQuit ? 0 : 1;

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = kSenderPort;
    std::memcpy(request->msg_name, &address, sizeof address);
    request->msg_namelen = sizeof address;
    request->msg_controllen = 0;
    return static_cast<ssize_t>(datagram.size());
}

ssize_t __wrap_sendmsg(int, const msghdr* reply, int) {
    require(static_cast<const sockaddr_in*>(reply->msg_name)->sin_port == kSenderPort, "a reply went elsewhere");
    require(reply->msg_iov[0].iov_len == kReplyBytes, "a reply of another length");
    require(g_run.owedReplies-- == 1, "more replies than requests");
    checkReply(static_cast<const char*>(reply->msg_iov[0].iov_base));
    return kReplyBytes;
}

ssize_t __wrap_sendto(int, const void* data, std::size_t size, int, const sockaddr*, socklen_t) {
    require(g_run.isStopping && std::string_view(static_cast<const char*>(data), size) == kWakeWord, "no wake word");
    return static_cast<ssize_t>(size);
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static ZenkWallClock clock;
    g_run = Run();
    g_run.input = FuzzInput(data, size);
    clock.Initialize(static_cast<ZenkWallClockType>(g_run.input.below(4)));
    g_run.maxFreqError = clock.GetMaxFreqError();
    server().m_enableInterDevSync = 1;
    server().startWCServer();
    require(g_run.hasQuit || g_run.isStopping, "the server ended by itself");
    require(g_run.owedReplies == 0, "the last request was not answered");
    return 0;
}
