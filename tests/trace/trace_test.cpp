// Every traced operation at each of its exits, beside a record of what they write, print and ask of the layer. In the
// record, trace.golden, only times, ids, tokens and line numbers are left out.
#include <fstream>
#include <regex>
#include <sstream>

#include "log/zenk_log.h"
#include "tests/support/event_threads.h"
#include "tests/support/front_end.h"
#include "tests/support/raw_client.h"
#include "wsserver/zenk_dvbCss.h"

// The system calls whose failures have exits of their own, in the test's hand through the linker's wrap.
static std::atomic<bool> g_noSockets = false, g_receiveFails = false;
static std::atomic<int> g_receives = 0;    // calls of recvmsg()
static auto& g_routes = *new std::string;  // the route table; empty: it cannot be opened

extern "C" {
std::FILE* __real_fopen(const char* path, const char* mode);
int __real_socket(int family, int type, int protocol);
ssize_t __real_recvmsg(int fd, msghdr* datagram, int flags);

std::FILE* __wrap_fopen(const char* path, const char* mode) {
    if (std::string_view(path) != "/proc/net/route") return __real_fopen(path, mode);
    return g_routes.empty() ? nullptr : fmemopen(g_routes.data(), g_routes.size(), "r");
}
int __wrap_socket(int family, int type, int protocol) {
    return g_noSockets ? -1 : __real_socket(family, type, protocol);
}
ssize_t __wrap_recvmsg(int fd, msghdr* datagram, int flags) {
    ++g_receives;
    return __real_recvmsg(g_receiveFails ? -1 : fd, datagram, flags);
}
}

