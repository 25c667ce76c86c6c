// Every trace line and direct print of the library, once: which lines an operation writes at each of its exits.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "log/zenk_log.h"
#include "tests/support/css_kinds.h"
#include "tests/support/net_util.h"
#include "tests/support/outside.h"
#include "tests/support/recording_websockets.h"
#include "tests/support/wall_clock_client.h"
#include "tests/trace/trace_words.h"
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

    void expect(const char* what, const std::string& lines, const std::function<void()>& action) {
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
    std::string stepsOf(const std::string& function, TraceWords::From from) {
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

    std::unique_ptr<TraceWords> m_output = std::make_unique<TraceWords>();
    std::string m_failures;
    std::unique_ptr<MediaSyncServer> m_server;
};

TEST_F(Trace, OfTheRegistryAndPairing) {
    lws *local = nullptr, *remote = nullptr, *other = nullptr;
    expect("instance", ">getInstance | <getInstance", [&] { MediaSyncServer::getInstance(); });
    expect("filter, pairing", ">onFilterConnection",
           [&] { open(3, "/local/hbbtv/t/n"), m_server->onFilterConnection(); });
    expect("filter, other", ">onFilterConnection | <onFilterConnection",
           [&] { open(4, "/x"), m_server->onFilterConnection(); });
    struct Refusing : ClientObserver {
        int getCssServerStatus() override { return status; }
        int status = 1;
    } refusing;
    m_server->addObserver(&refusing);
    expect("filter, 403", ">onFilterConnection", [&] { open(4, "/x"), m_server->onFilterConnection(); });
    refusing.status = 2;
    expect("filter, 503", ">onFilterConnection", [&] { open(4, "/x"), m_server->onFilterConnection(); });
    expect("connect, socket 0",
           ">handlePairingConnection | handlePairingConnection:endpoint.c_str()=/n | <handlePairingConnection",
           [&] { m_server->handlePairingConnection("/local/hbbtv/t/n", 0, open(0, "")); });
    expect("connect, waiting",
           ">onConnect | onConnect:fulluri.c_str()=/local/hbbtv/t/n | >handlePairingConnection | "
           "handlePairingConnection:endpoint.c_str()=/n | <handlePairingConnection",
           [&] { local = connect(5, "/local/hbbtv/t/n"); });
    expect("connect, remote last",
           ">onConnect | onConnect:fulluri.c_str()=/remote/hbbtv/u/n | >handlePairingConnection | "
           "handlePairingConnection:endpoint.c_str()=/n | handlePairingConnection:\"remote paired\"=remote paired | "
           "<handlePairingConnection",
           [&] { remote = connect(6, "/remote/hbbtv/u/n"); });
    expect("connect, other", ">onConnect | onConnect:fulluri.c_str()=/x | <onConnect",
           [&] { other = connect(7, "/x"); });
    expect("message, pair", ">onMessage | >handlePairingMsg | <handlePairingMsg | !onMessage", [&] { message(local); });
    std::atomic_ref(m_server->enablePairing).store(false);
    expect("message, pairing off", ">onMessage | >handlePairingMsg | handlePairingMsg:enablePairing=0 | !onMessage",
           [&] { message(remote); });
    expect("message, other", ">onMessage | >handlePairingMsg | <handlePairingMsg | <onMessage",
           [&] { message(other); });
    expect("message, unknown", ">onMessage | >handlePairingMsg | <handlePairingMsg | !onMessage",
           [&] { message(open(99, "/y")); });
    expect("close, pair", ">onClose | >handlePairingClose | <handlePairingClose | <onClose", [&] { close(local); });
    expect("close, last of a pair", ">onClose | >handlePairingClose | <handlePairingClose | <onClose",
           [&] { close(remote); });
    expect("close, other", ">onClose | >handlePairingClose | <handlePairingClose | <onClose", [&] { close(other); });
    expect("close, unknown", ">onClose | ###can't find client id", [&] { close(open(98, "/y")); });
    connect(5, "/remote/hbbtv/t/m");
    expect("connect, local last",
           ">onConnect | onConnect:fulluri.c_str()=/local/hbbtv/u/m | >handlePairingConnection | "
           "handlePairingConnection:endpoint.c_str()=/m | handlePairingConnection:\"local paired\"=local paired | "
           "<handlePairingConnection",
           [&] { connect(6, "/local/hbbtv/u/m"); });
}

TEST_F(Trace, OfOutboundOperations) {
    ClientObserver observer;
    char text[] = "x";
    const auto send = [&](int id) { return [&, id] { observer.sendMessage(text, 1, id); }; };
    const auto sendAll = [&] { observer.sendMessageAll(text, 1, -1); };
    const auto closeClient = [&](int id) { return [&, id] { observer.closeClientConnection(id); }; };
    expect("send, no server", ">sendMessage | !sendMessage", send(1));
    expect("send all, no server", ">sendMessageAll | !sendMessageAll", sendAll);
    expect("close, no server", ">closeClientConnection | !closeClientConnection", closeClient(1));
    expect("url, no server", "", [&] { observer.getUrl(1); });
    expect("add", "", [&] { m_server->addObserver(&observer); });
    for (const int id : {1, -1}) {
        expect("send", ">sendMessage | >observerSendMessage | <observerSendMessage | <sendMessage",
               [&] { connect(5 - id, "/x"), m_output->take(), send(id)(); });
        expect("close",
               ">closeClientConnection | >observerCloseClientConnection | <observerCloseClientConnection | "
               "<closeClientConnection",
               closeClient(id));
    }
    expect("send, unknown id", ">sendMessage | >observerSendMessage | !observerSendMessage | <sendMessage", send(77));
    expect("close, unknown id",
           ">closeClientConnection | >observerCloseClientConnection | !observerCloseClientConnection | "
           "<closeClientConnection",
           closeClient(77));
    expect("send all", ">sendMessageAll | >observerSendMessageAll | <observerSendMessageAll | <sendMessageAll",
           sendAll);
    expect("url", "", [&] { observer.getUrl(1); });
    expect("remove", "", [&] { m_server->removeObserver(&observer); });
}

const std::string kRoutes = "header\neth0\t0\t0\t3\t0\t0\t0\t0\t0\t0\t0\n";
const std::string kFound = ">getLocalIpAddr | getLocalIpAddr:iface_name=eth0 | getLocalIpAddr:ip_addr=10.11.12.13";

TEST_F(Trace, OfTheUrls) {
    char address[16] = "before";
    const auto lookUp = [&] { getLocalIpAddr(address, 15); };
    outside::address = "";
    expect("no table", ">getLocalIpAddr | !getLocalIpAddr", lookUp);
    outside::routes = "";
    expect("empty table", ">getLocalIpAddr | !getLocalIpAddr", lookUp);
    outside::routes = "header\n";
    expect("no route", ">getLocalIpAddr | getLocalIpAddr:iface_name= | getLocalIpAddr:ip_addr=before", lookUp);
    outside::routes = kRoutes;
    expect("no address", ">getLocalIpAddr | getLocalIpAddr:iface_name=eth0 | getLocalIpAddr:ip_addr=before", lookUp);
    outside::noSockets = true;
    expect("no socket", ">getLocalIpAddr | getLocalIpAddr:iface_name=eth0 | !getLocalIpAddr", lookUp);
    outside::noSockets = false;
    outside::address = "10.11.12.13";
    expect("found", kFound, lookUp);

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
        expect("url", ">" + f + " | " + kFound + " | <" + f, operation);
        outside::routes.reset();
        expect("url, no address", ">" + f + " | >getLocalIpAddr | !getLocalIpAddr | !" + f, operation);
    }
}

