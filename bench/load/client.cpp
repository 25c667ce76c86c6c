#include "bench/load/client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "bench/load/measure.h"

namespace zenk_bench {
namespace {

constexpr std::size_t kBufferBytes = 1 << 20;
constexpr std::size_t kEventsPerWait = 256;

// The key of RFC 6455's own example: its answer is known, so the server's arithmetic is checked without any here.
constexpr std::string_view kKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr std::string_view kAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(std::uint32_t address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

// Each socket takes one of 200 source addresses, and its port only at connect: short connections by the ten
// thousand would use up the ports of one address.
void bindSource(int fd) {
    static unsigned next = 0;
    const sockaddr_in source = loopback(0x7f000101u + next++ % 200, 0);
    const int on = 1;
    setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&source), sizeof source) != 0) fail("bind");
}

int beginConnect(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket");
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    bindSource(fd);
    const sockaddr_in server = loopback(INADDR_LOOPBACK, port);
    const int result = connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server);
    if (result != 0 && errno != EINPROGRESS) fail("connect");
    return fd;
}

std::string request(Side side, const std::string& name, std::uint16_t port) {
    std::string text = "GET /";
    text.append(side == Side::remote ? "remote" : "local").append("/hbbtv/bench/").append(name);
    text.append(" HTTP/1.1\r\nHost: 127.0.0.1:").append(std::to_string(port));
    text.append("\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: ").append(kKey);
    text.append("\r\nSec-WebSocket-Version: 13\r\n\r\n");
    return text;
}

}  // namespace

Poller::Poller() : m_epoll(epoll_create1(EPOLL_CLOEXEC)), m_events(kEventsPerWait), m_buffer(kBufferBytes) {
    if (m_epoll < 0) fail("epoll_create1");
}

Poller::~Poller() {
    close(m_epoll);
}

std::span<const epoll_event> Poller::wait(int timeoutMs) {
    const int count = epoll_wait(m_epoll, m_events.data(), static_cast<int>(m_events.size()), timeoutMs);
    if (count < 0 && errno != EINTR) fail("epoll_wait");
    return {m_events.data(), static_cast<std::size_t>(count < 0 ? 0 : count)};
}

void Poller::watch(int operation, int fd, std::uint32_t events, Client* client) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = client;
    if (epoll_ctl(m_epoll, operation, fd, &event) != 0) fail("epoll_ctl");
}

Client::Client(Poller& poller, std::uint16_t port, Side side, const std::string& name)
    : m_poller(poller), m_side(side), m_fd(beginConnect(port)), m_request(request(side, name, port)) {
    m_poller.watch(EPOLL_CTL_ADD, m_fd, EPOLLIN | EPOLLOUT, this);
}

Client::~Client() {
    close(m_fd);
}

void Client::advance(std::uint32_t events) {
    if ((events & EPOLLOUT) && !m_request.empty()) sendRequest();
    if (!(events & ~static_cast<std::uint32_t>(EPOLLOUT))) return;
    const auto bytes = receive();
    if (m_isOpen) return readGreeting(bytes);
    readAnswer(bytes);
}

void Client::sendRequest() {
    if (send(m_request) != m_request.size()) throw std::runtime_error("no room for a handshake");
    m_request.clear();
    watchRoom(false);
}

void Client::readAnswer(std::span<const std::uint8_t> bytes) {
    const std::size_t before = m_answer.size();
    m_answer.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const std::size_t end = m_answer.find("\r\n\r\n");
    if (end == std::string::npos) return;
    if (m_answer.rfind("HTTP/1.1 101", 0) != 0 || m_answer.find(kAccept) == std::string::npos) {
        throw std::runtime_error("handshake refused: " + m_answer.substr(0, m_answer.find('\r')));
    }
    m_isOpen = true;
    m_answer = std::string();
    readGreeting(bytes.subspan(end + 4 - before));
}

void Client::readGreeting(std::span<const std::uint8_t> bytes) {
    while (m_reader.next(bytes)) {
        if (m_isGreeted) throw std::runtime_error("a second message before any was sent");
        m_isGreeted = true;
    }
    if (m_reader.sawClose()) throw std::runtime_error("the server closed a connection");
}

std::span<const std::uint8_t> Client::receive() {
    const auto buffer = m_poller.buffer();
    const ssize_t count = recv(m_fd, buffer.data(), buffer.size(), 0);
    if (count > 0) return buffer.first(static_cast<std::size_t>(count));
    if (count == 0) throw std::runtime_error("the server closed a connection");
    if (errno != EAGAIN && errno != EINTR) fail("recv");
    return {};
}

bool Client::drainUntilClosed() {
    const auto buffer = m_poller.buffer();
    const ssize_t count = recv(m_fd, buffer.data(), buffer.size(), 0);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

std::size_t Client::send(std::string_view bytes) {
    const ssize_t count = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EAGAIN && errno != EINTR) fail("send");
    return 0;
}

void Client::sendAll(std::string_view bytes) {
    while (!bytes.empty()) bytes.remove_prefix(send(bytes));
}

void Client::watchRoom(bool wanted) {
    if (wanted == m_watchesRoom) return;
    m_watchesRoom = wanted;
    m_poller.watch(EPOLL_CTL_MOD, m_fd, wanted ? EPOLLIN | EPOLLOUT : EPOLLIN, this);
}

std::vector<Pair> Fleet::openPairs(std::size_t count, const std::string& prefix) {
    const std::size_t first = m_clients.size();
    std::vector<Pair> pairs;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = prefix + std::to_string(i);
        Client& local = add(Side::local, name, i);
        pairs.push_back({&local, &add(Side::remote, name, i)});
    }
    settle(first, true);
    return pairs;
}

void Fleet::openSilentPairs(std::size_t count) {
    for (const Pair& pair : openPairs(count, "silent")) pair.local->tag = pair.remote->tag = kSilent;
}

void Fleet::openWaiting(std::size_t count) {
    const std::size_t first = m_clients.size();
    for (std::size_t i = 0; i < count; ++i) add(Side::local, "waiting" + std::to_string(i), kSilent);
    settle(first, false);
}

Client& Fleet::add(Side side, const std::string& name, std::size_t tag) {
    m_clients.push_back(std::make_unique<Client>(m_poller, m_port, side, name));
    m_clients.back()->tag = tag;
    // A listener's queue is short; what does not fit into it is tried again by TCP only after a second.
    constexpr std::size_t kUnderWay = 64;
    if (++m_underWay >= kUnderWay) settle(m_clients.size() - m_underWay, false);
    return *m_clients.back();
}

void Fleet::settle(std::size_t first, bool untilGreeted) {
    constexpr std::uint64_t kPatienceNs = 30'000'000'000u;
    const std::uint64_t giveUpAt = nowNs() + kPatienceNs;
    const auto isDone = [&](const Client& client) { return untilGreeted ? client.isGreeted() : client.isOpen(); };
    std::size_t done = first;
    while (true) {
        while (done < m_clients.size() && isDone(*m_clients[done])) ++done;
        if (done == m_clients.size()) break;
        if (nowNs() > giveUpAt) throw std::runtime_error("connections did not open in time");
        for (const epoll_event& event : m_poller.wait(100)) clientOf(event).advance(event.events);
    }
    m_underWay = 0;
}

}  // namespace zenk_bench
