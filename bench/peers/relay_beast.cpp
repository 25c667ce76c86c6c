// The same relay on Boost.Beast, written the way its documentation shows: asynchronous, one thread, one write under
// way per connection, the library's own defaults.
#define BOOST_ASIO_DISABLE_THREADS 1  // one thread needs no locks: in the peer's favour

#include <utility>  // before Asio, which uses std::exchange without asking for it

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "bench/peers/relay_common.h"

namespace zenk_bench {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace net = boost::asio;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

class Session;
using Waiting = std::unordered_map<std::string, std::weak_ptr<Session>>;

class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket socket, Waiting& waiting) : m_stream(std::move(socket)), m_waiting(waiting) {}

    void start() {
        http::async_read(m_stream.next_layer(), m_in, m_request,
                         [self = shared_from_this()](beast::error_code error, std::size_t) {
                             if (!error) self->onRequest();
                         });
    }

private:
    void onRequest() {
        const auto target = m_request.target();
        const auto endpoint = parsePath({target.data(), target.size()});
        if (!endpoint) return;
        m_key = endpoint->key;
        m_stream.async_accept(m_request, [self = shared_from_this()](beast::error_code error) {
            if (!error) self->onOpen();
        });
    }

    void onOpen() {
        m_in.consume(m_in.size());
        const auto place = m_waiting.find(m_key);
        const auto other = place == m_waiting.end() ? nullptr : place->second.lock();
        if (other) {
            m_waiting.erase(place);
            join(other);
        } else {
            m_waiting[m_key] = weak_from_this();
        }
        read();
    }

    void join(const std::shared_ptr<Session>& other) {
        m_partner = other;
        other->m_partner = weak_from_this();
        other->send({std::string(kGreeting), true});
        send({std::string(kGreeting), true});
    }

    void read() {
        m_stream.async_read(m_in, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error) return self->onEnd();
            self->relay();
            self->read();
        });
    }

    void relay() {
        if (const auto partner = m_partner.lock()) {
            const auto data = m_in.data();
            partner->send({std::string(static_cast<const char*>(data.data()), data.size()), m_stream.got_text()});
        }
        m_in.consume(m_in.size());
    }

    struct Message {
        std::string payload;
        bool isText;
    };

    void send(Message message) {
        m_queue.push_back(std::move(message));
        if (m_queue.size() == 1) writeFirst();
    }

    void writeFirst() {
        m_stream.text(m_queue.front().isText);
        m_stream.async_write(net::buffer(m_queue.front().payload),
                             [self = shared_from_this()](beast::error_code error, std::size_t) {
                                 if (error) return;
                                 self->m_queue.pop_front();
                                 if (!self->m_queue.empty()) self->writeFirst();
                             });
    }

    void onEnd() {
        const auto place = m_waiting.find(m_key);
        if (place != m_waiting.end() && place->second.lock().get() == this) m_waiting.erase(place);
        const auto partner = m_partner.lock();
        m_partner.reset();
        if (!partner) return;
        partner->m_partner.reset();
        partner->m_stream.async_close(websocket::close_code::normal, [partner](beast::error_code) {});
    }

    websocket::stream<tcp::socket> m_stream;
    Waiting& m_waiting;
    beast::flat_buffer m_in;
    http::request<http::empty_body> m_request;
    std::string m_key;
    std::weak_ptr<Session> m_partner;
    std::deque<Message> m_queue;  // the first is being written
};

void acceptNext(tcp::acceptor& acceptor, Waiting& waiting) {
    acceptor.async_accept([&](beast::error_code error, tcp::socket socket) {
        if (!error) {
            socket.set_option(tcp::no_delay(true));
            std::make_shared<Session>(std::move(socket), waiting)->start();
        }
        acceptNext(acceptor, waiting);
    });
}

void serve(std::uint16_t port) {
    Waiting waiting;
    net::io_context context{1};
    tcp::acceptor acceptor(context);
    const tcp::endpoint address(net::ip::address_v4::loopback(), port);
    acceptor.open(address.protocol());
    acceptor.set_option(net::socket_base::reuse_address(true));
    acceptor.bind(address);
    acceptor.listen(kListenBacklog);
    acceptNext(acceptor, waiting);
    announceReady();
    context.run();
}

}  // namespace
}  // namespace zenk_bench

int main(int argc, char** argv) {
    zenk_bench::serve(zenk_bench::portFrom(argc, argv));
}
