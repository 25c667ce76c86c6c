#pragma once

#include <httplib.h>

#include <functional>
#include <map>
#include <string>
#include <thread>

#include "examples/endpoints.h"
#include "examples/television.h"

/// What is served, by path: each puts its document into the answer.
using Documents = std::map<std::string, std::function<void(httplib::Response&)>>;

/// Serves the page of the reference host over HTTP with what it asks for: GET /, /endpoints, /status and other
/// documents, and POST /command, whose body is one command. Answers 404 to other paths, 405 to other methods, 413 to a
/// command of more than 64 KiB.
///
/// Any page that a browser on the home network shows can send requests here. So every request must name us by address
/// (a name may be one that its owner points at us), and a command must come from a page of ours.
class PageServer {
public:
    /// Takes the port; what comes is answered from start() on. `television` must outlive this object.
    /// @param documents  the others; called on several threads at once
    /// @throw std::runtime_error when the port cannot be served
    PageServer(int port, const Endpoints& urls, Television& television, Documents documents);
    ~PageServer();

    void start();

private:
    using Handled = httplib::Server::HandlerResponse;

    Handled answer(const httplib::Request& request, httplib::Response& response) const;
    void answerCommand(httplib::Response& response, const httplib::ContentReader& read) const;

    // All constant after construction, but what the HTTP server and the television guard by themselves.
    Television& m_television;
    Documents m_documents;
    httplib::Server m_server;
    std::jthread m_thread;  // last, so that it ends first
};
