// The physical limit: a relay that does nothing but unmask. Frames are taken apart and unmasked, their headers
// rewritten, and all frames of one read leave in one send. It checks no text, answers no ping, logs nothing, keeps no
// registry and bounds no queue: no server, but what any server here can at best come near to.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench/peers/relay_common.h"

namespace zenk_bench {
namespace {

constexpr std::size_t kReadBytes = std::size_t{256} * 1024;
constexpr std::size_t kEventsPerWait = 512;
constexpr std::size_t kClientHeaderBytes = 14;
constexpr std::uint8_t kOpcodeClose = 8;

// XORs with the mask eight bytes at a step; `offset` is the place of the first byte in its frame.
void unmask(std::uint8_t* bytes, std::size_t count, const std::uint8_t* mask, std::uint64_t offset) {
    std::array<std::uint8_t, 8> key;
    for (std::size_t i = 0; i < key.size(); ++i) key[i] = mask[(offset + i) % 4];
    std::uint64_t wideKey;
    std::memcpy(&wideKey, key.data(), sizeof wideKey);
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes + i, sizeof word);
        word ^= wideKey;
        std::memcpy(bytes + i, &word, sizeof word);
    }
    for (; i < count; ++i) bytes[i] ^= key[i % 8];
}

/// Rewrites one client's byte stream into what its partner is sent; keeps its place between reads.
class Rewriter {
public:
    /// Appends to `out`, which has room for `count` bytes more. @return the new end of `out`
    std::uint8_t* rewrite(const std::uint8_t* bytes, std::size_t count, std::uint8_t* out) {
        const std::uint8_t* const end = bytes + count;
        while (bytes < end && !m_sawClose) {
            if (m_left == 0 && !readHeader(bytes, end)) break;
            if (m_headerBytes > 0) out = beginFrame(out);
            out = copyPayload(bytes, end, out);
        }
        return out;
    }
    bool sawClose() const { return m_sawClose; }

private:
    // True once the header is whole; it then stands in m_header until beginFrame takes it.
    bool readHeader(const std::uint8_t*& bytes, const std::uint8_t* end) {
        while (bytes < end) {
            m_header[m_headerBytes++] = *bytes++;
            if (m_headerBytes >= 2 && m_headerBytes == 2 + lengthBytes() + 4) return true;
        }
        return false;
    }
    std::size_t lengthBytes() const {
        const int length7 = m_header[1] & 0x7f;
        if (length7 == 126) return 2;
        return length7 == 127 ? 8 : 0;
    }
    std::uint8_t* beginFrame(std::uint8_t* out) {
        const std::size_t extended = lengthBytes();
        m_left = extended > 0 ? 0 : m_header[1] & 0x7f;
        for (std::size_t i = 0; i < extended; ++i) m_left = m_left << 8 | m_header[2 + i];
        std::copy_n(&m_header[2 + extended], 4, m_mask.data());
        m_offset = 0;
        m_headerBytes = 0;
        m_isControl = (m_header[0] & 0x08) != 0;
        m_sawClose = (m_header[0] & 0x0f) == kOpcodeClose;
        if (m_isControl) return out;
        m_header[1] &= 0x7f;
        return std::copy_n(m_header.data(), 2 + extended, out);
    }
    std::uint8_t* copyPayload(const std::uint8_t*& bytes, const std::uint8_t* end, std::uint8_t* out) {
        const auto there = static_cast<std::uint64_t>(end - bytes);
        const auto count = static_cast<std::size_t>(std::min(m_left, there));
        if (!m_isControl) {
            std::memcpy(out, bytes, count);
            unmask(out, count, m_mask.data(), m_offset);
            out += count;
        }
        bytes += count;
        m_offset += count;
        m_left -= count;
        return out;
    }

    std::array<std::uint8_t, kClientHeaderBytes> m_header{};
    std::array<std::uint8_t, 4> m_mask{};
    std::size_t m_headerBytes = 0;
    std::uint64_t m_left = 0;
    std::uint64_t m_offset = 0;
    bool m_isControl = false;
    bool m_sawClose = false;
};

struct Connection {
    explicit Connection(int socket) : fd(socket) {}
    ~Connection() { close(fd); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    const int fd;
    Connection* partner = nullptr;
    bool isOpen = false;
    bool isDead = false;
    bool watchesRoom = false;
    Endpoint endpoint{};
    std::string handshake;
    std::string unsent;
    Rewriter rewriter;
};

int listenOn(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool isBound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (isBound && listen(fd, kListenBacklog) == 0) return fd;
    std::perror("listen");
    std::exit(1);
}

class RawRelay {
public:
    explicit RawRelay(std::uint16_t port) : m_listener(listenOn(port)), m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = nullptr;
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_listener, &event);
    }

    [[noreturn]] void run() {
        std::vector<epoll_event> events(kEventsPerWait);
        while (true) {
            const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i) {
                const epoll_event& event = events[static_cast<std::size_t>(i)];
                if (event.data.ptr == nullptr) {
                    acceptAll();
                } else {
                    onReady(*static_cast<Connection*>(event.data.ptr), event.events);
                }
            }
            for (Connection* connection : m_dead) m_connections.erase(connection);
            m_dead.clear();
        }
    }

