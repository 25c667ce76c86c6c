// The reference host: everything that a receiver does to offer companion-screen services, in the order in which it has
// to be done. Meant to be copied from.

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "examples/command_lines.h"
#include "examples/companion_services.h"
#include "examples/discovery.h"
#include "examples/local_port.h"
#include "examples/page.h"
#include "examples/page_server.h"
#include "examples/print_line.h"
#include "examples/qr_code.h"
#include "examples/services.h"
#include "examples/television.h"
#include "log/zenk_log.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/wall_clock.h"
#include "wsserver/websocket_service.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

using namespace std::chrono_literals;

struct Options {
    int port = 7681;
    int wcPort = 6677;
    bool noPairing = false;
    bool noSync = false;
    bool logControl = false;
    std::string services;  // the names of files; empty for none
    std::string config;
    std::string log;
    int pagePort = 0;  // 0: no page
    bool discovery = false;
};

/// Lends the WebSocket server a thread. `server` and its observers must outlive this object.
class WebSocketService {
public:
    WebSocketService(int port, MediaSyncServer& server)
        : m_port(port), m_result(std::async(std::launch::async, startWebSocketServer, port, &server)) {}

    ~WebSocketService() {
        sighandler(SIGTERM);  // asks the service loop to end; the future then waits for it
    }

    /// Returns when clients can connect: true, or false when the server has ended instead.
    bool waitUntilServing() {
        while (m_result.wait_for(10ms) != std::future_status::ready) {
            if (acceptsConnections(m_port)) return true;
        }
        return false;
    }

    /// Blocks until the server ends. @return 0, or -1 when it could not be started
    int wait() { return m_result.get(); }

private:
    const int m_port;
    std::future<int> m_result;
};

/// Owns the wall-clock server and lends it a thread. Any device may tell the server to quit, so it is started again.
class ClockService {
public:
    explicit ClockService(int port) : m_portText(std::to_string(port)), m_server(m_portText) {}

    ~ClockService() {
        if (!m_thread.joinable()) return;
        m_end.set_value();
        while (m_ended.wait_for(0s) != std::future_status::ready) endServer();
        m_thread.join();
    }

    /// `isAnswering` false leaves the server idle.
    void start(bool isAnswering) {
        // The server's thread reads this byte at every pass, so a host writes it atomically.
        std::atomic_ref(m_server.m_enableInterDevSync).store(isAnswering ? 1 : 0);
        std::packaged_task<void()> serve([this] { serveUntilEnd(); });
        m_ended = serve.get_future();
        m_thread = std::thread(std::move(serve));
    }

    void getUrl(std::string& url) { m_server.getCssWcEndpoint(url); }

private:
    void serveUntilEnd() {
        const std::future<void> isEnd = m_end.get_future();
        for (;;) {
            m_server.startWCServer();
            // Long enough that nobody can keep us busy with it.
            if (isEnd.wait_for(1s) == std::future_status::ready) return;
            printLine("the wall clock was told to quit; it is started again");
        }
    }

    /// Needs repetition: a stop that comes before the server has bound its port does nothing.
    void endServer() {
        m_server.stopWCServer();
        // An idle server takes half a second to see it.
        if (m_ended.wait_for(1s) == std::future_status::ready) return;
        // The library wakes the server by a datagram, which cannot travel while the loopback interface is down.
        pthread_kill(m_thread.native_handle(), SIGTERM);  // NOLINT(bugprone-bad-signal-to-kill-thread): has a handler
    }

    std::string m_portText;
    ZenkCSSWCServer m_server;
    std::promise<void> m_end;  // kept when the server shall not be started again
    std::future<void> m_ended;
    std::thread m_thread;
};

struct Endpoints {
    std::string app2appLocal;
    std::string app2appRemote;
    std::string cssCii;
    std::string cssTs;
    std::string cssWc;
};

/// The URLs to publish. A receiver that moves to another network has to ask again.
Endpoints askForEndpoints(MediaSyncServer& server, CompanionServices& companions, ClockService& clock) {
    Endpoints urls;
    server.getApp2AppLocalBaseUrl(urls.app2appLocal);
    server.getApp2AppRemoteBaseUrl(urls.app2appRemote);
    companions.getCiiUrl(urls.cssCii);
    companions.getTsUrl(urls.cssTs);
    clock.getUrl(urls.cssWc);
    return urls;
}

