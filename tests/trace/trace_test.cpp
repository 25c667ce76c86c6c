// Every trace line and direct print of the library, once: which lines an operation writes at each of its exits.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "log/zenk_log.h"
#include "tests/support/net_util.h"
#include "tests/support/recording_websockets.h"
#include "tests/trace/captured_output.h"
#include "tests/trace/outside.h"
#include "wsserver/media_sync_server.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " | ") + word;
    return text;
}

class Trace : public testing::Test {
protected:
    Trace() {
        insert_modules_list("PLUGIN", 1);
        resetLayer();
        m_server = std::make_unique<MediaSyncServer>();
        std::atomic_ref(m_server->enablePairing).store(true);
    }
    ~Trace() override { clear_modules_list(); }

    void expect(const char* what, const std::function<void()>& action, const std::string& lines) {
        m_output->take();
        action();
        check(what, joined(m_output->take()), lines);
    }
    void check(const std::string& what, const std::string& seen, const std::string& expected) {
        if (seen != expected) m_failures += what + "\n  seen:     " + seen + "\n  expected: " + expected + "\n";
    }
    /// A failure that is told earlier would be part of the output under test.
    void TearDown() override {
        m_output.reset();
        EXPECT_EQ(m_failures, "");
    }
    /// The steps of one function, where others write at the same time.
    std::string stepsOf(const std::string& function, CapturedOutput::From from) {
        std::vector<std::string> words = m_output->take(from);
        std::erase_if(words, [&](const std::string& word) { return word.substr(1) != function; });
        return joined(words);
    }
    lws* open(int socketFd, const std::string& path) {
        lws* const wsi = openConnection(socketFd, path);
        m_server->m_wsi = wsi;
        return wsi;
    }
    lws* connect(int socketFd, const std::string& path) {
        lws* const wsi = open(socketFd, path);
        m_server->onConnect();
        return wsi;
    }
    void message(lws* wsi) {
        m_server->m_wsi = wsi;
        unsigned char text[] = "hi";
        m_server->onMessage(text, 2, false);
    }
    void close(lws* wsi) {
        m_server->m_wsi = wsi;
        m_server->onClose();
        markClosed(wsi);
    }

    std::unique_ptr<CapturedOutput> m_output = std::make_unique<CapturedOutput>();
    std::string m_failures;
    std::unique_ptr<MediaSyncServer> m_server;
};

TEST_F(Trace, OfTheRegistryAndPairing) {
    lws *local = nullptr, *remote = nullptr, *other = nullptr;
    expect(
        "instance", [&] { MediaSyncServer::getInstance(); }, ">getInstance | <getInstance");
    expect(
        "filter, pairing", [&] { open(3, "/local/hbbtv/t/n"), m_server->onFilterConnection(); }, ">onFilterConnection");
    expect(
        "filter, other", [&] { open(4, "/x"), m_server->onFilterConnection(); },
        ">onFilterConnection | <onFilterConnection");
    struct Refusing : ClientObserver {
        int getCssServerStatus() override { return status; }
        int status = 1;
    } refusing;
    m_server->addObserver(&refusing);
    expect(
        "filter, 403", [&] { open(4, "/x"), m_server->onFilterConnection(); }, ">onFilterConnection");
    refusing.status = 2;
    expect(
        "filter, 503", [&] { open(4, "/x"), m_server->onFilterConnection(); }, ">onFilterConnection");
    expect(
        "connect, socket 0", [&] { m_server->handlePairingConnection("/local/hbbtv/t/n", 0, open(0, "")); },
        ">handlePairingConnection | handlePairingConnection:endpoint.c_str()=/n | <handlePairingConnection");
    expect(
        "connect, waiting", [&] { local = connect(5, "/local/hbbtv/t/n"); },
        ">onConnect | onConnect:fulluri.c_str()=/local/hbbtv/t/n | >handlePairingConnection | "
        "handlePairingConnection:endpoint.c_str()=/n | <handlePairingConnection");
    expect(
        "connect, remote last", [&] { remote = connect(6, "/remote/hbbtv/u/n"); },
        ">onConnect | onConnect:fulluri.c_str()=/remote/hbbtv/u/n | >handlePairingConnection | "
        "handlePairingConnection:endpoint.c_str()=/n | handlePairingConnection:\"remote paired\"=remote paired | "
        "<handlePairingConnection");
    expect(
        "connect, other", [&] { other = connect(7, "/x"); }, ">onConnect | onConnect:fulluri.c_str()=/x | <onConnect");
    expect(
        "message, pair", [&] { message(local); }, ">onMessage | >handlePairingMsg | <handlePairingMsg | !onMessage");
    std::atomic_ref(m_server->enablePairing).store(false);
    expect(
        "message, pairing off", [&] { message(remote); },
        ">onMessage | >handlePairingMsg | handlePairingMsg:enablePairing=0 | !onMessage");
    expect(
        "message, other", [&] { message(other); }, ">onMessage | >handlePairingMsg | <handlePairingMsg | <onMessage");
    expect(
        "message, unknown", [&] { message(open(99, "/y")); },
        ">onMessage | >handlePairingMsg | <handlePairingMsg | !onMessage");
    expect(
        "close, pair", [&] { close(local); }, ">onClose | >handlePairingClose | <handlePairingClose | <onClose");
    expect(
        "close, last of a pair", [&] { close(remote); },
        ">onClose | >handlePairingClose | <handlePairingClose | <onClose");
    expect(
        "close, other", [&] { close(other); }, ">onClose | >handlePairingClose | <handlePairingClose | <onClose");
    expect(
        "close, unknown", [&] { close(open(98, "/y")); }, ">onClose | ###can't find client id");
    connect(5, "/remote/hbbtv/t/m");
    expect(
        "connect, local last", [&] { connect(6, "/local/hbbtv/u/m"); },
        ">onConnect | onConnect:fulluri.c_str()=/local/hbbtv/u/m | >handlePairingConnection | "
        "handlePairingConnection:endpoint.c_str()=/m | handlePairingConnection:\"local paired\"=local paired | "
        "<handlePairingConnection");
}

