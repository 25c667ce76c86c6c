#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "platform/vel_config.h"
#include "tests/support/css_host.h"
#include "tests/support/css_kinds.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/sanitizer.h"

namespace {

using zenk_test::Action;
using zenk_test::Door;
using zenk_test::Event;
using zenk_test::Host;

void configure(const std::string& text) {
    static const int file = memfd_create("vel_config", MFD_CLOEXEC);
    EXPECT_EQ(ftruncate(file, 0), 0);
    EXPECT_EQ(pwrite(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    setenv("VEL_CONFIG_FILE", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
}

/// Clients by their ids, which are the numbers of their sockets, too.
class Clients : public zenk_test::FrontEnd {
protected:
    int newClient(const std::string& uri) {
        m_clients.push_back(open(static_cast<int>(m_clients.size()) + 1, uri));
        establish(m_clients.back());
        return m_clients.back()->socketFd;
    }
    lws* client(int id) { return m_clients.at(static_cast<std::size_t>(id) - 1); }

    /// The clients that were asked to close since the last call, in that order.
    static std::vector<int> takeClosed() {
        std::vector<int> ids;
        for (const Action& action : zenk_test::takeActions())
            if (action.kind == Action::kClose) ids.push_back(action.wsi->socketFd);
        return ids;
    }

private:
    std::vector<lws*> m_clients;
};

template <typename Kind>
class CssServer : public Clients {
protected:
    ~CssServer() override {
        css.reset();
        delete ZenkCSSEventDispatcher::m_instance;
    }

    /// Builds the server as a host does. @return what that printed
    std::string build(const std::string& configuration) {
        configure(configuration);
        css.reset();
        testing::internal::CaptureStdout();
        css = std::make_unique<typename Kind::Server>();
        const std::string printed = testing::internal::GetCapturedStdout();
        server.addObserver(css.get());
        setCallback(&Host::note, &host);
        css->setEnableInterDevSync(true);
        return printed;
    }
    void build(int limit) { build("[HbbTV]\nMSMaxClientNum=" + std::to_string(limit) + "\n"); }
    void setCallback(ZenkCSSEventCallback callback, const void* user) { ((*css).*Kind::kRegister)(callback, user); }
    int add(int id) { return ((*css).*Kind::kAdd)(id); }
    int remove(int id) { return ((*css).*Kind::kRemove)(id); }
    int exists(int id) { return ((*css).*Kind::kExists)(id); }

    std::unique_ptr<typename Kind::Server> css;
    Host host;
};
using Kinds = testing::Types<zenk_test::Cii, zenk_test::Ts>;
TYPED_TEST_SUITE(CssServer, Kinds);

TYPED_TEST(CssServer, TakesItsLimitFromAValidConfiguration) {
    const std::string key = "[HbbTV]\nMSMaxClientNum=";
    std::vector<std::pair<std::string, int>> table = {
        {key + "1", 1},
        {"MSMaxClientNum=2\n[Other]\nMSMaxClientNum=3\nnonsense\n[HbbTV]\nX=4\nMSMaxClientNum = 100 ; why\n", 100},
        {"[HbbTV]\nmsmaxclientnum=1\n[hbbtv]\nMSMaxClientNum=1\n", 25}};
    for (const char* bad : {"0", "-3", "ten", "", "10x", "1.5", "1 0", "0x10", "2147483648", "10\nMSMaxClientNum=11"})
        table.emplace_back(key + bad, 25);
    for (const auto& [configuration, limit] : table) {
        const std::string printed = TypeParam::kName + (" m_maxClientNum = " + std::to_string(limit)) + "\n";
        ASSERT_EQ(this->build(configuration), printed) << configuration;
        for (int id = 1; id < limit; ++id) this->add(id);
        EXPECT_EQ(this->css->getCssServerStatus(), 0);
        EXPECT_EQ(this->add(limit), 1);
        EXPECT_EQ(this->css->getCssServerStatus(), 2);
        this->css->setEnableInterDevSync(false);
        EXPECT_EQ(this->css->getCssServerStatus(), 1);
    }
    for (const char* file : {"/nowhere/at/all", "/", "/dev/zero"}) {
        setenv("VEL_CONFIG_FILE", file, 1);
        int value = 4711;
        EXPECT_NE(zenk_vel_config_get_int("HbbTV", "MSMaxClientNum", &value), 0);
        EXPECT_EQ(value, 4711);
    }
}

TYPED_TEST(CssServer, TellsTheHostOfItsOwnClientsUpToTheLimit) {
    const std::string uri = TypeParam::kUri;
    constexpr unsigned kNew = TypeParam::kNew;
    this->build(2);
    const int first = this->newClient("/x" + uri + "y?z"), stranger = this->newClient("/css-");
    const int second = this->newClient(uri + "/token/"), tooMuch = this->newClient(uri);
    this->css->onNewClient(nullptr, 77);
    this->message(this->client(first), std::string("a\0b", 3));
    for (const int id : {stranger, tooMuch, second}) this->message(this->client(id), "");
    this->css->onMessage(nullptr, 1, second);
    for (const int id : {stranger, tooMuch, first}) this->close(this->client(id));
    const int next = this->newClient(uri);
    EXPECT_EQ(this->host.take(6), (std::vector<Event>{{kNew, first, ""},
                                                      {kNew, second, ""},
                                                      {kNew + 1, first, std::string("a\0b", 3)},
                                                      {kNew + 1, second, ""},
                                                      {kNew + 2, first, ""},
                                                      {kNew, next, ""}}));
    EXPECT_EQ(std::tuple(this->exists(first), this->exists(second), this->exists(next)), std::tuple(0, 1, 1));
}

TYPED_TEST(CssServer, ClosesWhomItRemovesAndEverybodyWhenDisabled) {
    this->build(5);
    EXPECT_EQ(this->remove(-1), 0);
    std::vector<int> ids;
    for (const char* uri : {TypeParam::kUri, TypeParam::kUri, TypeParam::kUri, "/other"})
        ids.push_back(this->newClient(uri));
    for (const auto& [id, result] : {std::pair{ids[3], 0}, {ids[1], 1}, {ids[1], 0}})
        EXPECT_EQ(this->remove(id), result);
    EXPECT_EQ(this->takeClosed(), (std::vector<int>{ids[1]}));
    EXPECT_EQ(this->remove(-1), 0);
    EXPECT_EQ(this->takeClosed(), (std::vector<int>{ids[0], ids[2]}));
    const int last = this->newClient(TypeParam::kUri);
    this->css->setEnableInterDevSync(true);
    EXPECT_TRUE(this->takeClosed().empty());
    this->css->setEnableInterDevSync(false);
    EXPECT_EQ(std::ranges::count(this->takeClosed(), ids[3]), 1) << "a stranger too";
    for (const int id : {ids[0], ids[1], ids[2], ids[3], last}) this->close(this->client(id));
    this->css->setEnableInterDevSync(true);
    this->css->onNewClient(std::string(TypeParam::kUri).data(), 77);
    EXPECT_EQ(std::get<1>(this->host.take(5).back()), 77) << "of clients closed here no leave event comes";
}

TYPED_TEST(CssServer, DeliversByTheFlagAndTheCallbackOfTheMoment) {
    struct Call {
        Door entered, door;
        std::atomic<bool> finished = false;
    } call;
    const auto dispatch = [this](int id) {
        ZenkCSSEevntInfo info{id, "x"};
        this->css->dispatchEventToMS(static_cast<ZenkCSSEvent>(TypeParam::kNew), &info);
    };
    this->build(5);
    dispatch(1);
    this->css->setEnableInterDevSync(false);
    dispatch(2);
    this->css->setEnableInterDevSync(true);
    this->setCallback(&Host::note, nullptr);
    dispatch(3);
    EXPECT_EQ(this->host.take(1), (std::vector<Event>{{TypeParam::kNew, 1, "x"}}));
    const auto wait = [](ZenkCSSEvent, ZenkCSSEevntInfo*, const void* user) {
        auto& running = *static_cast<Call*>(const_cast<void*>(user));
        running.entered.open();
        running.door.pass();
        running.finished = true;
    };
    this->setCallback(wait, &call);
    this->newClient(TypeParam::kUri);
    ASSERT_TRUE(call.entered.pass());
    std::thread opener([&] { call.door.open(); });
    ((*this->css).*TypeParam::kUnregister)();
    EXPECT_TRUE(call.finished) << "unregistering waits for the callback";
    opener.join();
}

// Of the allocations of a construction each fails once.
template <typename Server>
void buildWithoutMemory() {
    std::string text(100, '1');
    bool hasFailed = true;
    for (long count = 0; hasFailed; ++count) {
        zenk_test::failAllocationOf(pthread_self(), count);
        EXPECT_NO_THROW(Server{text});
        hasFailed = zenk_test::stopFailing();
        delete ZenkCSSEventDispatcher::m_instance;
    }
}

TEST(Constructors, ComeUpWithoutMemory) {
    if (zenk_test::kIsSanitized) GTEST_SKIP() << "the sanitizer's allocator does not fail";
    buildWithoutMemory<ZenkCSSCIIServer>();
    buildWithoutMemory<ZenkCSSTSServer>();
    buildWithoutMemory<ZenkCSSWCServer>();
}

using CssServers = Clients;

TEST_F(CssServers, ShareAClientButNotTheirCountsAndSweepOneWhoseHandshakeIsUnderWay) {
    configure("[HbbTV]\nMSMaxClientNum=1\n");
    ZenkCSSCIIServer cii;
    ZenkCSSTSServer ts;
    ts.setEnableInterDevSync(false);  // before addObserver(): nobody to close
    server.addObserver(&cii);
    cii.setEnableInterDevSync(true);
    lws *const swept = open(7, "/css-cii"), *const app = open(8, "/local/hbbtv/");
    for (lws* wsi : {swept, app}) {
        EXPECT_EQ(filter(wsi), 0);
        cii.setEnableInterDevSync(false);
        establish(wsi);
        cii.setEnableInterDevSync(true);
    }
    EXPECT_EQ(zenk_test::takeActions(), (std::vector<Action>(2, {Action::kClose, swept, 1001, ""})))
        << "by both sweeps";
    close(swept);
    EXPECT_EQ(cii.ciiClientIdExists(1), 0);
    server.addObserver(&ts);
    ts.setEnableInterDevSync(true);
    newClient("/css-cii");
    EXPECT_EQ(ts.getCssServerStatus(), 0);
    newClient("/css-ts/css-cii");
    EXPECT_EQ(std::pair(cii.getCssServerStatus(), ts.getCssServerStatus()), std::pair(2, 2));
    { ZenkCSSCIIServer other; }
    EXPECT_EQ(ZenkCSSCIIServer::m_instance, nullptr);
    delete ZenkCSSEventDispatcher::m_instance;
}

}  // namespace
