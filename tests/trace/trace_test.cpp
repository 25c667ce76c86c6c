// Every traced operation at each of its exits, beside a record of what they write. In the record, trace.golden, only
// times, ids, tokens and line numbers are left out.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "log/zenk_log.h"
#include "tests/support/css_host.h"
#include "tests/support/css_kinds.h"
#include "tests/support/outside.h"
#include "tests/support/raw_client.h"

namespace zenk_test {
namespace {

/// The lines without what changes from run to run, by thread: the test's own, the clock's, the event thread's.
std::string record(const std::string& output) {
    const std::regex stamp("\033\\[(3[12])mtime=[\\d/]+ [\\d:]+,timestamp=\\d+,pid=\\d+,tid=(\\d+),logtype=info (.*)");
    const std::regex changing(", line: [1-9]\\d*|[0-9a-f]{32}"), reset("\033\\[0m");
    std::map<std::string, std::string> threads;
    std::istringstream lines(std::regex_replace(output, reset, ""));
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        const bool isTrace = std::regex_match(line, parts, stamp);
        const bool isOwn = isTrace ? parts[2] == std::to_string(gettid()) : !line.starts_with("##MS##");
        const bool isClock = !isTrace || line.find("startWCServer") != line.npos;
        if (isTrace) line = (parts[1] == "31" ? "red " : "green ") + parts[3].str();
        threads[isOwn ? "" : isClock ? "clock" : "events"] += std::regex_replace(line, changing, "*") + "\n";
    }
    return threads[""] + "# clock\n" + threads["clock"] + "# events\n" + threads["events"];
}

std::atomic<int> g_events = 0;

void noteEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const*) {
    zenk_log_print(LOG_TYPE_STRING, "PLUGIN", "host", std::to_string(event).c_str(), 1, "event", info->message.c_str());
    ++g_events;
}

struct Observer : ClientObserver {
    int getCssServerStatus() override { return status; }
    void onNewClient(char*, int clientId) override { newest = clientId; }
    int status = 0, newest = 0;
};