TEST_F(Trace, OfOutboundOperations) {
    ClientObserver observer;
    char text[] = "x";
    const auto send = [&](int id) { return [&, id] { observer.sendMessage(text, 1, id); }; };
    const auto sendAll = [&] { observer.sendMessageAll(text, 1, -1); };
    const auto closeClient = [&](int id) { return [&, id] { observer.closeClientConnection(id); }; };
    expect("send, no server", send(1), ">sendMessage | !sendMessage");
    expect("send all, no server", sendAll, ">sendMessageAll | !sendMessageAll");
    expect("close, no server", closeClient(1), ">closeClientConnection | !closeClientConnection");
    expect(
        "url, no server", [&] { observer.getUrl(1); }, "");
    expect(
        "add", [&] { m_server->addObserver(&observer); }, "");
    for (const int id : {1, -1}) {
        expect(
            "send", [&] { connect(5 - id, "/x"), m_output->take(), send(id)(); },
            ">sendMessage | >observerSendMessage | <observerSendMessage | <sendMessage");
        expect("close", closeClient(id),
               ">closeClientConnection | >observerCloseClientConnection | <observerCloseClientConnection | "
               "<closeClientConnection");
    }
    expect("send, unknown id", send(77), ">sendMessage | >observerSendMessage | !observerSendMessage | <sendMessage");
    expect("close, unknown id", closeClient(77),
           ">closeClientConnection | >observerCloseClientConnection | !observerCloseClientConnection | "
           "<closeClientConnection");
    expect("send all", sendAll,
           ">sendMessageAll | >observerSendMessageAll | <observerSendMessageAll | <sendMessageAll");
    expect(
        "url", [&] { observer.getUrl(1); }, "");
    expect(
        "remove", [&] { m_server->removeObserver(&observer); }, "");
}

const std::string kRoutes = "header\neth0\t0\t0\t3\t0\t0\t0\t0\t0\t0\t0\n";
const std::string kFound = ">getLocalIpAddr | getLocalIpAddr:iface_name=eth0 | getLocalIpAddr:ip_addr=10.11.12.13";