/// Puts URLs for this machine alone in the places that stayed empty, as they do without an IPv4 address.
void completeWithLoopback(Endpoints& urls, const Options& options) {
    const std::string base = "ws://127.0.0.1:" + std::to_string(options.port);
    // The path element that is a random token elsewhere. The server compares it with nothing, so any text does.
    const std::string token = "loopback/";
    bool isComplete = true;
    const auto complete = [&isComplete](std::string& url, const std::string& replacement) {
        if (!url.empty()) return;
        url = replacement;
        isComplete = false;
    };
    complete(urls.app2appLocal, base + "/local/hbbtv/" + token);
    complete(urls.app2appRemote, base + "/remote/hbbtv/" + token);
    complete(urls.cssCii, base + "/css-cii/" + token);
    complete(urls.cssTs, base + "/css-ts/");
    complete(urls.cssWc, "udp://127.0.0.1:" + std::to_string(options.wcPort));
    if (isComplete) return;
    std::fputs(
        "zenk_receiver: this machine has no IPv4 address; the URLs name 127.0.0.1 and serve local clients only\n",
        stderr);
}

void printEndpoints(const Endpoints& urls) {
    printLine("app2app-local " + urls.app2appLocal);
    printLine("app2app-remote " + urls.app2appRemote);
    printLine("css-cii " + urls.cssCii);
    printLine("css-ts " + urls.cssTs);
    printLine("css-wc " + urls.cssWc);
}

/// What is served over HTTP, and how a companion finds it, as far as the options ask for it. `companions` must outlive
/// this object.
class WebServices {
public:
    WebServices(const Options& options, const Endpoints& urls, Television& television) {
        if (options.pagePort == 0) return;
        const std::size_t begin = urls.app2appRemote.find("//") + 2;
        const std::string address = urls.app2appRemote.substr(begin, urls.app2appRemote.find(':', begin) - begin);
        m_url = "http://" + address + ":" + std::to_string(options.pagePort) + "/";
        std::map<std::string, Resource> documents;
        if (options.discovery) documents = Discovery::documents(m_url, urls.app2appRemote, urls.cssCii);
        documents["/"] = {"text/html; charset=utf-8", kPage};
        documents["/endpoints"] = {"application/json", asJson(urls)};
        m_page.emplace(
            options.pagePort, std::move(documents),
            [&television](std::string_view command) { return television.execute(command); },
            [&television] { return television.status(); });
        if (options.discovery) m_discovery.emplace(address, m_url);
    }

    /// Call when everything else is served.
    void start() {
        if (!m_page) return;
        m_page->start();
        printLine("page " + m_url);
        if (isOnTerminal()) printLine(qrCode(m_url));
    }

private:
    static std::string asJson(const Endpoints& urls) {
        return nlohmann::json{{"app2appLocal", urls.app2appLocal},
                              {"app2appRemote", urls.app2appRemote},
                              {"cssCii", urls.cssCii},
                              {"cssTs", urls.cssTs},
                              {"cssWc", urls.cssWc}}
            .dump();
    }

    std::string m_url;
    std::optional<PageServer> m_page;
    std::optional<Discovery> m_discovery;
};

bool isServable(int type, const char* protocol, int port) {
    const std::error_code error = whyNotServable(type, port);
    if (!error) return true;
    std::fprintf(stderr, "zenk_receiver: cannot serve %s port %d: %s\n", protocol, port, error.message().c_str());
    return false;
}