namespace zenk_test {
namespace {

/// The lines without what changes from run to run, by thread: the test's own, the clock's, the event thread's.
std::string record(std::string output) {
    const std::pair<std::regex, const char*> changes[] = {
        {std::regex("\033\\[0m"), ""},
        {std::regex("\033\\[(\\d+)mtime=[\\d/]+ [\\d:]+,timestamp=\\d+,pid=\\d+,tid=(\\d+),logtype=info "), "$2 $1 "},
        {std::regex(", line: [1-9]\\d*|[0-9a-f]{32}"), "*"}};
    for (const auto& [what, by] : changes) output = std::regex_replace(output, what, by);
    std::istringstream lines(output);
    std::string threads[3];
    for (std::string line; std::getline(lines, line);) {
        const bool isTrace = std::isdigit(line[0]) != 0, isReply = line.starts_with("##MS##");
        const bool isOwn = isTrace ? line.starts_with(std::to_string(gettid()) + " ") : !isReply;
        const bool isClock = isReply || line.find("startWCServer") != line.npos;
        threads[isOwn ? 0 : isClock ? 1 : 2] += line.substr(isTrace ? line.find(' ') + 1 : 0) + "\n";
    }
    return threads[0] + "# clock\n" + threads[1] + "# events\n" + threads[2];
}

std::atomic<int> g_events = 0;

void noteEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const*) {
    zenk_log_print(LOG_TYPE_STRING, "PLUGIN", "host", std::to_string(event).c_str(), 1,
                   std::to_string(info->message.size()).c_str(), info->message.c_str());
    ++g_events;
}

/// A route table with one route, by that interface.
std::string routeBy(const std::string& interface) {
    return "header\n" + interface + "\t0001A8C0\t0\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
}

class Trace : public FrontEnd, public ClientObserver {
protected:
    int getCssServerStatus() override { return status; }
    void onNewClient(char*, int clientId) override { newest = clientId; }
    static void noteLayer() {
        for (const auto& [kind, wsi, code, bytes] : takeActions())
            std::printf("layer: %d %d %d %s\n", wsi->socketFd, kind, code, bytes.c_str());
    }
    void registryAndPairing() {
        server.addObserver(this);
        MediaSyncServer::getInstance();
        for (status = 1; status < 3; ++status) std::printf("status %d\n", filter(open(4, "/x")));
        status = 0;
        server.enablePairing = true;
        lws *const local = connect("/local/hbbtv/t/n"), *const remote = connect("/remote/hbbtv/u/n");
        for (const char* path : {"/remote/hbbtv/t/m", "/local/hbbtv/u/m"}) connect(path);
        lws *const other = connect("/x?y"), *const unknown = open(99, "/y");
        server.handlePairingConnection("/local/hbbtv/t/socket-0", 0, unknown);
        for (lws* wsi : {local, other, unknown}) message(wsi, "text");
        server.enablePairing = false;
        message(remote, "pairing is off");
        server.enablePairing = true;
        for (lws* wsi : {local, remote, other, unknown}) close(wsi);
    }
    void requests() {
        char text[] = "x";
        connect("/x");
        for (const int id : {newest, -1, 77, 0}) {
            if (id == 0) server.removeObserver(this);
            sendMessage(text, 1, id);
            sendMessageAll(text, 1, id);
            closeClientConnection(id);
            std::puts(getUrl(id));
        }
        server.addObserver(this);
        noteLayer();
    }
    void addresses() {
        char address[16] = "before";
        // A short line takes the missing columns from the next one, or is stopped by its name.
        for (const std::string& routes :
             {std::string(), std::string("no newline"), routeBy("a-name-of-19-letters"), routeBy("x y z\n\n\n! ! !"),
              routeBy("none0\t1\t2\nnone1"), routeBy("none0\t1\t2\t3\t4\t5\t6\t7\t8\t9\nabc"), routeBy("none0")}) {
            g_routes = routes;
            std::printf("result %d %s\n", getLocalIpAddr(address, 15), address);
        }
        g_noSockets = true;
        getLocalIpAddr(address, 15);
        g_noSockets = false;
        ZenkCSSEventDispatcher dispatcher;
        std::string url, port = "6677";
        ZenkCSSWCServer clock(port);
        server.m_port = 7681;
        for (const char* interface : {"none0", "lo"}) {
            g_routes = routeBy(interface);
            for (const auto give : {&MediaSyncServer::getApp2AppLocalBaseUrl, &MediaSyncServer::getApp2AppRemoteBaseUrl,
                                    &MediaSyncServer::getInterDevSyncUrl, &MediaSyncServer::getCssTsEndpoint}) {
                (server.*give)(url);
                std::puts(url.c_str());
            }
            clock.getCssWcEndpoint(url);
            std::puts(url.c_str());
        }
    }
    template <std::size_t kKind>
    void css() {
        using Cii = ZenkCSSCIIServer;
        using Ts = ZenkCSSTSServer;
        const auto pick = [](auto... each) { return std::get<kKind>(std::tuple(each...)); };
        const auto add = pick(&Cii::addCiiClientId, &Ts::addTsClientId);
        const auto remove = pick(&Cii::removeCiiClientId, &Ts::removeTsClientId);
        const auto exists = pick(&Cii::ciiClientIdExists, &Ts::tsClientIdExists);
        const auto subscribe = pick(&Cii::registerCIIEventCallback, &Ts::registerTSEventCallback);
        ZenkCSSEventDispatcher dispatcher;
        std::string text = "init", url, ours = pick("/x/css-ciiy", "/x/css-tsy"), other = "/css-";
        unsigned char bytes[] = "h\0i";
        using Server = std::tuple_element_t<kKind, std::tuple<Cii, Ts>>;
        std::make_unique<Server>(text);
        Server css;
        const auto tellStatus = [&] { std::printf("status %d\n", css.getCssServerStatus()); };
        const auto tell = [&](auto call, int id) { std::printf("%+d: %d\n", id, (css.*call)(id)), noteLayer(); };
        for (const bool isOn : {false, true}) css.setEnableInterDevSync(isOn), tellStatus();
        server.addObserver(&css);
        ZenkCSSEevntInfo info{7, "none of these is delivered"};
        const auto dispatch = [&] { css.dispatchEventToMS(static_cast<ZenkCSSEvent>(3 * kKind), &info); };
        (css.*subscribe)(noteEvent, nullptr);
        dispatch();
        (css.*subscribe)(noteEvent, &css);
        for (const int id : {1000, 1000}) tell(add, id);
        tell(exists, 1000);
        for (char* uri : {other.data(), ours.data(), ours.data(), static_cast<char*>(nullptr)}) css.onNewClient(uri, 1);
        for (const int id : {1, 55}) css.onMessage(bytes, 3, id);
        css.onMessage(nullptr, 2, 1);
        for (const int id : {1, 1}) css.onClientLeave(id);
        EXPECT_TRUE(waitUntil([] { return g_events == 3 * (kKind + 1); }));
        connect("/x");
        for (const int id : {newest, newest, 1000}) tell(remove, id);
        for (const int id : {newest, newest - 1}) tell(add, id);
        for (const int id : {-1, -1}) tell(remove, id);
        (css.*pick(&Cii::unRegisterCIIEventCallback, &Ts::unRegisterTSEventCallback))();
        dispatch();
        for (int id = 100; id < 125; ++id) (css.*add)(id);
        tellStatus();
        css.onNewClient(ours.data(), 9);
        for (const bool isOn : {true, false}) css.setEnableInterDevSync(isOn), noteLayer();
        tell(exists, 100);
        dispatch();
        for (const char* interface : {"none0", "lo"}) {
            g_routes = routeBy(interface);
            (css.*pick(&Cii::getCssCiiEndpoint, &Ts::getCssTsEndpoint))(url);
        }
    }
    void dispatcherAndClock() {
        const int number = freePort();
        std::string port = std::to_string(number);
        RawClient client;
        client.connect(number, SOCK_DGRAM);
        cssEventThread(nullptr);
        ZenkCSSWCServer unnumbered, clock(port), other(port);
        const std::unique_ptr<ZenkCSSEventDispatcher> dispatcher(ZenkCSSEventDispatcher::m_instance);
        ZenkDispatcherInfo nobodys{static_cast<ZenkCSSEvent>(6), nullptr, 1, ""};
        for (ZenkDispatcherInfo* info : {&nobodys, static_cast<ZenkDispatcherInfo*>(nullptr)})
            dispatcher->queueEvent(info);
        dispatcher->stopEventThread();
        EXPECT_TRUE(waitForEventThreads(0));
        std::atomic_ref(clock.m_enableInterDevSync).store(1);
        unnumbered.startWCServer();
        unnumbered.stopWCServer();
        for (std::atomic<bool>* const trouble : {&g_receiveFails, &g_noSockets}) {
            *trouble = true;
            clock.startWCServer();
            *trouble = false;
        }
        for (const std::string end : {"quitwc", "stop", "stop without a socket"}) {
            g_receives = 0;
            const std::jthread thread([&] { clock.startWCServer(); });
            EXPECT_TRUE(waitUntil([&] { return client.send("question") && !client.receive(32).empty(); }));
            EXPECT_TRUE(waitUntil([] { return g_receives == 2; })) << "it waits for the next one";
            for (ZenkCSSWCServer* each : {&clock, &other}) each->startWCServer();  // it serves, and has the port
            g_noSockets = end == "stop without a socket";
            if (end != "quitwc") clock.stopWCServer();
            g_noSockets = false;
            client.send(end + '\0');
        }
    }

    int status = 0, newest = 0;
};

TEST_F(Trace, IsAsRecorded) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    insert_modules_list("PLUGIN", 1);
    registryAndPairing();
    requests();
    addresses();
    css<0>();
    css<1>();
    dispatcherAndClock();
    clear_modules_list();
    const std::string seen = record(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr());
    std::ofstream("trace.seen") << seen;
    std::ifstream file(ZENK_GOLDEN_TRACE);
    EXPECT_EQ(seen, std::string(std::istreambuf_iterator<char>(file), {})) << "kept as trace.seen";
}

}  // namespace
}  // namespace zenk_test