TEST_F(Trace, OfTheUrls) {
    char address[16] = "before";
    const auto lookUp = [&] { getLocalIpAddr(address, 15); };
    outside::address = "";
    expect("no table", lookUp, ">getLocalIpAddr | !getLocalIpAddr");
    outside::routes = "";
    expect("empty table", lookUp, ">getLocalIpAddr | !getLocalIpAddr");
    outside::routes = "header\n";
    expect("no route", lookUp, ">getLocalIpAddr | getLocalIpAddr:iface_name= | getLocalIpAddr:ip_addr=before");
    outside::routes = kRoutes;
    expect("no address", lookUp, ">getLocalIpAddr | getLocalIpAddr:iface_name=eth0 | getLocalIpAddr:ip_addr=before");
    outside::noSockets = true;
    expect("no socket", lookUp, ">getLocalIpAddr | getLocalIpAddr:iface_name=eth0 | !getLocalIpAddr");
    outside::noSockets = false;
    outside::address = "10.11.12.13";
    expect("found", lookUp, kFound);

    std::string url, port = "6677";
    ZenkCSSEventDispatcher dispatcher;  // or the server would make one that outlives this test
    ZenkCSSWCServer clock(port);
    const std::pair<std::string, std::function<void()>> operations[] = {
        {"getApp2AppLocalBaseUrl", [&] { m_server->getApp2AppLocalBaseUrl(url); }},
        {"getApp2AppRemoteBaseUrl", [&] { m_server->getApp2AppRemoteBaseUrl(url); }},
        {"getInterDevSyncUrl", [&] { m_server->getInterDevSyncUrl(url); }},
        {"getCssTsEndpoint", [&] { m_server->getCssTsEndpoint(url); }},
        {"getCssWcEndpoint", [&] { clock.getCssWcEndpoint(url); }}};
    for (const auto& [f, operation] : operations) {
        outside::routes = kRoutes;
        expect("url", operation, ">" + f + " | " + kFound + " | <" + f);
        outside::routes.reset();
        expect("url, no address", operation, ">" + f + " | >getLocalIpAddr | !getLocalIpAddr | !" + f);
    }
}

void ignoreEvent(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*) {
}

/// The names in which the two servers differ, and the operations by them.
struct Cii {
    using Server = ZenkCSSCIIServer;
    static constexpr const char* kClass = "ZenkCSSCIIServer";
    static constexpr const char* kShort = "CII";
    static constexpr const char* kExists = "ciiClientIdExists";
    static constexpr const char* kAdd = "addCiiClientId";
    static constexpr const char* kRemove = "removeCiiClientId";
    static constexpr const char* kUri = "/css-cii";
    static constexpr const char* kEndpoint = "getCssCiiEndpoint";
    static constexpr const char* kBuilder = "getInterDevSyncUrl";
    static constexpr ZenkCSSEvent kMessage = CSS_EVENT_CII_MESSAGE;
    static int exists(Server& s, int id) { return s.ciiClientIdExists(id); }
    static int add(Server& s, int id) { return s.addCiiClientId(id); }
    static int remove(Server& s, int id) { return s.removeCiiClientId(id); }
    static void subscribe(Server& s) { s.registerCIIEventCallback(ignoreEvent, &s); }
    static void unsubscribe(Server& s) { s.unRegisterCIIEventCallback(); }
    static void endpoint(Server& s, std::string& url) { s.getCssCiiEndpoint(url); }
};

struct Ts {
    using Server = ZenkCSSTSServer;
    static constexpr const char* kClass = "ZenkCSSTSServer";
    static constexpr const char* kShort = "TS";
    static constexpr const char* kExists = "tsClientIdExists";
    static constexpr const char* kAdd = "addTsClientId";
    static constexpr const char* kRemove = "removeTsClientId";
    static constexpr const char* kUri = "/css-ts";
    static constexpr const char* kEndpoint = "getCssTsEndpoint";
    static constexpr const char* kBuilder = "getCssTsEndpoint";
    static constexpr ZenkCSSEvent kMessage = CSS_EVENT_TS_MESSAGE;
    static int exists(Server& s, int id) { return s.tsClientIdExists(id); }
    static int add(Server& s, int id) { return s.addTsClientId(id); }
    static int remove(Server& s, int id) { return s.removeTsClientId(id); }
    static void subscribe(Server& s) { s.registerTSEventCallback(ignoreEvent, &s); }
    static void unsubscribe(Server& s) { s.unRegisterTSEventCallback(); }
    static void endpoint(Server& s, std::string& url) { s.getCssTsEndpoint(url); }
};

