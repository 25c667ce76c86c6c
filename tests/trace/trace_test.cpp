// Every traced operation at each exit to which a host or a client can bring it, beside a record of what they write,
// print and ask of the layer. In the record, trace.golden, only times, ids, tokens and line numbers are left out.
#include <fstream>
#include <regex>
#include <sstream>

#include "log/zenk_log.h"
#include "tests/support/front_end.h"
#include "tests/support/raw_client.h"
#include "wsserver/wall_clock.h"
#include "wsserver/zenk_dvbCss.h"

static auto& g_routes = *new std::string;  // the route table

extern "C" {
std::FILE* __real_fopen(const char* path, const char* mode);
std::FILE* __wrap_fopen(const char* path, const char* mode) {
    const bool isRoutes = std::string_view(path) == "/proc/net/route";
    return isRoutes ? fmemopen(g_routes.data(), g_routes.size(), "r") : __real_fopen(path, mode);
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

class Trace : public FrontEnd, public ClientObserver {
protected:
    int getCssServerStatus() override { return status; }
    static void noteLayer() {
        for (const auto& [kind, wsi, code, bytes] : takeActions())
            std::printf("layer: %d %d %d %s\n", wsi->socketFd, kind, code, bytes.c_str());
    }
    void connections() {
        server.addObserver(this);
        MediaSyncServer::getInstance();
        for (status = 1; status < 3; ++status) std::printf("status %d\n", filter(open(4, "/x")));
        status = 0;
        server.enablePairing = true;
        lws *const local = connect("/local/hbbtv/t/n"), *const remote = connect("/remote/hbbtv/u/n");
        for (const char* path : {"/remote/hbbtv/t/m", "/local/hbbtv/u/m"}) connect(path);
        lws *const other = connect("/x?y"), *const unknown = open(99, "/y");
        for (lws* wsi : {local, other, unknown}) message(wsi, "text");
        server.enablePairing = false;
        message(remote, "pairing is off");
        for (lws* wsi : {local, remote, other, unknown}) close(wsi);
        connect("/x");
        for (const int id : {6, -1, 77, 0}) {
            char text[] = "x";
            if (id == 0) server.removeObserver(this);
            sendMessage(text, 1, id);
            sendMessageAll(text, 1, id);
            closeClientConnection(id);
            std::puts(getUrl(id));
        }
        noteLayer();
    }
    void addresses() {
        ZenkCSSEventDispatcher dispatcher;
        std::string url, port = "6677";
        ZenkCSSWCServer clock(port);
        server.m_port = 7681;
        for (const std::string interface : {"none0", "lo"}) {
            g_routes = "header\nshort\t1\t2\n" + interface + "\t0001A8C0\t0\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
            for (const auto give : {&MediaSyncServer::getApp2AppLocalBaseUrl, &MediaSyncServer::getApp2AppRemoteBaseUrl,
                                    &MediaSyncServer::getInterDevSyncUrl, &MediaSyncServer::getCssTsEndpoint}) {
                (server.*give)(url);
                std::puts(url.c_str());
            }
            clock.getCssWcEndpoint(url);
            std::puts(url.c_str());
        }
    }
    /// Of the CII server, which is kind 0, or of the TS server.
    template <int kKind>
    void css() {
        using Cii = ZenkCSSCIIServer;
        using Ts = ZenkCSSTSServer;
        using Server = std::tuple_element_t<kKind, std::tuple<Cii, Ts>>;
        const auto pick = [](auto... each) { return std::get<kKind>(std::tuple(each...)); };
        const auto add = pick(&Cii::addCiiClientId, &Ts::addTsClientId);
        const auto remove = pick(&Cii::removeCiiClientId, &Ts::removeTsClientId);
        const auto exists = pick(&Cii::ciiClientIdExists, &Ts::tsClientIdExists);
        const ZenkCSSEventDispatcher dispatcher;
        std::string text = "init", ours = pick("/x/css-ciiy", "/x/css-tsy"), other = "/css-";
        unsigned char bytes[] = "h\0i";
        std::make_unique<Server>(text);
        Server css;
        const auto tell = [&css](auto call, int id) { std::printf("%+d: %d\n", id, (css.*call)(id)); };
        const auto tellStatus = [&css] { std::printf("status %d\n", css.getCssServerStatus()); };
        tellStatus();
        css.setEnableInterDevSync(true);
        server.addObserver(&css);
        (css.*pick(&Cii::registerCIIEventCallback, &Ts::registerTSEventCallback))(noteEvent, &css);
        for (const int id : {1000, 1000}) tell(add, id);
        tell(exists, 1000);
        for (std::string* uri : {&other, &ours, &ours}) css.onNewClient(uri->data(), 1);
        for (const int id : {1, 55}) css.onMessage(bytes, 3, id);
        for (const int id : {1, 1}) css.onClientLeave(id);
        EXPECT_TRUE(waitUntil([] { return g_events == 3 * (kKind + 1); }));
        connect("/x");
        const int newest = 7 + kKind;
        for (const int id : {newest, 1000}) tell(remove, id);
        for (const int id : {newest, newest - 1}) tell(add, id);
        tell(remove, -1);
        noteLayer();
        tell(remove, -1);
        (css.*pick(&Cii::unRegisterCIIEventCallback, &Ts::unRegisterTSEventCallback))();
        for (int id = 100; id < 125; ++id) (css.*add)(id);
        tellStatus();
        css.onNewClient(ours.data(), 9);
        css.setEnableInterDevSync(false);
        noteLayer();
        tell(exists, 100);
        css.dispatchEventToMS(static_cast<ZenkCSSEvent>(3 * kKind), nullptr);
        (css.*pick(&Cii::getCssCiiEndpoint, &Ts::getCssTsEndpoint))(text);
    }
    void dispatcherAndClock() {
        const int number = freePort();
        std::string port = std::to_string(number);
        RawClient client;
        client.connect(number, SOCK_DGRAM);
        ZenkCSSWCServer unset, clock(port), other(port);
        const std::unique_ptr<ZenkCSSEventDispatcher> dispatcher(ZenkCSSEventDispatcher::m_instance);
        dispatcher->queueEvent(nullptr);
        dispatcher->stopEventThread();
        EXPECT_TRUE(waitForEventThreads(0));
        unset.stopWCServer();
        const std::atomic_ref isEnabled(clock.m_enableInterDevSync);
        isEnabled = 1;
        std::jthread thread([&] { clock.startWCServer(); });
        EXPECT_TRUE(waitUntil([&] { return client.send("question") && !client.receive(32).empty(); }));
        for (ZenkCSSWCServer* each : {&clock, &other}) each->startWCServer();  // it serves, and has the port
        client.send({"quitwc", 7});
        thread.join();
        isEnabled = 0;  // so that it reads nothing until it is stopped
        delete std::exchange(ZenkWallClock::m_instance, nullptr);
        thread = std::jthread([&] { clock.startWCServer(); });
        EXPECT_TRUE(waitUntil([] { return std::atomic_ref(ZenkWallClock::m_instance) != nullptr; })) << "it runs then";
        clock.stopWCServer();
    }

    int status = 0;
};

TEST_F(Trace, IsAsRecorded) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    insert_modules_list("PLUGIN", 1);
    connections();
    addresses();
    css<0>();
    css<1>();
    dispatcherAndClock();
    const std::string seen = record(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr());
    std::ofstream("trace.seen") << seen;
    std::ifstream file(ZENK_GOLDEN_TRACE);
    EXPECT_EQ(seen, std::string(std::istreambuf_iterator<char>(file), {})) << "kept as trace.seen";
}

}  // namespace
}  // namespace zenk_test
