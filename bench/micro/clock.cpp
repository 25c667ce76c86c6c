// The wall-clock server beside a bare recvfrom/sendto loop that prints the same two lines per request. One turn is one
// request answered, with as many in flight as the argument says.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "bench/micro/output.h"
#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

constexpr std::size_t kRequestBytes = 32;
constexpr std::size_t kBufferBytes = 128;
constexpr int kLibraryPort = 36677;
constexpr int kBarePort = 36678;
constexpr int kTriesToReachIt = 50;

sockaddr_in address(std::uint32_t host, int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(host);
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
}

/// Keeps a thread on one core for a while: server and client each have their own, where there are two.
class Pinned {
public:
    Pinned(pthread_t thread, int core) : m_thread(thread) {
        pthread_getaffinity_np(m_thread, sizeof m_before, &m_before);
        if (CPU_COUNT(&m_before) < 2) return;
        cpu_set_t cores;
        CPU_ZERO(&cores);
        CPU_SET(core, &cores);
        pthread_setaffinity_np(m_thread, sizeof cores, &cores);
    }
    ~Pinned() { pthread_setaffinity_np(m_thread, sizeof m_before, &m_before); }
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

private:
    const pthread_t m_thread;
    cpu_set_t m_before{};
};

/// Keeps requests under way.
class Load {
public:
    explicit Load(int port) : m_fd(socket(AF_INET, SOCK_DGRAM, 0)) {
        const sockaddr_in server = address(INADDR_LOOPBACK, port);
        const timeval patience{0, 100'000};
        static_cast<void>(connect(m_fd, reinterpret_cast<const sockaddr*>(&server), sizeof server));
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Load() { close(m_fd); }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void ask() {
        const std::array<char, kRequestBytes> request{};
        send(m_fd, request.data(), request.size(), 0);
    }
    bool isAnswered() {
        std::array<char, kRequestBytes> reply;
        return recv(m_fd, reply.data(), reply.size(), 0) == static_cast<ssize_t>(reply.size());
    }
    void end() { send(m_fd, "", 1, 0); }

private:
    const int m_fd;
};

class Library {
public:
    static constexpr int kPort = kLibraryPort;
    Library() { std::atomic_ref(m_server.m_enableInterDevSync).store(1); }
    pthread_t thread() { return m_thread.native_handle(); }
    ~Library() {
        m_server.stopWCServer();
        m_thread.join();
    }

private:
    std::string m_port = std::to_string(kPort);
    ZenkCSSWCServer m_server{m_port};
    std::thread m_thread{[this] { m_server.startWCServer(); }};
};

/// The least that a server which prints can do. Ends at a datagram of one byte.
class BareLoop {
public:
    static constexpr int kPort = kBarePort;
    pthread_t thread() { return m_thread.native_handle(); }
    ~BareLoop() {
        Load(kPort).end();
        m_thread.join();
    }

private:
    static void run() {
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        const sockaddr_in any = address(INADDR_ANY, kPort);  // as the server under test: a fixed one is cheaper
        if (bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) std::abort();
        char buffer[kBufferBytes + 1] = {};
        sockaddr_in sender{};
        socklen_t size = sizeof sender;
        for (;;) {
            const ssize_t bytes = recvfrom(fd, buffer, kBufferBytes, 0, reinterpret_cast<sockaddr*>(&sender), &size);
            if (bytes <= 1) break;
            std::printf("##MS## receive msg from wc client, len=%d,msg:%s\n", static_cast<int>(bytes), buffer);
            std::printf("##MS## send msg to wc client, len=%d\n", static_cast<int>(bytes));
            sendto(fd, buffer, static_cast<std::size_t>(bytes), 0, reinterpret_cast<const sockaddr*>(&sender), size);
        }
        close(fd);
    }

    std::thread m_thread{run};
};

bool reach(Load& load) {
    for (int i = 0; i < kTriesToReachIt; ++i) {
        load.ask();
        if (load.isAnswered()) return true;
        // A port that nobody has bound yet refuses at once; the server's thread may be late.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

template <typename Server>
void clockRequests(benchmark::State& state) {
    zenk_bench::emptyOutput();
    Server server;
    const Pinned serverCore(server.thread(), 0), ownCore(pthread_self(), 1);
    Load load(Server::kPort);
    if (!reach(load)) return state.SkipWithError("the server does not answer");
    for (std::int64_t i = 0; i < state.range(0); ++i) load.ask();
    std::int64_t lost = 0;
    for (auto _ : state) {
        lost += load.isAnswered() ? 0 : 1;
        load.ask();
    }
    state.counters["lost"] = static_cast<double>(lost);
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(clockRequests<Library>)->Arg(1)->Arg(16)->UseRealTime();
BENCHMARK(clockRequests<BareLoop>)->Arg(1)->Arg(16)->UseRealTime();

}  // namespace
