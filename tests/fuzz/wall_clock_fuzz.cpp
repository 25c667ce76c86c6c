// The wall-clock server over any datagrams. Its loop runs here: receiving gives the next piece of the input, and each
// but the one that ends the server gets one answer.
#undef NDEBUG
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>

#include <cassert>
#include <cstring>
#include <string>

#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"

static FuzzedDataProvider* g_input = nullptr;
static bool g_isReplyOwed = false;

extern "C" {

ssize_t __wrap_recvmsg(int, msghdr* request, int) {
    assert(!g_isReplyOwed);
    char* const buffer = static_cast<char*>(request->msg_iov[0].iov_base);
    std::string datagram("quitwc", 7);
    if (g_input->remaining_bytes() > 0) datagram = g_input->ConsumeRandomLengthString(200);
    const std::size_t taken = datagram.copy(buffer, request->msg_iov[0].iov_len);
    g_isReplyOwed = std::strncmp(buffer, "quitwc", 7) != 0;
    return static_cast<ssize_t>(taken);
}
ssize_t __wrap_sendmsg(int, const msghdr* reply, int) {
    assert(g_isReplyOwed && reply->msg_iov[0].iov_len == 32);
    g_isReplyOwed = false;
    return 32;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static ZenkWallClock clock;
    static std::string port = "0";
    static ZenkCSSWCServer server(port);
    FuzzedDataProvider input(data, size);
    g_input = &input;
    clock.Initialize(static_cast<ZenkWallClockType>(input.ConsumeIntegralInRange(0, 3)));
    server.m_enableInterDevSync = 1;
    server.startWCServer();
    return 0;
}

}  // extern "C"
