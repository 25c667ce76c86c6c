// The reference host: everything that a receiver does to offer companion-screen services, in the order in which it has
// to be done. Meant to be copied from.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "examples/command_lines.h"
#include "examples/companion_services.h"
#include "examples/discovery.h"
#include "examples/endpoints.h"
#include "examples/lent_threads.h"
#include "examples/page_server.h"
#include "examples/screen.h"
#include "examples/services.h"
#include "examples/socket.h"
#include "examples/television.h"
#include "log/zenk_log.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"

namespace {

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

/// Before the threads start: what concerns the process as a whole.
void setUpProcess(const Options& options) {
    // Both signals end the service loop, from the first moment on. The library takes SIGINT over by itself when it
    // starts to serve; sighandler() does nothing but set an atomic flag, so it may run on any thread at any time.
    struct sigaction action {};
    action.sa_handler = sighandler;  // without SA_RESTART: the signal is also what interrupts a receive that must end
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
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
    std::vector<Service> services = readServices(options.services);
    // Told here, since the library can only say that it failed.
    Socket(SOCK_STREAM).bind("0.0.0.0", options.port);
    Socket(SOCK_DGRAM).bind("0.0.0.0", options.wcPort);
    if (options.pagePort != 0) Socket(SOCK_STREAM).bind("0.0.0.0", options.pagePort);
    if (options.logControl) zenk_log_initialize(1);

    // The host owns all of these, and the library uses them until the services below have ended: they must go in the
    // reverse order. The first server would build the dispatcher by itself, but then nobody would own it.
    ZenkWallClock clock;
    const std::unique_ptr<MediaSyncServer> server(MediaSyncServer::getInstance());
    if (server == nullptr) throw std::bad_alloc();
    ZenkCSSEventDispatcher dispatcher;
    std::string wcPort = std::to_string(options.wcPort);
    ZenkCSSWCServer clockServer(wcPort);

    // Before anything is served: what the URLs and the first clients depend on. The library's threads read these while
    // they serve, so a host writes them atomically.
    std::atomic_ref(server->m_port).store(options.port);
    std::atomic_ref(server->enablePairing).store(!options.noPairing);
    std::atomic_ref(clockServer.m_enableInterDevSync).store(options.noSync ? 0 : 1);
    const auto wallClockNs = [&clock] { return nanoseconds(clock.GetWallClockTime()); };
    Television television(std::move(services), wallClockNs);
    const Endpoints urls = askForEndpoints(*server, clockServer, options.port, options.wcPort);
    const std::string pageUrl = "http://" + urls.host() + ":" + std::to_string(options.pagePort) + "/";
    CompanionServices companions(*server, !options.noSync, television, wallClockNs, urls);
    std::optional<Discovery> discovery;
    if (options.discovery) discovery.emplace(urls.host(), pageUrl);
    std::optional<PageServer> page;
    if (options.pagePort != 0)
        page.emplace(options.pagePort, urls, television, discovery ? discovery->documents(urls) : Documents());

    // From here on clients may come. One process can serve once.
    WebSocketService webSockets(options.port, *server);
    const ClockService clockService(clockServer);
    printEndpoints(urls);
    std::optional<CommandLines> commands;
    if (webSockets.waitUntilServing()) {
        if (page) {
            page->start();
            printLine("page " + pageUrl);
            printQrCode(pageUrl);
        }
        printLine("ready");
        commands.emplace(television);
    }
    if (webSockets.wait() == 0) return 0;
    std::fprintf(stderr, "zenk_receiver: cannot serve TCP port %d\n", options.port);
    return 1;
}

}  // namespace

int main(int argc, char** argv) try {
    Options options;
    CLI::App app("Reference host of the companion-screen services");
    const CLI::Range isPort(1, 65535);
    app.add_option("--port", options.port, "TCP port of the WebSocket services")->check(isPort)->capture_default_str();
    app.add_option("--wc-port", options.wcPort, "UDP port of the wall clock")->check(isPort)->capture_default_str();
    app.add_flag("--no-pairing", options.noPairing, "App2App clients meet, but exchange nothing");
    app.add_flag("--no-sync", options.noSync, "refuse CSS clients and leave the wall clock idle");
    app.add_flag("--log-control", options.logControl, "let zenk_logctl change the log while we run");
    app.add_option("--services", options.services, "JSON file with more services for the television");
    app.add_option("--config", options.config, "configuration file, in place of /etc/vel_config.ini")
        ->check(CLI::ExistingFile);
    app.add_option("--log", options.log, "file that gets the library's log, in place of standard output");
    app.add_option("--page-port", options.pagePort, "TCP port of the page for browsers; none if not given")
        ->check(isPort);
    app.add_flag("--discovery", options.discovery, "let companions find this host (DIAL)")->needs("--page-port");
    CLI11_PARSE(app, argc, argv);
    return run(options);
} catch (const std::exception& error) {
    std::fprintf(stderr, "zenk_receiver: %s\n", error.what());
    return 1;
}
