#include "examples/page_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::size_t kMaxCommandBytes = std::size_t{64} * 1024;
// A body that is too long is read to its end, so that its sender gets to read the answer; up to here.
constexpr std::size_t kMaxIgnoredBytes = std::size_t{16} * 1024 * 1024;
// Each open connection holds one; browsers open some ahead and leave them silent.
constexpr std::size_t kThreads = 16;
constexpr std::chrono::seconds kPatience{2};

httplib::Server::HandlerResponse refuse(httplib::Response& response, int status, const char* why) {
    response.status = status;
    response.set_content(std::string(why) + "\n", "text/plain");
    return httplib::Server::HandlerResponse::Handled;
}

httplib::Server::HandlerResponse refuseMethod(httplib::Response& response, const char* allowed) {
    response.set_header("Allow", allowed);
    return refuse(response, 405, "This path has other methods.");
}

std::string withoutPort(const std::string& host) {
    const std::size_t colon = host.find_last_not_of("0123456789");
    return colon != std::string::npos && host[colon] == ':' ? host.substr(0, colon) : host;
}

/// @param host value of a Host header
/// @return true for an address or "localhost", each with or without a port
bool namesAnAddress(const std::string& host) {
    const std::string name = withoutPort(host);
    in6_addr address{};
    if (name.starts_with('[') && name.ends_with(']')) {
        return inet_pton(AF_INET6, name.substr(1, name.size() - 2).c_str(), &address) == 1;
    }
    return name == "localhost" || inet_pton(AF_INET, name.c_str(), &address) == 1;
}

/// Text from outside may stand in it.
std::string dump(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

PageServer::PageServer(int port, std::map<std::string, Resource> documents, Execute execute, Status status)
    : m_documents(std::move(documents)), m_execute(std::move(execute)), m_status(std::move(status)) {
    m_server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    // The default would let a second host take the same port unnoticed.
    m_server.set_socket_options([](socket_t socket) {
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    m_server.set_tcp_nodelay(true);
    // One request each: what is left unread of one must not be taken for the next.
    m_server.set_keep_alive_max_count(1);
    m_server.set_keep_alive_timeout(kPatience.count());
    m_server.set_read_timeout(kPatience);
    m_server.set_write_timeout(kPatience);
    m_server.set_default_headers(
        {{"Cache-Control", "no-store"}, {"X-Content-Type-Options", "nosniff"}, {"X-Frame-Options", "DENY"}});
    m_server.set_pre_routing_handler([this](const auto& request, auto& response) { return answer(request, response); });
    m_server.Post("/command", [this](const auto&, auto& response, const httplib::ContentReader& read) {
        answerCommand(response, read);
    });
    if (m_server.bind_to_port("0.0.0.0", port)) return;
    throw std::runtime_error("cannot serve TCP port " + std::to_string(port));
}

PageServer::~PageServer() {
    m_server.stop();
    if (m_thread.joinable()) m_thread.join();
}

void PageServer::start() {
    m_thread = std::thread([this] {
        if (!m_server.listen_after_bind()) std::fputs("zenk_receiver: the page is not served any more\n", stderr);
    });
    // A stop that comes before would be lost.
    while (!m_server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

/// Everything but a command that may be executed, whose body has still to be read.
PageServer::Handled PageServer::answer(const httplib::Request& request, httplib::Response& response) const {
    const std::string host = request.get_header_value("Host");
    if (!namesAnAddress(host)) return refuse(response, 403, "Please use an address or \"localhost\" in the URL.");
    if (request.path == "/command") {
        if (request.method != "POST") return refuseMethod(response, "POST");
        if (request.get_header_value("Origin") != "http://" + host) {
            return refuse(response, 403, "Commands are taken from this host's own page only.");
        }
        if (request.is_multipart_form_data()) return refuse(response, 415, "The body must be the command itself.");
        return Handled::Unhandled;
    }
    const auto document = m_documents.find(request.path);
    const bool isStatus = request.path == "/status";
    if (document == m_documents.end() && !isStatus) return refuse(response, 404, "There is nothing here.");
    if (request.method != "GET" && request.method != "HEAD") return refuseMethod(response, "GET, HEAD");
    if (isStatus) {
        response.set_content(dump(m_status()), "application/json");
    } else {
        response.headers.insert(document->second.headers.begin(), document->second.headers.end());
        response.set_content(document->second.body, document->second.type.c_str());
    }
    response.status = 200;
    return Handled::Handled;
}

void PageServer::answerCommand(httplib::Response& response, const httplib::ContentReader& read) const {
    std::string command;
    std::size_t size = 0;
    const bool isRead = read([&](const char* data, std::size_t length) {
        size += length;
        if (size <= kMaxCommandBytes) command.append(data, length);
        return size <= kMaxIgnoredBytes;
    });
    if (size > kMaxCommandBytes) {
        refuse(response, 413, "A command has at most 64 KiB.");
    } else if (!isRead) {
        refuse(response, 400, "The body is not complete.");
    } else {
        response.set_content(m_execute(command) + "\n", "text/plain; charset=utf-8");
    }
}
