#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "platform/socket.h"

/// What a test has around it: time, threads, memory, and the ports of 127.0.0.1.
namespace zenk_test {

/// Under a sanitizer memory figures say nothing of the library, and everything takes longer.
inline constexpr bool kIsSanitized = ZENK_IS_SANITIZED;

using Milliseconds = std::chrono::milliseconds;

/// Long enough for a loaded two-core machine under a sanitizer; a test that passes never waits for it.
inline constexpr Milliseconds kPatience{20000};

/// Calls `predicate` until it holds. @return false when it did not within `patience`
template <typename Predicate>
bool waitUntil(const Predicate& predicate, Milliseconds patience = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(Milliseconds(1));
    }
    return true;
}

/// Waits until the process has so many event threads.
inline bool waitForEventThreads(int count) {
    const auto isOne = [](const auto& task) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        return name == "zenk-css-event";
    };
    const std::filesystem::path tasks = "/proc/self/task";
    return waitUntil([&] { return std::ranges::count_if(std::filesystem::directory_iterator(tasks), isOne) == count; });
}

/// Lets one allocation of one thread (by new, or a mapping) fail: the one behind the next `count` ones. One failure can
/// be under way at a time. For programs with zenk_failing_allocations.
void failAllocationOf(pthread_t thread, long count);
/// Lets all allocations succeed again. @return whether one has failed
bool stopFailing();

/// connect() or bind() with that port, whatever signal comes meanwhile: a fuzzer's alarm does. @return whether it went
/// well
inline bool attach(decltype(::connect)* how, const zenk::Socket& socket, int port) {
    const sockaddr_in address{AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    return TEMP_FAILURE_RETRY(how(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address)) == 0;
}

/// @return a port that was free for TCP and UDP a moment ago. It lies below the range from which the system takes the
/// ports of outgoing connections, so that none of those can grab it in between.
inline int freePort() {
    const auto isFree = [](int port, int type) { return attach(::bind, zenk::Socket(type), port); };
    for (std::random_device random;;) {
        const int port = std::uniform_int_distribution(10'000, 32'000)(random);
        if (isFree(port, SOCK_STREAM) && isFree(port, SOCK_DGRAM)) return port;
    }
}

}  // namespace zenk_test