template <typename Names>
class CssTrace : public Trace {
protected:
    static constexpr bool kIsCii = std::is_same_v<Names, Cii>;

    static std::string step(const std::string& f) { return ">" + f + " | <" + f; }
    /// The id test traces its end for one of the two only.
    static std::string idTest() { return kIsCii ? step(Names::kExists) : std::string(">") + Names::kExists; }
    static std::string closing() {
        return ">closeClientConnection | >observerCloseClientConnection | <observerCloseClientConnection | "
               "<closeClientConnection";
    }
};
using BothServers = testing::Types<Cii, Ts>;
TYPED_TEST_SUITE(CssTrace, BothServers);

TYPED_TEST(CssTrace, OfTheServer) {
    using N = TypeParam;
    using Server = typename N::Server;
    ZenkCSSEventDispatcher dispatcher;
    const std::string className = N::kClass, shortName = N::kShort, uriText = N::kUri;
    std::string init = "x", uri = uriText, otherUri = "/other";
    unsigned char text[] = "hi";
    std::unique_ptr<Server> server;
    const std::string built = ">" + className + " | " + shortName + " m_maxClientNum = 25 | <" + className;
    this->expect(
        "string constructor", [&] { server = std::make_unique<Server>(init); }, built);
    this->expect(
        "destructor", [&] { server.reset(); }, this->step("~" + className));
    this->expect(
        "constructor", [&] { server = std::make_unique<Server>(); }, built);
    this->expect(
        "disable, no server", [&] { server->setEnableInterDevSync(false); },
        ">setEnableInterDevSync | >closeClientConnection | !closeClientConnection | <setEnableInterDevSync");
    this->m_server->addObserver(server.get());

    this->expect(
        "status, disabled", [&] { server->getCssServerStatus(); }, ">getCssServerStatus");
    this->expect(
        "enable", [&] { server->setEnableInterDevSync(true); }, this->step("setEnableInterDevSync"));
    this->expect(
        "status", [&] { server->getCssServerStatus(); }, this->step("getCssServerStatus"));
    this->expect(
        "register", [&] { N::subscribe(*server); }, this->step(std::string("register") + N::kShort + "EventCallback"));
    this->expect(
        "exists", [&] { N::exists(*server, 1); }, this->idTest());

    const std::string queued = this->step("queueEvent");
    const std::string added = std::string(">") + N::kAdd + (this->kIsCii ? std::string(" | <") + N::kAdd : "");
    this->expect(
        "add", [&] { N::add(*server, 1000); }, added);
    this->expect(
        "add again", [&] { N::add(*server, 1000); },
        std::string(">") + N::kAdd + (this->kIsCii ? std::string(" | !") + N::kAdd : ""));
    const std::string head = ">onNewClient | " + this->idTest() + " | m_maxClientNum = 25 | onNewClient:requrl=";
    this->expect(
        "new client", [&] { server->onNewClient(uri.data(), 1); },
        head + uri + " | " + added + " | " + queued + " | <onNewClient");
    this->expect(
        "new client, other", [&] { server->onNewClient(otherUri.data(), 2); }, head + otherUri + " | <onNewClient");
    this->expect(
        "new client, again", [&] { server->onNewClient(uri.data(), 1); },
        ">onNewClient | " + this->idTest() + " | !onNewClient");
    this->expect(
        "new client, no URI", [&] { server->onNewClient(nullptr, 3); }, ">onNewClient | !onNewClient");

    this->expect(
        "message", [&] { server->onMessage(text, 2, 1); },
        ">onMessage | " + this->idTest() + " | onMessage:msg=hi | " + queued + " | <onMessage");
    this->expect(
        "message, stranger", [&] { server->onMessage(text, 2, 55); },
        ">onMessage | " + this->idTest() + " | !onMessage");
    this->expect(
        "message, no data", [&] { server->onMessage(nullptr, 2, 1); }, ">onMessage | !onMessage");
    this->expect(
        "leave", [&] { server->onClientLeave(1); },
        ">onClientLeave | " + this->idTest() + " | " + queued + " | <onClientLeave");
    this->expect(
        "leave, stranger", [&] { server->onClientLeave(1); },
        ">onClientLeave | " + this->idTest() + " | !onClientLeave");

    const std::string remove = N::kRemove;
    const std::string plainEnd = this->kIsCii ? "" : " | <" + remove;
    this->connect(40, "/x");  // client 1 of the registry, which can be closed
    N::add(*server, 1);
    this->expect(
        "remove", [&] { N::remove(*server, 1); }, ">" + remove + " | " + this->closing());
    this->expect(
        "remove, not there", [&] { N::remove(*server, 1); }, ">" + remove + plainEnd);
    N::remove(*server, 1000);
    N::add(*server, 1);
    this->expect(
        "remove all", [&] { N::remove(*server, -1); }, ">" + remove + " | " + this->closing() + plainEnd);
    this->expect(
        "remove, empty", [&] { N::remove(*server, -1); }, ">" + remove + " | !" + remove);

    ZenkCSSEevntInfo info{1, "x"};
    this->expect(
        "dispatch", [&] { server->dispatchEventToMS(N::kMessage, &info); }, this->step("dispatchEventToMS"));
    this->expect(
        "unregister", [&] { N::unsubscribe(*server); },
        this->step(std::string("unRegister") + N::kShort + "EventCallback"));
    this->expect(
        "dispatch, nobody", [&] { server->dispatchEventToMS(N::kMessage, &info); }, this->step("dispatchEventToMS"));

    for (int id = 100; id < 125; ++id) N::add(*server, id);
    this->expect(
        "status, full", [&] { server->getCssServerStatus(); }, ">getCssServerStatus");
    this->expect(
        "new client, full", [&] { server->onNewClient(uri.data(), 9); },
        ">onNewClient | " + this->idTest() + " | m_maxClientNum = 25 | " + shortName +
            " Client num reach max number, can't connect");
    this->expect(
        "disable", [&] { server->setEnableInterDevSync(false); },
        ">setEnableInterDevSync | " + this->closing() + " | <setEnableInterDevSync");
    this->expect(
        "dispatch, disabled", [&] { server->dispatchEventToMS(N::kMessage, &info); },
        ">dispatchEventToMS | !dispatchEventToMS");

    std::string url;
    const std::string f = N::kEndpoint, builder = N::kBuilder;
    const std::string asked = ">" + f + " | >getInstance | <getInstance | >" + builder + " | ";
    const auto endpoint = [&] { N::endpoint(*server, url); };
    outside::routes.reset();
    this->expect("endpoint, no address", endpoint,
                 asked + ">getLocalIpAddr | !getLocalIpAddr | !" + builder + " | " + f + ":url.c_str()= | <" + f);
    outside::routes = kRoutes;
    outside::address = "10.11.12.13";
    this->kIsCii ? this->m_server->getInterDevSyncUrl(url) : this->m_server->getCssTsEndpoint(url);
    this->expect("endpoint", endpoint,
                 asked + kFound + " | <" + builder + " | " + f + ":url.c_str()=" + url + " | <" + f);
}