/// Both signals end the service loop, from the first moment on. The library takes SIGINT over by itself when it starts
/// to serve; sighandler() does nothing but set an atomic flag, so it may run on any thread at any time.
void endOnSignals() {
    struct sigaction action {};
    action.sa_handler = sighandler;  // without SA_RESTART: the signal is also what interrupts a receive that must end
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::vector<Service> servicesOf(const Options& options) {
    std::vector<Service> services = builtInServices();
    if (options.services.empty()) return services;
    const std::vector<Service> more = readServices(options.services);
    services.insert(services.end(), more.begin(), more.end());
    return services;
}

/// Before the threads start: what the options say about the process as a whole.
void setUpProcess(const Options& options) {
    endOnSignals();
    // Where standard input is closed, the next file would take its place, and we would read our commands from that.
    if (fcntl(STDIN_FILENO, F_GETFD) < 0) open("/dev/null", O_RDWR);
    if (!options.config.empty()) setenv("VEL_CONFIG_FILE", options.config.c_str(), 1);
    if (!options.log.empty()) takeLogAway(options.log);
}

std::int64_t nanoseconds(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

int run(const Options& options) {
    setUpProcess(options);
    std::vector<Service> services = servicesOf(options);
    // Told here, since the library can only say that it failed.
    if (!isServable(SOCK_STREAM, "TCP", options.port) || !isServable(SOCK_DGRAM, "UDP", options.wcPort)) return 1;
    if (options.pagePort != 0 && !isServable(SOCK_STREAM, "TCP", options.pagePort)) return 1;
    if (options.logControl) zenk_log_initialize(1);

    // The host owns all of these, and the library uses them until the services below have ended: they must go in the
    // reverse order. The first server would build the dispatcher by itself, but then nobody would own it.
    ZenkWallClock clock;
    const std::unique_ptr<MediaSyncServer> server(MediaSyncServer::getInstance());
    if (server == nullptr) throw std::bad_alloc();
    ZenkCSSEventDispatcher dispatcher;

    // Before anything is served: what the URLs and the first clients depend on. Later changes go through
    // std::atomic_ref, as here.
    std::atomic_ref(server->m_port).store(options.port);
    std::atomic_ref(server->enablePairing).store(!options.noPairing);
    const auto wallClockNs = [&clock] { return nanoseconds(clock.GetWallClockTime()); };
    Television television(std::move(services), wallClockNs);
    CompanionServices companions(*server, television, wallClockNs);
    ClockService clockService(options.wcPort);
    Endpoints urls = askForEndpoints(*server, companions, clockService);
    completeWithLoopback(urls, options);
    if (!options.noSync) companions.enable(urls.cssTs, urls.cssWc);

    WebServices web(options, urls, television);

    // From here on clients may come. One process can serve once.
    WebSocketService webSockets(options.port, *server);
    clockService.start(!options.noSync);
    printEndpoints(urls);
    std::optional<CommandLines> commands;
    if (webSockets.waitUntilServing()) {
        web.start();
        printLine("ready");
        commands.emplace([&television](std::string_view command) { return television.execute(command); });
    }
    if (webSockets.wait() == 0) return 0;
    std::fprintf(stderr, "zenk_receiver: cannot serve TCP port %d\n", options.port);
    return 1;
}

}  // namespace

int main(int argc, char** argv) try {
    Options options;
    CLI::App app("Reference host of the companion-screen services");
    app.add_option("--port", options.port, "TCP port of the WebSocket services")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    app.add_option("--wc-port", options.wcPort, "UDP port of the wall clock")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    app.add_flag("--no-pairing", options.noPairing, "App2App clients meet, but exchange nothing");
    app.add_flag("--no-sync", options.noSync, "refuse CSS clients and leave the wall clock idle");
    app.add_flag("--log-control", options.logControl, "let zenk_logctl change the log while we run");
    app.add_option("--services", options.services, "JSON file with more services for the television");
    app.add_option("--config", options.config, "configuration file, in place of /etc/vel_config.ini")
        ->check(CLI::ExistingFile);
    app.add_option("--log", options.log, "file that gets the library's log, in place of standard output");
    auto* const pagePort =
        app.add_option("--page-port", options.pagePort, "TCP port of the page for browsers; none if not given")
            ->check(CLI::Range(1, 65535));
    app.add_flag("--discovery", options.discovery, "let companions find this host (DIAL)")->needs(pagePort);
    CLI11_PARSE(app, argc, argv);
    return run(options);
} catch (const std::exception& error) {
    std::fprintf(stderr, "zenk_receiver: %s\n", error.what());
    return 1;
}
