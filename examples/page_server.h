#pragma once

#include <httplib.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <thread>

/// One document that does not change while we serve.
struct Resource {
    std::string type;  ///< media type
    std::string body;
    httplib::Headers headers = {};  ///< beside those that every answer has
};

/// Serves the page of the reference host over HTTP: GET of its documents by path, GET /status, and POST /command whose
/// body is one command. Answers 404 to other paths, 405 to other methods, 413 to a command of more than 64 KiB.
///
/// Any page that a browser on the home network shows can send requests here. So every request must name us by address
/// (a name may be one that its owner points at us), and a command must come from a page of ours.
class PageServer {
public:
    using Execute = std::function<std::string(std::string_view command)>;
    using Status = std::function<nlohmann::json()>;

    /// Takes the port; what comes is answered from start() on. `execute` and `status` are called on several threads at
    /// once. @throw std::runtime_error when the port cannot be served
    PageServer(int port, std::map<std::string, Resource> documents, Execute execute, Status status);
    ~PageServer();
    PageServer(const PageServer&) = delete;
    PageServer& operator=(const PageServer&) = delete;

    void start();

private:
    using Handled = httplib::Server::HandlerResponse;

    Handled answer(const httplib::Request& request, httplib::Response& response) const;
    void answerCommand(httplib::Response& response, const httplib::ContentReader& read) const;

    // All constant after construction, but what the HTTP server guards by itself.
    const std::map<std::string, Resource> m_documents;
    const Execute m_execute;
    const Status m_status;
    httplib::Server m_server;
    std::thread m_thread;
};
