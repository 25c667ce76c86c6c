// The log's control channel: the body of its thread runs here, and its socket and its clock are ours.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tests/fuzz/module_table_model.h"

namespace {

using zenk_test::FuzzInput;
using zenk_test::require;

constexpr std::size_t kCommandBytes = 1025;
constexpr int kSocket = 1000;

struct EndOfInput {};  // leaves the endless cycle

void* (*g_body)(void*) = nullptr;
FuzzInput g_input(nullptr, 0);
zenk_test::ModuleTableModel g_model;

void obey(const std::string& command) {
    require(std::memcmp(g_modules_info, command.data(), kCommandBytes) == 0, "the command was not kept as it came");
    const std::string text(command.c_str(), strnlen(command.c_str(), kCommandBytes - 1));
    if (text == "__CLIEAR_LOG_MODULES__") {
        g_model.clear();
    } else {
        g_model.insert(text, static_cast<unsigned char>(command.back()));
    }
}

thread_local bool t_isPlaying = false;  // libFuzzer has a thread that sleeps too
std::string g_pending;                  // the command of this cycle, whole; empty for none

}  // namespace

// In the place of the system's.
extern "C" {

int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*body)(void*), void*);
int __wrap_socket(int, int, int);
ssize_t __wrap_sendto(int, const void*, std::size_t, int, const sockaddr*, socklen_t);
ssize_t __wrap_recvfrom(int, void*, std::size_t, int, sockaddr*, socklen_t*);
unsigned __wrap_sleep(unsigned);
unsigned __real_sleep(unsigned);

int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*body)(void*), void*) {
    g_body = body;
    return 0;
}

int __wrap_socket(int, int, int) {
    return kSocket;
}

ssize_t __wrap_sendto(int fd, const void* data, std::size_t size, int, const sockaddr* to, socklen_t) {
    if (!g_pending.empty()) obey(g_pending);
    g_pending.clear();
    const auto* const peer = reinterpret_cast<const sockaddr_in*>(to);
    require(fd == kSocket && peer->sin_port == htons(54321) && peer->sin_addr.s_addr == htonl(INADDR_LOOPBACK),
            "a report went elsewhere");
    require(std::string_view(static_cast<const char*>(data), size) == g_model.report(), "wrong report on the wire");
    g_model.compare();
    return static_cast<ssize_t>(size);
}

unsigned __wrap_sleep(unsigned seconds) {
    if (!t_isPlaying) return __real_sleep(seconds);
    if (g_input.isEmpty()) throw EndOfInput();
    return 0;
}

ssize_t __wrap_recvfrom(int, void* buffer, std::size_t room, int, sockaddr*, socklen_t*) {
    // A set bit makes a datagram of full length out of a short piece: the last byte is the level.
    const unsigned shape = g_input.byte();
    std::string datagram(g_input.piece(kCommandBytes + 10));
    if ((shape & 1) != 0) {
        datagram.resize(kCommandBytes - 1);
        datagram.push_back(static_cast<char>(shape >> 1));
    }
    const std::size_t taken = std::min(room, datagram.size());
    std::memcpy(buffer, datagram.data(), taken);
    if (taken == 0 && (shape & 2) != 0) {
        errno = EAGAIN;
        return -1;
    }
    if (taken != 0) {
        g_pending = datagram;
        g_pending.resize(kCommandBytes);
    }
    return static_cast<ssize_t>(taken);
}

}  // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    t_isPlaying = true;
    if (g_body == nullptr) zenk_log_initialize(1);
    g_input = FuzzInput(data, size);
    g_pending.clear();
    g_model.clear();
    clear_modules_list();
    try {
        g_body(nullptr);
    } catch (const EndOfInput&) {
    }
    return 0;
}
