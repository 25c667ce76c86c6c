// The same relay on websocketpp: one thread, its locks and logs compiled out, in the peer's favour.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS  // the library still uses the old place of _1

#include <string>
#include <unordered_map>
#include <websocketpp/concurrency/none.hpp>
#include <websocketpp/config/asio_no_tls.hpp>
#include <websocketpp/logger/stub.hpp>
#include <websocketpp/server.hpp>

#include "bench/peers/relay_common.h"

namespace zenk_bench {
namespace {

using websocketpp::connection_hdl;

// What the library keeps for us in each connection.
struct PairState {
    std::string key;
    connection_hdl partner;
};

// The library wants each type named again, or the base's own are taken.
struct Config : websocketpp::config::asio {
    using concurrency_type = websocketpp::concurrency::none;
    using elog_type = websocketpp::log::stub;
    using alog_type = websocketpp::log::stub;
    using request_type = websocketpp::http::parser::request;
    using response_type = websocketpp::http::parser::response;
    using message_type = websocketpp::message_buffer::message<websocketpp::message_buffer::alloc::con_msg_manager>;
    using con_msg_manager_type = websocketpp::message_buffer::alloc::con_msg_manager<message_type>;
    using endpoint_msg_manager_type = websocketpp::message_buffer::alloc::endpoint_msg_manager<con_msg_manager_type>;
    using rng_type = websocketpp::random::none::int_generator<std::uint32_t>;
    using connection_base = PairState;
    struct transport_config : websocketpp::config::asio::transport_config {
        using concurrency_type = Config::concurrency_type;
        using elog_type = Config::elog_type;
        using alog_type = Config::alog_type;
        using request_type = Config::request_type;
        using response_type = Config::response_type;
        using socket_type = websocketpp::transport::asio::basic_socket::endpoint;
        static const bool enable_multithreading = false;
    };
    using transport_type = websocketpp::transport::asio::endpoint<transport_config>;
};

using Server = websocketpp::server<Config>;
using ErrorCode = websocketpp::lib::error_code;

class Relay {
public:
    Relay() {
        m_server.init_asio();
        m_server.set_reuse_addr(true);
        m_server.set_listen_backlog(kListenBacklog);
        m_server.set_tcp_post_init_handler([this](connection_hdl handle) { sendAtOnce(handle); });
        m_server.set_validate_handler([this](connection_hdl handle) { return admits(handle); });
        m_server.set_open_handler([this](connection_hdl handle) { onOpen(handle); });
        m_server.set_message_handler([this](connection_hdl handle, Server::message_ptr message) {
            ErrorCode ignored;
            m_server.send(state(handle).partner, message->get_payload(), message->get_opcode(), ignored);
        });
        m_server.set_close_handler([this](connection_hdl handle) { onClose(handle); });
    }

    void serve(std::uint16_t port) {
        m_server.listen(websocketpp::lib::asio::ip::address::from_string("127.0.0.1"), port);
        m_server.start_accept();
        announceReady();
        m_server.run();
    }

private:
    PairState& state(connection_hdl handle) { return *m_server.get_con_from_hdl(handle); }

    void sendAtOnce(connection_hdl handle) {
        websocketpp::lib::asio::error_code ignored;
        const websocketpp::lib::asio::ip::tcp::no_delay option(true);
        m_server.get_con_from_hdl(handle)->get_raw_socket().set_option(option, ignored);
    }

    bool admits(connection_hdl handle) {
        const auto connection = m_server.get_con_from_hdl(handle);
        const auto endpoint = parsePath(connection->get_resource());
        if (endpoint) connection->key = endpoint->key;
        return endpoint.has_value();
    }

    void onOpen(connection_hdl handle) {
        PairState& own = state(handle);
        const auto [place, isFirst] = m_waiting.try_emplace(own.key, handle);
        if (isFirst) return;
        own.partner = place->second;
        m_waiting.erase(place);
        state(own.partner).partner = handle;
        greet(own.partner);
        greet(handle);
    }

    void greet(connection_hdl handle) {
        ErrorCode ignored;
        m_server.send(handle, std::string(kGreeting), websocketpp::frame::opcode::text, ignored);
    }

    void onClose(connection_hdl handle) {
        PairState& own = state(handle);
        const auto place = m_waiting.find(own.key);
        if (place != m_waiting.end() && place->second.lock() == handle.lock()) m_waiting.erase(place);
        if (own.partner.expired()) return;
        state(own.partner).partner.reset();
        ErrorCode ignored;
        m_server.close(own.partner, websocketpp::close::status::normal, "", ignored);
        own.partner.reset();
    }

    Server m_server;
    std::unordered_map<std::string, connection_hdl> m_waiting;
};

}  // namespace
}  // namespace zenk_bench

int main(int argc, char** argv) {
    zenk_bench::Relay relay;
    relay.serve(zenk_bench::portFrom(argc, argv));
}