TEST_F(Trace, OfTheDispatcher) {
    std::unique_ptr<ZenkCSSEventDispatcher> dispatcher;
    ZenkDispatcherInfo record{static_cast<ZenkCSSEvent>(6), &record, 1, ""};
    expect(
        "built", [&] { dispatcher = std::make_unique<ZenkCSSEventDispatcher>(); },
        ">ZenkCSSEventDispatcher | >startEventThread | <startEventThread | <ZenkCSSEventDispatcher");
    expect(
        "queue", [&] { dispatcher->queueEvent(&record); }, ">queueEvent | <queueEvent");
    expect(
        "thread without a dispatcher", [] { cssEventThread(nullptr); }, ">cssEventThread | <cssEventThread");
    expect(
        "queue nothing", [&] { dispatcher->queueEvent(nullptr); }, ">queueEvent | !queueEvent");
    expect(
        "destroyed", [&] { dispatcher.reset(); }, ">~ZenkCSSEventDispatcher | <~ZenkCSSEventDispatcher");
    check("event thread", joined(m_output->take(CapturedOutput::From::kOtherThreads)),
          ">cssEventThread | >processEvent | !processEvent | <processEvent | <cssEventThread");
    expect(
        "built by a server", [&] { ZenkCSSWCServer server; },
        ">ZenkCSSWCServer | >ZenkCSSEventDispatcher | >startEventThread | <startEventThread | "
        "<ZenkCSSEventDispatcher | <ZenkCSSWCServer | >~ZenkCSSWCServer | <~ZenkCSSWCServer");
    dispatcher.reset(ZenkCSSEventDispatcher::m_instance);
    expect(
        "stop", [&] { dispatcher->stopEventThread(); }, ">stopEventThread | <stopEventThread");
}

