// The wall-clock server beside a bare recvfrom/sendto loop that prints the same two lines per request, in one run.
// wall_clock_bench [ROUNDS]; standard output goes to a file during the run, as in a receiver that logs.

#include <arpa/inet.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultRounds = 15;  // many short ones: other work on the machine hits both alike
constexpr auto kMeasureTime = std::chrono::milliseconds(300);
constexpr std::size_t kRequestBytes = 32;
constexpr int kZenkPort = 36677;
constexpr int kBarePort = 36678;

double microsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::micro>(to - from).count();
}

double medianOf(std::vector<double> values, double share = 0.5) {
    if (values.empty()) return 0;
    const auto nth = values.begin() + static_cast<long>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), nth, values.end());
    return *nth;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

// Server and client each have a core of their own where there are two.
void pinToCore(pthread_t thread, int core) {
    if (std::thread::hardware_concurrency() < 2) return;
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    pthread_setaffinity_np(thread, sizeof cores, &cores);
}

/// The least that a server which prints can do. Ends at a datagram of one byte.
void runBareLoop(int port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback(port);
    address.sin_addr.s_addr = INADDR_ANY;  // as the server under test: a fixed address makes each send cheaper
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) std::abort();
    char buffer[129] = {};
    sockaddr_in sender{};
    socklen_t senderBytes = sizeof sender;
    for (;;) {
        const ssize_t bytes = recvfrom(fd, buffer, 128, 0, reinterpret_cast<sockaddr*>(&sender), &senderBytes);
        if (bytes <= 1) break;
        std::printf("##MS## receive msg from wc client, len=%d,msg:%s\n", static_cast<int>(bytes), buffer);
        std::printf("##MS## send msg to wc client, len=%d\n", static_cast<int>(bytes));
        sendto(fd, buffer, static_cast<std::size_t>(bytes), 0, reinterpret_cast<const sockaddr*>(&sender), senderBytes);
    }
    close(fd);
}

struct Sample {
    double requestsPerSecond = 0;
    double cpuMicros = 0;  // of the server's thread per request
    double roundTripMicros = 0;
    double roundTripP99Micros = 0;
    double turnaroundMicros = 0;  // transmit time minus receive time
    double lost = 0;
};