void ignoreEvent(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*) {
}

template <typename Kind>
class CssTrace : public Trace {
protected:
    static constexpr bool kIsCii = std::is_same_v<Kind, Cii>;
    const std::string m_word = kIsCii ? "Cii" : "Ts", m_add = "add" + m_word + "ClientId",
                      m_remove = "remove" + m_word + "ClientId",
                      m_exists = std::string(kIsCii ? "cii" : "ts") + "ClientIdExists";

    static std::string step(const std::string& f) { return ">" + f + " | <" + f; }
    /// The id test traces its end for one of the two only.
    std::string idTest() { return kIsCii ? step(m_exists) : ">" + m_exists; }
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
    const std::string shortName = N::kName, className = "ZenkCSS" + shortName + "Server";
    std::string init = "x", uri = N::kUri, otherUri = "/other";
    unsigned char text[] = "hi";
    std::unique_ptr<Server> server;
    const std::string built = ">" + className + " | " + shortName + " m_maxClientNum = 25 | <" + className;
    this->expect("string constructor", built, [&] { server = std::make_unique<Server>(init); });
    this->expect("destructor", this->step("~" + className), [&] { server.reset(); });
    this->expect("constructor", built, [&] { server = std::make_unique<Server>(); });
    this->expect("disable, no server",
                 ">setEnableInterDevSync | >closeClientConnection | !closeClientConnection | <setEnableInterDevSync",
                 [&] { server->setEnableInterDevSync(false); });
    this->m_server->addObserver(server.get());