/// A UDP socket that was free for a moment, and what a client does with it.
class WallClockClient {
public:
    WallClockClient() : m_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        address.sin_family = AF_INET;
        bind(m_socket, reinterpret_cast<sockaddr*>(&address), size);
        getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
        m_port = ntohs(address.sin_port);
        ::close(m_socket);
        m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const timeval patience{20, 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    ~WallClockClient() { ::close(m_socket); }
    WallClockClient(const WallClockClient&) = delete;
    WallClockClient& operator=(const WallClockClient&) = delete;

    int port() const { return m_port; }
    void send(const std::string& text) { ::send(m_socket, text.data(), text.size(), 0); }
    /// Asks until the server, which may still be on its way, answers.
    bool ask(const std::string& text) {
        char reply[64];
        for (int i = 0; i < 2000; ++i) {
            send(text);
            if (recv(m_socket, reply, sizeof reply, 0) == 32) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // refused: nobody there yet
        }
        return false;
    }

private:
    int m_socket;
    int m_port = 0;
};

TEST_F(Trace, OfTheWallClockServer) {
    using From = CapturedOutput::From;
    WallClockClient client;
    std::string port = std::to_string(client.port());
    ZenkCSSEventDispatcher dispatcher;
    ZenkCSSWCServer idle;
    expect(
        "no port", [&] { idle.startWCServer(); }, ">startWCServer | !startWCServer");
    expect(
        "stop, stopped", [&] { idle.stopWCServer(); }, ">stopWCServer | !stopWCServer");
    ZenkCSSWCServer server(port);
    std::atomic_ref(server.m_enableInterDevSync).store(1);
    const auto refuses = [&](const char* what, const std::string& message) {
        testing::internal::CaptureStderr();
        expect(
            what, [&] { server.startWCServer(); }, ">startWCServer | !startWCServer");
        check(what, testing::internal::GetCapturedStderr(), message);
    };
    {
        const Socket blocker = bindPort(client.port(), SOCK_DGRAM);
        refuses("port taken", "bind: Address already in use\n");
    }
    outside::receiveFails = true;
    refuses("nothing received", "recvfrom: Input/output error\n");
    outside::receiveFails = false;
    outside::noSockets = true;
    refuses("no socket", "");
    outside::noSockets = false;

    m_output->take();
    std::thread serving([&] { server.startWCServer(); });
    ASSERT_TRUE(client.ask("question"));
    check("answer", joined(m_output->take()),
          "##MS## receive msg from wc client, len=8,msg:question | ##MS## send msg to wc client, len=32");
    expect(
        "second start", [&] { server.startWCServer(); }, ">startWCServer | !startWCServer");
    client.send(std::string("quitwc\0", 7));
    serving.join();
    check("wake word", joined(m_output->take()), "##MS## receive msg from wc client, len=7,msg:quitwc");
    check("end by the wake word", stepsOf("startWCServer", From::kOtherThreads),
          ">startWCServer | !startWCServer | <startWCServer");

    std::thread again([&] { server.startWCServer(); });
    ASSERT_TRUE(client.ask("question"));
    m_output->take();
    server.stopWCServer();
    again.join();
    check("stop", stepsOf("stopWCServer", From::kThisThread), ">stopWCServer | <stopWCServer");
    check("end by stop", stepsOf("startWCServer", From::kOtherThreads),
          ">startWCServer | !startWCServer | <startWCServer");

    std::thread last([&] { server.startWCServer(); });
    ASSERT_TRUE(client.ask("question"));
    m_output->take();
    outside::noSockets = true;
    server.stopWCServer();
    outside::noSockets = false;
    check("stop, no socket", stepsOf("stopWCServer", From::kThisThread), ">stopWCServer | !stopWCServer");
    client.send("the wake word could not");
    last.join();
}

}  // namespace
}  // namespace zenk_test