double replyTurnaroundMicros(const std::array<std::uint8_t, kRequestBytes>& reply) {
    ZenkWCMessage message{};
    std::array<char, kRequestBytes> bytes;
    std::memcpy(bytes.data(), reply.data(), bytes.size());
    ZenkWallClock::m_instance->StringToZenkWCMessage(bytes.data(), kRequestBytes, &message);
    const std::int64_t seconds = std::int64_t{message.transmit_timevalue_secs} - message.receive_timevalue_secs;
    const std::int64_t nanos = std::int64_t{message.transmit_timevalue_nanos} - message.receive_timevalue_nanos;
    return static_cast<double>(seconds * 1'000'000'000 + nanos) / 1000;
}

/// A client that keeps `inFlight` requests under way; each carries the number of its slot, and the reply gives it back.
class Load {
public:
    Load(int port, int inFlight) : m_fd(socket(AF_INET, SOCK_DGRAM, 0)), m_sentAt(static_cast<std::size_t>(inFlight)) {
        const sockaddr_in server = loopback(port);
        const timeval patience{0, 200'000};
        static_cast<void>(connect(m_fd, reinterpret_cast<const sockaddr*>(&server), sizeof server));
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    ~Load() { close(m_fd); }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    Sample measure(clockid_t serverCpu);

private:
    void send(std::uint8_t slot) {
        std::array<std::uint8_t, kRequestBytes> request{};
        request[8] = slot;  // first byte of the originate time
        m_sentAt[slot] = Clock::now();
        ::send(m_fd, request.data(), request.size(), 0);
    }
    bool awaitOneAndSendNext();
    void sendAll() {
        for (std::size_t slot = 0; slot < m_sentAt.size(); ++slot) send(static_cast<std::uint8_t>(slot));
    }

    const int m_fd;
    std::vector<Clock::time_point> m_sentAt;
    std::vector<double> m_roundTrips;
    std::vector<double> m_turnarounds;
};

bool Load::awaitOneAndSendNext() {
    std::array<std::uint8_t, kRequestBytes> reply{};
    if (recv(m_fd, reply.data(), reply.size(), 0) != static_cast<ssize_t>(reply.size())) return false;
    m_roundTrips.push_back(microsBetween(m_sentAt.at(reply[8]), Clock::now()));
    m_turnarounds.push_back(replyTurnaroundMicros(reply));
    send(reply[8]);
    return true;
}

double cpuSeconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Sample Load::measure(clockid_t serverCpu) {
    Sample sample;
    m_roundTrips.reserve(1'000'000);
    m_turnarounds.reserve(1'000'000);
    const double cpuBefore = cpuSeconds(serverCpu);
    const auto begin = Clock::now();
    sendAll();
    while (Clock::now() - begin < kMeasureTime) {
        if (awaitOneAndSendNext()) continue;
        sample.lost += static_cast<double>(m_sentAt.size());
        sendAll();
    }
    const double answered = static_cast<double>(m_roundTrips.size());
    sample.requestsPerSecond = answered * 1e6 / microsBetween(begin, Clock::now());
    sample.cpuMicros = (cpuSeconds(serverCpu) - cpuBefore) * 1e6 / std::max(answered, 1.0);
    sample.roundTripMicros = medianOf(m_roundTrips);
    sample.roundTripP99Micros = medianOf(m_roundTrips, 0.99);
    sample.turnaroundMicros = medianOf(m_turnarounds);
    return sample;
}

/// One server under test on its own thread, and what was measured of it.
struct Peer {
    const char* name;
    int port;
    std::thread thread;
    std::vector<Sample> samples{};

    double median(double Sample::*figure) const {
        std::vector<double> values;
        for (const Sample& sample : samples) values.push_back(sample.*figure);
        return medianOf(values);
    }
};

void measureRound(Peer& peer, int inFlight) {
    clockid_t cpu{};
    pthread_getcpuclockid(peer.thread.native_handle(), &cpu);
    peer.samples.push_back(Load(peer.port, inFlight).measure(cpu));
    std::fflush(stdout);
    if (ftruncate(STDOUT_FILENO, 0) == 0) std::rewind(stdout);
}

void report(FILE* out, int inFlight, const Peer& zenk, const Peer& bare) {
    for (const Peer* peer : {&zenk, &bare}) {
        std::fprintf(out, "%9d  %-5s %11.0f %15.2f %13.1f %13.1f", inFlight, peer->name,
                     peer->median(&Sample::requestsPerSecond), peer->median(&Sample::cpuMicros),
                     peer->median(&Sample::roundTripMicros), peer->median(&Sample::roundTripP99Micros));
        if (peer == &zenk) {
            std::fprintf(out, " %14.2f", peer->median(&Sample::turnaroundMicros));
        } else {
            std::fprintf(out, " %14s", "-");
        }
        std::fprintf(out, " %6.0f\n", peer->median(&Sample::lost));
    }
    std::vector<double> rates;
    std::vector<double> costs;
    for (std::size_t i = 0; i < zenk.samples.size(); ++i) {
        rates.push_back(zenk.samples[i].requestsPerSecond / bare.samples[i].requestsPerSecond);
        costs.push_back(zenk.samples[i].cpuMicros / bare.samples[i].cpuMicros);
    }
    std::fprintf(out, "%9d  ratio %11.3f %15.3f\n", inFlight, medianOf(rates), medianOf(costs));
}

/// Sends standard output into a file that vanishes with the process. @return the former standard output
FILE* divertOutput() {
    FILE* const former = fdopen(dup(STDOUT_FILENO), "w");
    FILE* const file = std::tmpfile();
    if (former == nullptr || file == nullptr || dup2(fileno(file), STDOUT_FILENO) < 0) std::abort();
    return former;
}

bool answers(int port) {
    return Load(port, 1).measure(CLOCK_THREAD_CPUTIME_ID).requestsPerSecond > 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : kDefaultRounds;
    FILE* const out = divertOutput();
    ZenkWallClock clock;
    std::string port = std::to_string(kZenkPort);
    ZenkCSSWCServer server(port);
    server.m_enableInterDevSync = 1;
    Peer zenk{"zenk", kZenkPort, std::thread([&] { server.startWCServer(); })};
    Peer bare{"bare", kBarePort, std::thread([] { runBareLoop(kBarePort); })};
    pinToCore(pthread_self(), 1);
    for (Peer* peer : {&zenk, &bare}) pinToCore(peer->thread.native_handle(), 0);
    if (!answers(kZenkPort) || !answers(kBarePort)) std::abort();

    std::fprintf(out, "medians of %d interleaved rounds of 0.3 s, standard output in a file\n", rounds);
    std::fprintf(out, "%9s  %-5s %11s %15s %13s %13s %14s %6s\n", "in flight", "", "requests/s", "cpu us/request",
                 "round trip us", "its p99 us", "turnaround us", "lost");
    for (const int inFlight : {1, 16}) {
        zenk.samples.clear();
        bare.samples.clear();
        for (int round = 0; round < rounds; ++round) {
            measureRound(zenk, inFlight);
            measureRound(bare, inFlight);
        }
        report(out, inFlight, zenk, bare);
    }

    server.stopWCServer();
    const sockaddr_in bareAddress = loopback(kBarePort);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sendto(fd, "", 1, 0, reinterpret_cast<const sockaddr*>(&bareAddress), sizeof bareAddress);
    close(fd);
    zenk.thread.join();
    bare.thread.join();
    std::fclose(out);
    return 0;
}
