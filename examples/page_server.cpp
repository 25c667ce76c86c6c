#include "examples/page_server.h"

#include <chrono>
#include <cstdio>
#include <regex>
#include <stdexcept>
#include <utility>

#include "examples/documents.h"

namespace {

constexpr std::size_t kMaxCommandBytes = std::size_t{64} * 1024;
// A body that is too long is read to its end, so that its sender gets to read the answer; up to here.
constexpr std::size_t kMaxIgnoredBytes = std::size_t{16} * 1024 * 1024;
// Each open connection holds one; browsers open some ahead and leave them silent.
constexpr std::size_t kThreads = 16;
constexpr std::chrono::seconds kPatience{2};
constexpr const char* kJson = "application/json";

httplib::Server::HandlerResponse refuse(httplib::Response& response, int status, const char* why) {
    response.status = status;
    response.set_content(std::string(why) + "\n", "text/plain");
    return httplib::Server::HandlerResponse::Handled;
}

/// @param host value of a Host header
/// @return true for an address or "localhost", each with or without a port
bool namesAnAddress(const std::string& host) {
    // All repetitions are bounded, since each one takes stack.
    static const std::regex address(R"((localhost|(\d{1,3}\.){3}\d{1,3}|\[[\da-fA-F:.]{2,45}\])(:\d{1,5})?)");
    return std::regex_match(host, address);
}

}  // namespace

PageServer::PageServer(int port, const Endpoints& urls, Television& television, Documents documents)
    : m_television(television), m_documents(std::move(documents)) {
    m_documents["/"] = [](auto& response) { response.set_content(kPage, "text/html; charset=utf-8"); };
    m_documents["/endpoints"] = [json = nlohmann::json(urls).dump()](auto& response) {
        response.set_content(json, kJson);
    };
    m_documents["/status"] = [&television](auto& response) { response.set_content(television.status().dump(), kJson); };
    m_server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    m_server.set_tcp_nodelay(true);
    // By default the system would let a second host share the port.
    m_server.set_socket_options([](socket_t fd) {
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
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
}

void PageServer::start() {
    m_thread = std::jthread([this] {
        if (!m_server.listen_after_bind()) std::fputs("zenk_receiver: the page is not served any more\n", stderr);
    });
    // A stop that comes before would be lost.
    while (!m_server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

/// Everything but a command that may be executed, whose body has still to be read.
PageServer::Handled PageServer::answer(const httplib::Request& request, httplib::Response& response) const {
    const std::string host = request.get_header_value("Host");
    if (!namesAnAddress(host)) return refuse(response, 403, "Please use an address or \"localhost\" in the URL.");
    const bool isCommand = request.path == "/command";
    const auto document = m_documents.find(request.path);
    if (!isCommand && document == m_documents.end()) return refuse(response, 404, "There is nothing here.");
    const std::string methods = isCommand ? "POST" : "GET, HEAD";
    if (methods.find(request.method) == std::string::npos) {
        response.set_header("Allow", methods);
        return refuse(response, 405, "This path has other methods.");
    }
    if (!isCommand) {
        document->second(response);
        response.status = 200;
        return Handled::Handled;
    }
    if (request.get_header_value("Origin") != "http://" + host)
        return refuse(response, 403, "Commands are taken from this host's own page only.");
    if (request.is_multipart_form_data()) return refuse(response, 415, "The body must be the command itself.");
    return Handled::Unhandled;
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
    } else if (isRead) {  // else the HTTP server has set a status
        response.set_content(m_television.execute(command) + "\n", "text/plain; charset=utf-8");
    }
}
