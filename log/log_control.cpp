#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "log/zenk_log.h"

char g_modules_info[1025] = {};  // the control thread's alone

namespace {

constexpr std::uint16_t kPeerPort = 54321;
constexpr std::size_t kTextBytes = 1024;  // the level byte follows
constexpr std::size_t kDatagramBytes = kTextBytes + 1;
static_assert(sizeof g_modules_info == kDatagramBytes);
constexpr std::string_view kClearWord = "__CLIEAR_LOG_MODULES__";  // the spelling is the protocol's

std::atomic<pid_t> g_controlledProcess{0};  // the process that has a control thread; a forked child has none

void sendReport(int fd) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(kPeerPort);
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    char report[kDatagramBytes] = {};
    get_modules_list(report);
    // Nobody may listen, and a full socket loses one report of many.
    sendto(fd, report, std::strlen(report), 0, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
}

// False if nothing waits, or nothing but an empty datagram.
bool receiveCommand(int fd) {
    char command[kDatagramBytes] = {};
    if (recvfrom(fd, command, sizeof command, MSG_DONTWAIT, nullptr, nullptr) <= 0) return false;
    std::copy(std::begin(command), std::end(command), g_modules_info);
    return true;
}

void obeyCommand() {
    // A text field without a zero byte ends where the level byte stands.
    char modules[kDatagramBytes] = {};
    std::copy_n(g_modules_info, kTextBytes, modules);
    if (modules == kClearWord) {
        clear_modules_list();
    } else {
        insert_modules_list(modules, static_cast<std::uint8_t>(g_modules_info[kTextBytes]));
    }
}

// For ever: reports once a second and takes at most one command each time. Without a socket every call fails and the
// cycle goes on.
void* logControlThread(void*) {
    pthread_setname_np(pthread_self(), "zenk-log");
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (;;) {
        sendReport(fd);
        sleep(1);
        if (receiveCommand(fd)) obeyCommand();
    }
}

int startDetached(void* (*body)(void*)) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int result = pthread_create(&thread, &attributes, body, nullptr);
    pthread_attr_destroy(&attributes);
    return result;
}

// A thread inherits its creator's mask: with all signals blocked from its first instruction, the host's handlers run on
// the host's threads.
int startWithSignalsBlocked(void* (*body)(void*)) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int result = startDetached(body);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

}  // namespace

int zenk_log_initialize(int mode) {
    if (mode == 0) return 0;
    if (mode != 1) return -1;
    if (g_controlledProcess.exchange(getpid()) == getpid()) return 0;
    // The log works without its channel, so a failure is no failure of the host's; it may try again.
    if (startWithSignalsBlocked(logControlThread) != 0) g_controlledProcess = 0;
    return 0;
}

int zenk_log_finalize(int mode) {
    return mode == 0 || mode == 1 ? 0 : -1;
}