    this->expect("status, disabled", ">getCssServerStatus", [&] { server->getCssServerStatus(); });
    this->expect("enable", this->step("setEnableInterDevSync"), [&] { server->setEnableInterDevSync(true); });
    this->expect("status", this->step("getCssServerStatus"), [&] { server->getCssServerStatus(); });
    this->expect("register", this->step("register" + shortName + "EventCallback"),
                 [&] { (*server.*N::kRegister)(ignoreEvent, server.get()); });
    this->expect("exists", this->idTest(), [&] { (*server.*N::kExists)(1); });

    const std::string queued = this->step("queueEvent");
    const std::string added = this->kIsCii ? this->step(this->m_add) : ">" + this->m_add;
    this->expect("add", added, [&] { (*server.*N::kAdd)(1000); });
    this->expect("add again", ">" + this->m_add + (this->kIsCii ? " | !" + this->m_add : ""),
                 [&] { (*server.*N::kAdd)(1000); });
    const std::string head = ">onNewClient | " + this->idTest() + " | m_maxClientNum = 25 | onNewClient:requrl=";
    this->expect("new client", head + uri + " | " + added + " | " + queued + " | <onNewClient",
                 [&] { server->onNewClient(uri.data(), 1); });
    this->expect("new client, other", head + otherUri + " | <onNewClient",
                 [&] { server->onNewClient(otherUri.data(), 2); });
    this->expect("new client, again", ">onNewClient | " + this->idTest() + " | !onNewClient",
                 [&] { server->onNewClient(uri.data(), 1); });
    this->expect("new client, no URI", ">onNewClient | !onNewClient", [&] { server->onNewClient(nullptr, 3); });

    this->expect("message", ">onMessage | " + this->idTest() + " | onMessage:msg=hi | " + queued + " | <onMessage",
                 [&] { server->onMessage(text, 2, 1); });
    this->expect("message, stranger", ">onMessage | " + this->idTest() + " | !onMessage",
                 [&] { server->onMessage(text, 2, 55); });
    this->expect("message, no data", ">onMessage | !onMessage", [&] { server->onMessage(nullptr, 2, 1); });
    this->expect("leave", ">onClientLeave | " + this->idTest() + " | " + queued + " | <onClientLeave",
                 [&] { server->onClientLeave(1); });
    this->expect("leave, stranger", ">onClientLeave | " + this->idTest() + " | !onClientLeave",
                 [&] { server->onClientLeave(1); });

    const std::string remove = this->m_remove;
    const std::string plainEnd = this->kIsCii ? "" : " | <" + remove;
    this->connect(40, "/x");  // client 1 of the registry, which can be closed
    (*server.*N::kAdd)(1);
    this->expect("remove", ">" + remove + " | " + this->closing(), [&] { (*server.*N::kRemove)(1); });
    this->expect("remove, not there", ">" + remove + plainEnd, [&] { (*server.*N::kRemove)(1); });
    (*server.*N::kRemove)(1000);
    (*server.*N::kAdd)(1);
    this->expect("remove all", ">" + remove + " | " + this->closing() + plainEnd, [&] { (*server.*N::kRemove)(-1); });
    this->expect("remove, empty", ">" + remove + " | !" + remove, [&] { (*server.*N::kRemove)(-1); });

    ZenkCSSEevntInfo info{1, "x"};
    constexpr auto kMessage = static_cast<ZenkCSSEvent>(N::kNew + 1);
    this->expect("dispatch", this->step("dispatchEventToMS"), [&] { server->dispatchEventToMS(kMessage, &info); });
    this->expect("unregister", this->step("unRegister" + shortName + "EventCallback"),
                 [&] { (*server.*N::kUnregister)(); });
    this->expect("dispatch, nobody", this->step("dispatchEventToMS"),
                 [&] { server->dispatchEventToMS(kMessage, &info); });

    for (int id = 100; id < 125; ++id) (*server.*N::kAdd)(id);
    this->expect("status, full", ">getCssServerStatus", [&] { server->getCssServerStatus(); });
    for (std::string* any : {&uri, &otherUri}) {
        this->expect("new client, full",
                     ">onNewClient | " + this->idTest() + " | m_maxClientNum = 25 | " + shortName +
                         " Client num reach max number, can't connect",
                     [&] { server->onNewClient(any->data(), 9); });
    }
    this->expect("disable", ">setEnableInterDevSync | " + this->closing() + " | <setEnableInterDevSync",
                 [&] { server->setEnableInterDevSync(false); });
    this->expect("dispatch, disabled", ">dispatchEventToMS | !dispatchEventToMS",
                 [&] { server->dispatchEventToMS(kMessage, &info); });

