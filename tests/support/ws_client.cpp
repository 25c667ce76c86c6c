#include "tests/support/ws_client.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;

namespace zenk_test {
namespace {

constexpr std::uint16_t kNoCloseFrame = 1006;        // RFC 6455, 7.1.5
constexpr std::size_t kMaxMessageBytes = 64u << 20;  // far above what the server lets through

}  // namespace

/// Everything runs inside run(): an operation is started, and the loop turns until it is done or time is up. A read is
/// always under way, so that pings, close frames and data are taken in whatever the caller waits for.
struct WsClient::Connection {
    using Error = boost::system::error_code;

    asio::io_context loop;
    websocket::stream<asio::ip::tcp::socket> stream{loop};
    beast::flat_buffer incoming;
    std::deque<Message> messages;
    int httpStatus = 0;
    bool hasEnded = true;
    std::uint16_t closeCode = kNoCloseFrame;

    ~Connection() {  // NOLINT(bugprone-exception-escape): then the test ends
        dropSocket();
        loop.restart();
        loop.poll();  // the aborted operations still own parts of this object
    }

    void dropSocket() {
        Error ignored;
        stream.next_layer().close(ignored);
    }

    template <typename Predicate>
    bool run(Milliseconds patience, Predicate isDone) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!isDone()) {
            loop.restart();
            if (loop.run_one_until(deadline) == 0) return isDone();
        }
        return true;
    }

    /// Starts an operation with the handler that it gets and waits for it. The handler lives in this frame, so an
    /// operation that is late is ended by dropping the connection.
    template <typename Start>
    Error await(Milliseconds patience, Start start) {
        std::optional<Error> result;
        const auto isDone = [&result] { return result.has_value(); };
        start([&result](Error error, auto&&...) { result = error; });
        if (run(patience, isDone)) return *result;
        dropSocket();
        run(kPatience, isDone);
        return asio::error::timed_out;
    }

    bool open(int port, std::string_view target, Milliseconds patience) {
        const asio::ip::tcp::endpoint server(asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(port));
        Error error;
        stream.next_layer().connect(server, error);
        if (error) return false;
        stream.next_layer().set_option(asio::ip::tcp::no_delay(true));
        stream.read_message_max(kMaxMessageBytes);
        stream.auto_fragment(false);
        websocket::response_type response;
        error = await(patience, [&](auto done) {
            stream.async_handshake(response, "127.0.0.1", beast::string_view(target.data(), target.size()), done);
        });
        const bool isAnswered = !error || error == websocket::error::upgrade_declined;
        httpStatus = isAnswered ? static_cast<int>(response.result_int()) : 0;
        if (error) return false;
        hasEnded = false;
        readNext();
        return true;
    }

    void readNext() {
        stream.async_read(incoming, [this](Error error, std::size_t) {
            if (error) return end(error);
            messages.push_back({beast::buffers_to_string(incoming.data()), stream.got_binary()});
            incoming.consume(incoming.size());
            readNext();
        });
    }

    void end(Error error) {
        hasEnded = true;
        if (error == websocket::error::closed) closeCode = stream.reason().code;
    }

    bool write(bool isFinal, std::string_view bytes, Milliseconds patience) {
        if (hasEnded) return false;
        return !await(patience, [&](auto done) {
            stream.async_write_some(isFinal, asio::buffer(bytes.data(), bytes.size()), done);
        });
    }

    bool close(std::uint16_t code, Milliseconds patience) {
        if (hasEnded) return false;
        return !await(patience, [&](auto done) { stream.async_close(websocket::close_reason(code), done); });
    }
};

WsClient::WsClient() = default;
WsClient::~WsClient() = default;
WsClient::WsClient(WsClient&&) noexcept = default;
WsClient& WsClient::operator=(WsClient&&) noexcept = default;

bool WsClient::connect(int port, std::string_view target, Milliseconds patience) {
    m_connection = std::make_unique<Connection>();
    return m_connection->open(port, target, patience);
}

int WsClient::httpStatus() const {
    return m_connection ? m_connection->httpStatus : 0;
}

bool WsClient::sendText(std::string_view text, Milliseconds patience) {
    m_connection->stream.text(true);
    return m_connection->write(true, text, patience);
}

bool WsClient::sendBinary(std::string_view bytes, Milliseconds patience) {
    m_connection->stream.binary(true);
    return m_connection->write(true, bytes, patience);
}

bool WsClient::sendFragments(const std::vector<std::string>& fragments, bool binary, Milliseconds patience) {
    m_connection->stream.binary(binary);
    for (std::size_t i = 0; i < fragments.size(); ++i) {
        if (!m_connection->write(i + 1 == fragments.size(), fragments[i], patience)) return false;
    }
    return true;
}

std::optional<WsClient::Message> WsClient::receive(Milliseconds patience) {
    Connection& connection = *m_connection;
    connection.run(patience, [&] { return !connection.messages.empty() || connection.hasEnded; });
    if (connection.messages.empty()) return std::nullopt;
    Message message = std::move(connection.messages.front());
    connection.messages.pop_front();
    return message;
}

std::string WsClient::receiveText(Milliseconds patience) {
    const std::optional<Message> message = receive(patience);
    return message && !message->binary ? message->data : std::string();
}

std::optional<std::uint16_t> WsClient::closeCode(Milliseconds patience) {
    Connection& connection = *m_connection;
    if (!connection.run(patience, [&] { return connection.hasEnded; })) return std::nullopt;
    connection.messages.clear();
    return connection.closeCode;
}

bool WsClient::close(std::uint16_t code, Milliseconds patience) {
    return m_connection->close(code, patience);
}

void WsClient::reset() {
    boost::system::error_code ignored;
    m_connection->stream.next_layer().set_option(asio::socket_base::linger(true, 0), ignored);
    m_connection->dropSocket();
    m_connection->hasEnded = true;
}

}  // namespace zenk_test