class Trace : public FrontEnd {
protected:
    void registryAndPairing() {
        MediaSyncServer::getInstance();
        for (observer.status = 1; observer.status < 3; ++observer.status) filter(open(4, "/x"));
        observer.status = 0;
        lws *const local = connect("/local/hbbtv/t/n"), *const remote = connect("/remote/hbbtv/u/n");
        for (const char* path : {"/remote/hbbtv/t/m", "/local/hbbtv/u/m"}) connect(path);
        lws *const other = connect("/x", "y"), *const unknown = open(99, "/y");
        server.handlePairingConnection("/local/hbbtv/t/socket-0", 0, unknown);
        for (lws* wsi : {local, other, unknown}) message(wsi, "text");
        server.enablePairing = false;
        message(remote, "pairing is off");
        server.enablePairing = true;
        for (lws* wsi : {local, remote, other, unknown}) close(wsi);
    }
    void outbound() {
        char text[] = "x";
        connect("/x");
        for (const int id : {observer.newest, -1, 77, 0}) {
            if (id == 0) server.removeObserver(&observer);
            observer.sendMessage(text, 1, id);
            observer.sendMessageAll(text, 1, id);
            observer.closeClientConnection(id);
            observer.getUrl(id);
        }
        server.addObserver(&observer);
    }
    void addresses() {
        char address[16] = "before";
        for (const char* routes : {"", "header\n", outside::kRoutes}) {
            getLocalIpAddr(address, 15);
            outside::routes = routes;
        }
        getLocalIpAddr(address, 15);
        outside::noSockets = true;
        getLocalIpAddr(address, 15);
        outside::noSockets = false;
        ZenkCSSEventDispatcher dispatcher;
        std::string url, port = "6677";
        ZenkCSSWCServer clock(port);
        for (const char* known : {"", "10.11.12.13"}) {
            outside::address = known;
            server.getApp2AppLocalBaseUrl(url);
            server.getApp2AppRemoteBaseUrl(url);
            server.getInterDevSyncUrl(url);
            server.getCssTsEndpoint(url);
            clock.getCssWcEndpoint(url);
        }
    }
    template <typename Kind>
    void css() {
        ZenkCSSEventDispatcher dispatcher;
        std::string text = "init", url, ours = Kind::kUri, other = "/other";
        unsigned char bytes[] = "hi";
        std::make_unique<typename Kind::Server>(text);
        typename Kind::Server css;
        css.setEnableInterDevSync(false);
        server.addObserver(&css);
        css.getCssServerStatus();
        css.setEnableInterDevSync(true);
        css.getCssServerStatus();
        (css.*Kind::kRegister)(noteEvent, &css);
        for (const int id : {1000, 1000}) (css.*Kind::kAdd)(id);
        (css.*Kind::kExists)(1000);
        for (char* uri : {ours.data(), ours.data(), static_cast<char*>(nullptr)}) css.onNewClient(uri, 1);
        css.onNewClient(other.data(), 2);
        for (const int id : {1, 55}) css.onMessage(bytes, 2, id);
        css.onMessage(nullptr, 2, 1);
        for (const int id : {1, 1}) css.onClientLeave(id);
        EXPECT_TRUE(waitUntil([] { return g_events == 3; }));
        connect("/x");
        for (const int id : {observer.newest, observer.newest, 1000}) (css.*Kind::kRemove)(id);
        (css.*Kind::kAdd)(observer.newest);
        for (const int id : {-1, -1}) (css.*Kind::kRemove)(id);
        (css.*Kind::kUnregister)();
        for (int id = 100; id < 125; ++id) (css.*Kind::kAdd)(id);
        css.getCssServerStatus();
        for (std::string* uri : {&ours, &other}) css.onNewClient(uri->data(), 9);
        css.setEnableInterDevSync(false);
        css.dispatchEventToMS(static_cast<ZenkCSSEvent>(Kind::kNew), nullptr);
        for (const char* known : {"", "10.11.12.13"}) {
            outside::address = known;
            (css.*Kind::kEndpoint)(url);
        }
        g_events = 0;
    }
    void dispatcher() {
        cssEventThread(nullptr);
        auto dispatcher = std::make_unique<ZenkCSSEventDispatcher>();
        ZenkDispatcherInfo nobodys{static_cast<ZenkCSSEvent>(6), nullptr, 1, ""};
        for (ZenkDispatcherInfo* info : {&nobodys, static_cast<ZenkDispatcherInfo*>(nullptr)})
            dispatcher->queueEvent(info);
        dispatcher.reset();
        { ZenkCSSWCServer builder; }
        dispatcher.reset(ZenkCSSEventDispatcher::m_instance);
        dispatcher->stopEventThread();
        EXPECT_TRUE(waitUntil([] { return eventThreads() == 0; }));
    }
    void clock() {
        const int number = freePort();
        std::string port = std::to_string(number);
        RawClient client;
        client.connect(number, SOCK_DGRAM);
        ZenkCSSEventDispatcher dispatcher;
        ZenkCSSWCServer unnumbered, clock(port);
        std::atomic_ref(clock.m_enableInterDevSync).store(1);
        unnumbered.startWCServer();
        unnumbered.stopWCServer();
        testing::internal::CaptureStderr();
        zenk::Socket blocker(SOCK_DGRAM);
        EXPECT_TRUE(attach(bind, blocker, number));
        clock.startWCServer();
        blocker.close();
        outside::receiveFails = true;
        clock.startWCServer();
        outside::receiveFails = false;
        outside::noSockets = true;
        clock.startWCServer();
        std::fputs(testing::internal::GetCapturedStderr().c_str(), stdout);
        for (const std::string end : {"quitwc", "stop", "stop without a socket"}) {
            outside::noSockets = false;
            outside::receives = 0;
            std::thread thread([&] { clock.startWCServer(); });
            EXPECT_TRUE(waitUntil([&] { return client.send("question") && !client.receive(32).empty(); }));
            EXPECT_TRUE(waitUntil([] { return outside::receives == 2; })) << "it waits for the next one";
            outside::noSockets = end == "stop without a socket";
            end == "quitwc" ? clock.startWCServer() : clock.stopWCServer();
            outside::noSockets = false;
            client.send(end + '\0');
            thread.join();
        }
    }

    Observer observer;
};

TEST_F(Trace, IsAsRecorded) {
    std::string seen;
    {
        testing::internal::CaptureStdout();
        insert_modules_list("PLUGIN", 1);
        server.addObserver(&observer);
        server.enablePairing = true;
        registryAndPairing();
        outbound();
        addresses();
        css<Cii>();
        css<Ts>();
        dispatcher();
        clock();
        clear_modules_list();
        seen = record(testing::internal::GetCapturedStdout());
    }
    std::ifstream file(ZENK_GOLDEN_TRACE);
    const std::string golden{std::istreambuf_iterator<char>(file), {}}, kept = testing::TempDir() + "trace.seen";
    if (seen != golden) std::ofstream(kept) << seen;
    EXPECT_EQ(seen, golden) << "kept as " << kept;
}

}  // namespace
}  // namespace zenk_test
