// Every traced operation at each of its exits, beside a record of what they write, print and ask of the layer. In the
// record, trace.golden, only times, ids, tokens and line numbers are left out.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "log/zenk_log.h"
#include "tests/support/css_host.h"
#include "tests/support/raw_client.h"
#include "tests/trace/outside.h"

namespace zenk_test {
namespace {

/// The lines without what changes from run to run, by thread: the test's own, the clock's, the event thread's.
std::string record(const std::string& output) {
    const std::regex reset("\033\\[0m"), changing(", line: [1-9]\\d*|[0-9a-f]{32}"),
        stamp("\033\\[(\\d+)mtime=[\\d/]+ [\\d:]+,timestamp=\\d+,pid=\\d+,tid=(\\d+),logtype=info ");
    std::istringstream lines(
        std::regex_replace(std::regex_replace(std::regex_replace(output, reset, ""), stamp, "$2 $1 "), changing, "*"));
    const std::string own = std::to_string(gettid()) + " ";
    std::map<std::string, std::string> threads;
    for (std::string line; std::getline(lines, line);) {
        const bool isTrace = std::isdigit(line[0]) != 0, isClocks = line.starts_with("##MS##");
        const bool isOwn = isTrace ? line.starts_with(own) : !isClocks;
        const bool isClock = isClocks || line.find("startWCServer") != line.npos;
        if (isTrace) line.erase(0, line.find(' ') + 1);
        threads[isOwn ? "" : isClock ? "clock" : "events"] += line + "\n";
    }
    return threads[""] + "# clock\n" + threads["clock"] + "# events\n" + threads["events"];
}

std::atomic<int> g_events = 0;

void noteEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const*) {
    zenk_log_print(LOG_TYPE_STRING, "PLUGIN", "host", std::to_string(event).c_str(), 1,
                   std::to_string(info->message.size()).c_str(), info->message.c_str());
    ++g_events;
}

struct Observer : ClientObserver {
    int getCssServerStatus() override { return status; }
    void onNewClient(char*, int clientId) override { newest = clientId; }
    int status = 0, newest = 0;
};

class Trace : public FrontEnd {
protected:
    static void noteLayer() {
        for (const auto& [kind, wsi, code, bytes] : takeActions())
            std::printf("layer: %d %d %d %s\n", wsi->socketFd, kind, code, bytes.c_str());
    }
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
            std::puts(observer.getUrl(id));
        }
        server.addObserver(&observer);
        noteLayer();
    }
    void addresses() {
        const std::string header = "header\n", route = "\t0001A8C0\t0\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
        char address[16] = "before";
        const auto tell = [&] { std::printf("result %d %s\n", getLocalIpAddr(address, 15), address); };
        tell();
        // A short line takes the missing columns from the next one, or is stopped by its name.
        for (const std::string& routes :
             {std::string(), std::string("no newline"), header, header + "a-name-of-19-letters" + route,
              header + "x y z\n\n\n! ! !", header + "eth0\t1\t2\nwlan0" + route,
              header + "eth0\t1\t2\t3\t4\t5\t6\t7\t8\t9\nabc" + route, header + "eth0" + route + "wlan0" + route}) {
            outside::routes = routes;
            tell();
        }
        outside::noSockets = true;
        tell();
        outside::noSockets = false;
        ZenkCSSEventDispatcher dispatcher;
        std::string url, port = "6677";
        ZenkCSSWCServer clock(port);
        server.m_port = 7681;
        for (const char* known : {"", "10.11.12.13"}) {
            outside::address = known;
            for (const auto give : {&MediaSyncServer::getApp2AppLocalBaseUrl, &MediaSyncServer::getApp2AppRemoteBaseUrl,
                                    &MediaSyncServer::getInterDevSyncUrl, &MediaSyncServer::getCssTsEndpoint}) {
                (server.*give)(url);
                std::puts(url.c_str());
            }
            clock.getCssWcEndpoint(url);
            std::puts(url.c_str());
        }
    }
    template <typename Kind>
    void css() {
        ZenkCSSEventDispatcher dispatcher;
        std::string text = "init", url, ours = std::string("/x") + Kind::kUri + "y", other = "/css-";
        unsigned char bytes[] = "h\0i";
        std::make_unique<typename Kind::Server>(text);
        EXPECT_EQ(Kind::Server::m_instance, nullptr);
        typename Kind::Server css;
        const auto tellStatus = [&] { std::printf("status %d\n", css.getCssServerStatus()); };
        const auto tell = [&](auto call, int id) { std::printf("%+d: %d\n", id, (css.*call)(id)), noteLayer(); };
        css.setEnableInterDevSync(false);
        server.addObserver(&css);
        tellStatus();
        css.setEnableInterDevSync(true);
        tellStatus();
        ZenkCSSEevntInfo info{7, "none of these is delivered"};
        const auto dispatch = [&] { css.dispatchEventToMS(static_cast<ZenkCSSEvent>(Kind::kNew), &info); };
        (css.*Kind::kRegister)(noteEvent, nullptr);
        dispatch();
        (css.*Kind::kRegister)(noteEvent, &css);
        for (const int id : {1000, 1000}) tell(Kind::kAdd, id);
        tell(Kind::kExists, 1000);
        for (char* uri : {ours.data(), ours.data(), static_cast<char*>(nullptr)}) css.onNewClient(uri, 1);
        css.onNewClient(other.data(), 2);
        for (const int id : {1, 55}) css.onMessage(bytes, 3, id);
        css.onMessage(nullptr, 2, 1);
        for (const int id : {1, 1}) css.onClientLeave(id);
        EXPECT_TRUE(waitUntil([] { return g_events == 3; }));
        connect("/x");
        for (const int id : {observer.newest, observer.newest, 1000}) tell(Kind::kRemove, id);
        for (const int id : {observer.newest, observer.newest - 1}) tell(Kind::kAdd, id);
        for (const int id : {-1, -1}) tell(Kind::kRemove, id);
        (css.*Kind::kUnregister)();
        dispatch();
        for (int id = 100; id < 125; ++id) (css.*Kind::kAdd)(id);
        tellStatus();
        for (std::string* uri : {&ours, &other}) css.onNewClient(uri->data(), 9);
        for (const bool isOn : {true, false}) css.setEnableInterDevSync(isOn), noteLayer();
        tell(Kind::kExists, 100);
        dispatch();
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
        {
            const zenk::Socket blocker(SOCK_DGRAM);
            attach(::bind, blocker, number);
            clock.startWCServer();
        }
        for (std::atomic<bool>* const trouble : {&outside::receiveFails, &outside::noSockets}) {
            *trouble = true;
            clock.startWCServer();
            *trouble = false;
        }
        std::fputs(testing::internal::GetCapturedStderr().c_str(), stdout);
        for (const std::string end : {"quitwc", "stop", "stop without a socket"}) {
            outside::receives = 0;
            const std::jthread thread([&] { clock.startWCServer(); });
            EXPECT_TRUE(waitUntil([&] { return client.send("question") && !client.receive(32).empty(); }));
            EXPECT_TRUE(waitUntil([] { return outside::receives == 2; })) << "it waits for the next one";
            outside::noSockets = end == "stop without a socket";
            end == "quitwc" ? clock.startWCServer() : clock.stopWCServer();
            outside::noSockets = false;
            client.send(end + '\0');
        }
    }

    Observer observer;
};

TEST_F(Trace, IsAsRecorded) {
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
    const std::string seen = record(testing::internal::GetCapturedStdout());
    std::ifstream file(ZENK_GOLDEN_TRACE);
    const std::string golden{std::istreambuf_iterator<char>(file), {}}, kept = testing::TempDir() + "trace.seen";
    if (seen != golden) std::ofstream(kept) << seen;
    EXPECT_EQ(seen, golden) << "kept as " << kept;
}

}  // namespace
}  // namespace zenk_test