private:
    void watch(Connection& connection, int operation) {
        epoll_event event{};
        event.events = connection.watchesRoom ? EPOLLIN | EPOLLOUT : EPOLLIN;
        event.data.ptr = &connection;
        epoll_ctl(m_epoll, operation, connection.fd, &event);
    }

    void acceptAll() {
        for (int fd; (fd = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            auto connection = std::make_unique<Connection>(fd);
            watch(*connection, EPOLL_CTL_ADD);
            m_connections.emplace(connection.get(), std::move(connection));
        }
    }

    void put(Connection& connection, const void* bytes, std::size_t count) {
        std::size_t sent = 0;
        if (connection.unsent.empty()) {
            const ssize_t result = send(connection.fd, bytes, count, MSG_NOSIGNAL);
            sent = result > 0 ? static_cast<std::size_t>(result) : 0;
        }
        if (sent == count) return;
        connection.unsent.append(static_cast<const char*>(bytes) + sent, count - sent);
        if (connection.watchesRoom) return;
        connection.watchesRoom = true;
        watch(connection, EPOLL_CTL_MOD);
    }

    void onRoom(Connection& connection) {
        const ssize_t sent = send(connection.fd, connection.unsent.data(), connection.unsent.size(), MSG_NOSIGNAL);
        if (sent > 0) connection.unsent.erase(0, static_cast<std::size_t>(sent));
        if (!connection.unsent.empty()) return;
        connection.watchesRoom = false;
        watch(connection, EPOLL_CTL_MOD);
    }

    void end(Connection& connection) {
        if (connection.isDead) return;
        connection.isDead = true;
        m_dead.push_back(&connection);
        const auto waiting = m_waiting.find(connection.endpoint.key);
        if (waiting != m_waiting.end() && waiting->second == &connection) m_waiting.erase(waiting);
        if (connection.partner == nullptr) return;
        connection.partner->partner = nullptr;
        end(*connection.partner);
    }

    void answerHandshake(Connection& connection) {
        const std::string_view text = connection.handshake;
        constexpr std::string_view kKeyField = "Sec-WebSocket-Key: ";
        const std::size_t path = text.find(' ') + 1;
        const std::size_t field = text.find(kKeyField);
        const auto endpoint = parsePath(text.substr(path, text.find(' ', path) - path));
        if (!endpoint || field == std::string_view::npos) return end(connection);
        const std::size_t key = field + kKeyField.size();
        std::string answer = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n";
        answer += "Sec-WebSocket-Accept: " + acceptValue(text.substr(key, text.find('\r', key) - key)) + "\r\n\r\n";
        put(connection, answer.data(), answer.size());
        connection.endpoint = *endpoint;
        connection.isOpen = true;
        connection.handshake = std::string();
        join(connection);
    }

    void join(Connection& connection) {
        const auto [place, isFirst] = m_waiting.try_emplace(connection.endpoint.key, &connection);
        if (isFirst) return;
        Connection& other = *place->second;
        if (other.endpoint.isRemote == connection.endpoint.isRemote) return end(connection);
        connection.partner = &other;
        other.partner = &connection;
        m_waiting.erase(place);
        const std::string greeting = std::string{'\x81', static_cast<char>(kGreeting.size())}.append(kGreeting);
        put(other, greeting.data(), greeting.size());
        put(connection, greeting.data(), greeting.size());
    }

    void relay(Connection& connection, std::size_t count) {
        const std::uint8_t* const out = connection.rewriter.rewrite(m_in.data(), count, m_out.data());
        const auto outBytes = static_cast<std::size_t>(out - m_out.data());
        if (connection.partner != nullptr && outBytes > 0) put(*connection.partner, m_out.data(), outBytes);
        if (!connection.rewriter.sawClose()) return;
        constexpr std::uint8_t kGoodbye[] = {0x88, 2, 0x03, 0xe8};
        put(connection, kGoodbye, sizeof kGoodbye);
        end(connection);
    }

    void onBytes(Connection& connection, std::size_t count) {
        if (connection.isOpen) return relay(connection, count);
        connection.handshake.append(reinterpret_cast<const char*>(m_in.data()), count);
        if (connection.handshake.find("\r\n\r\n") != std::string::npos) answerHandshake(connection);
    }

    void onReady(Connection& connection, std::uint32_t events) {
        if (connection.isDead) return;
        if (events & EPOLLOUT) onRoom(connection);
        if (!(events & ~static_cast<std::uint32_t>(EPOLLOUT))) return;
        const ssize_t count = recv(connection.fd, m_in.data(), m_in.size(), 0);
        if (count > 0) return onBytes(connection, static_cast<std::size_t>(count));
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
        end(connection);
    }

    int m_listener;
    int m_epoll;
    std::vector<std::uint8_t> m_in = std::vector<std::uint8_t>(kReadBytes);
    // A frame may shrink on its way but never grows.
    std::vector<std::uint8_t> m_out = std::vector<std::uint8_t>(kReadBytes + kClientHeaderBytes);
    std::unordered_map<Connection*, std::unique_ptr<Connection>> m_connections;
    std::unordered_map<std::string, Connection*> m_waiting;
    std::vector<Connection*> m_dead;  // freed when the events in hand, which may name them, are done
};

}  // namespace
}  // namespace zenk_bench

int main(int argc, char** argv) {
    zenk_bench::RawRelay relay(zenk_bench::portFrom(argc, argv));
    zenk_bench::announceReady();
    relay.run();
}