    std::string url;
    const std::string f = "getCss" + this->m_word + "Endpoint", builder = this->kIsCii ? "getInterDevSyncUrl" : f;
    const std::string asked = ">" + f + " | >getInstance | <getInstance | >" + builder + " | ";
    const auto endpoint = [&] { (*server.*N::kEndpoint)(url); };
    outside::routes.reset();
    this->expect("endpoint, no address",
                 asked + ">getLocalIpAddr | !getLocalIpAddr | !" + builder + " | " + f + ":url.c_str()= | <" + f,
                 endpoint);
    outside::routes = kRoutes;
    outside::address = "10.11.12.13";
    this->kIsCii ? this->m_server->getInterDevSyncUrl(url) : this->m_server->getCssTsEndpoint(url);
    this->expect("endpoint", asked + kFound + " | <" + builder + " | " + f + ":url.c_str()=" + url + " | <" + f,
                 endpoint);
}

TEST_F(Trace, OfTheDispatcher) {
    std::unique_ptr<ZenkCSSEventDispatcher> dispatcher;
    ZenkDispatcherInfo record{static_cast<ZenkCSSEvent>(6), &record, 1, ""};
    expect("built", ">ZenkCSSEventDispatcher | >startEventThread | <startEventThread | <ZenkCSSEventDispatcher",
           [&] { dispatcher = std::make_unique<ZenkCSSEventDispatcher>(); });
    expect("queue", ">queueEvent | <queueEvent", [&] { dispatcher->queueEvent(&record); });
    expect("thread without a dispatcher", ">cssEventThread | <cssEventThread", [] { cssEventThread(nullptr); });
    expect("queue nothing", ">queueEvent | !queueEvent", [&] { dispatcher->queueEvent(nullptr); });
    expect("destroyed", ">~ZenkCSSEventDispatcher | <~ZenkCSSEventDispatcher", [&] { dispatcher.reset(); });
    check("event thread", joined(m_output->take(TraceWords::From::kOtherThreads)),
          ">cssEventThread | >processEvent | !processEvent | <processEvent | <cssEventThread");
    expect("built by a server",
           ">ZenkCSSWCServer | >ZenkCSSEventDispatcher | >startEventThread | <startEventThread | "
           "<ZenkCSSEventDispatcher | <ZenkCSSWCServer | >~ZenkCSSWCServer | <~ZenkCSSWCServer",
           [&] { ZenkCSSWCServer server; });
    dispatcher.reset(ZenkCSSEventDispatcher::m_instance);
    expect("stop", ">stopEventThread | <stopEventThread", [&] { dispatcher->stopEventThread(); });
}

TEST_F(Trace, OfTheWallClockServer) {
    using From = TraceWords::From;
    const int portNumber = freePort();
    std::string port = std::to_string(portNumber);
    WallClockClient client(portNumber);
    /// Asks until the server, which may still be on its way, answers.
    const auto ask = [&] {
        WallClockClient::Reply reply;
        return waitUntil([&] { return client.send("question"), client.receive(reply); });
    };
    ZenkCSSEventDispatcher dispatcher;
    ZenkCSSWCServer idle;
    expect("no port", ">startWCServer | !startWCServer", [&] { idle.startWCServer(); });
    expect("stop, stopped", ">stopWCServer | !stopWCServer", [&] { idle.stopWCServer(); });
    ZenkCSSWCServer server(port);
    std::atomic_ref(server.m_enableInterDevSync).store(1);
    const auto refuses = [&](const char* what, const std::string& message) {
        testing::internal::CaptureStderr();
        expect(what, ">startWCServer | !startWCServer", [&] { server.startWCServer(); });
        check(what, testing::internal::GetCapturedStderr(), message);
    };
    {
        const Socket blocker = bindPort(portNumber, SOCK_DGRAM);
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
    ASSERT_TRUE(ask());
    check("answer", joined(m_output->take()),
          "##MS## receive msg from wc client, len=8,msg:question | ##MS## send msg to wc client, len=32");
    expect("second start", ">startWCServer | !startWCServer", [&] { server.startWCServer(); });
    client.send(std::string("quitwc\0", 7));
    serving.join();
    check("wake word", joined(m_output->take()), "##MS## receive msg from wc client, len=7,msg:quitwc");
    check("end by the wake word", stepsOf("startWCServer", From::kOtherThreads),
          ">startWCServer | !startWCServer | <startWCServer");

    std::thread again([&] { server.startWCServer(); });
    ASSERT_TRUE(ask());
    m_output->take();
    server.stopWCServer();
    again.join();
    check("stop", stepsOf("stopWCServer", From::kThisThread), ">stopWCServer | <stopWCServer");
    check("end by stop", stepsOf("startWCServer", From::kOtherThreads),
          ">startWCServer | !startWCServer | <startWCServer");

    std::thread last([&] { server.startWCServer(); });
    ASSERT_TRUE(ask());
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
