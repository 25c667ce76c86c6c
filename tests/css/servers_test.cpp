#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "tests/css/css_host.h"
#include "tests/support/config_file.h"
#include "tests/support/css_kinds.h"

namespace {

using zenk_test::Cii;
using zenk_test::Ts;

template <typename Kind>
class CssServer : public Clients {
protected:
    using Server = typename Kind::Server;

    ~CssServer() override {
        m_server.reset();
        delete ZenkCSSEventDispatcher::m_instance;
    }

    // Builds the server as a host does. @return what that printed
    std::string build(const std::string& limit) {
        const zenk_test::ConfigFile config("[HbbTV]\nMSMaxClientNum=" + limit + "\n");
        m_server.reset();
        testing::internal::CaptureStdout();
        m_server = std::make_unique<Server>();
        const std::string printed = testing::internal::GetCapturedStdout();
        server.addObserver(m_server.get());
        (*m_server.*Kind::kRegister)(Host::note, &m_host);
        m_server->setEnableInterDevSync(true);
        return printed;
    }

    int add(int id) { return (*m_server.*Kind::kAdd)(id); }
    int remove(int id) { return (*m_server.*Kind::kRemove)(id); }
    int exists(int id) { return (*m_server.*Kind::kExists)(id); }

    // What the host got of all that was queued before this call; the queue is one for all, so a mark comes last.
    std::vector<Event> events() {
        constexpr int kMark = 1'000'000;
        ZenkDispatcherInfo mark{static_cast<ZenkCSSEvent>(Kind::kNew), m_server.get(), kMark, ""};
        ZenkCSSEventDispatcher::m_instance->queueEvent(&mark);
        std::vector<Event> all;
        while (all.empty() || std::get<1>(all.back()) != kMark) {
            const std::vector<Event> more = m_host.take(1);
            if (more.empty()) return {{99, 0, "the mark is missing"}};
            all.insert(all.end(), more.begin(), more.end());
        }
        all.pop_back();
        return all;
    }

    std::unique_ptr<Server> m_server;
    Host m_host;
};

using Kinds = testing::Types<Cii, Ts>;
TYPED_TEST_SUITE(CssServer, Kinds);

TYPED_TEST(CssServer, TakesItsLimitFromTheConfiguration) {
    const std::string name = TypeParam::kName;
    for (const auto& [text, limit] :
         {std::pair{"1", 1}, {"25", 25}, {"1000", 1000}, {"0", 25}, {"-3", 25}, {"ten", 25}}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(this->build(text), name + " m_maxClientNum = " + std::to_string(limit) + "\n");
        for (int id = 1; id < limit; ++id) this->add(id);
        EXPECT_EQ(this->m_server->getCssServerStatus(), 0);
        this->add(limit);
        EXPECT_EQ(this->m_server->getCssServerStatus(), 2);
        this->m_server->setEnableInterDevSync(false);
        EXPECT_EQ(this->m_server->getCssServerStatus(), 1);
    }
}

TYPED_TEST(CssServer, TellsTheHostOfItsOwnClientsOnly) {
    const std::string uri = TypeParam::kUri;
    constexpr unsigned kNew = TypeParam::kNew;
    this->build("3");
    const int first = this->newClient("/x" + uri + "y?z");
    const int stranger = this->newClient("/css-");
    const int second = this->newClient(uri + "/token/");
    this->m_server->onNewClient(nullptr, 77);
    this->message(this->client(first), std::string("a\0b", 3));
    this->message(this->client(stranger), "not for us");
    this->message(this->client(second), "");
    this->m_server->onMessage(nullptr, 1, second);
    this->close(this->client(stranger));
    this->close(this->client(first));
    EXPECT_EQ(this->events(), (std::vector<Event>{{kNew, first, ""},
                                                  {kNew, second, ""},
                                                  {kNew + 1, first, std::string("a\0b", 3)},
                                                  {kNew + 1, second, ""},
                                                  {kNew + 2, first, ""}}));
    EXPECT_EQ(this->exists(first), 0);
    EXPECT_EQ(this->exists(second), 1);
}

TYPED_TEST(CssServer, TurnsClientsAwayAtTheLimitUntilOneLeaves) {
    const std::string uri = TypeParam::kUri;
    this->build("1");
    const int first = this->newClient(uri), tooMuch = this->newClient(uri);
    EXPECT_EQ(this->exists(tooMuch), 0);
    this->close(this->client(first));
    EXPECT_EQ(this->m_server->getCssServerStatus(), 0);
    const int next = this->newClient(uri);
    EXPECT_EQ(this->exists(next), 1);
    EXPECT_EQ(this->events().size(), 3U);
    EXPECT_TRUE(this->takeClosed().empty());
}

TYPED_TEST(CssServer, RemovesAndClosesClients) {
    const std::string uri = TypeParam::kUri;
    this->build("5");
    EXPECT_EQ(this->remove(-1), 0);
    std::vector<int> ids;
    for (int i = 0; i < 3; ++i) ids.push_back(this->newClient(uri));
    const int stranger = this->newClient("/other");
    EXPECT_EQ(this->remove(stranger), 0);
    EXPECT_TRUE(this->takeClosed().empty());
    EXPECT_EQ(this->remove(ids[1]), 1);
    EXPECT_EQ(this->remove(ids[1]), 0);
    EXPECT_EQ(this->takeClosed(), (std::vector<int>{ids[1]}));
    this->events();
    this->close(this->client(ids[1]));
    EXPECT_EQ(this->remove(-1), 0);
    EXPECT_EQ(this->takeClosed(), (std::vector<int>{ids[0], ids[2]}));
    this->close(this->client(ids[0]));
    this->close(this->client(ids[2]));
    EXPECT_TRUE(this->events().empty());

    const int last = this->newClient(uri);
    this->m_server->setEnableInterDevSync(true);
    EXPECT_TRUE(this->takeClosed().empty());
    this->m_server->setEnableInterDevSync(false);
    const std::vector<int> closed = this->takeClosed();
    EXPECT_TRUE(std::ranges::count(closed, stranger) == 1 && std::ranges::count(closed, last) == 1);
    EXPECT_EQ(this->exists(last), 0);
    this->close(this->client(stranger));
    this->close(this->client(last));
}

TYPED_TEST(CssServer, DeliversByTheFlagAndTheCallbackOfTheMoment) {
    constexpr unsigned kNew = TypeParam::kNew;
    this->build("5");
    const auto dispatch = [this](int id) {
        ZenkCSSEevntInfo info{id, "x"};
        this->m_server->dispatchEventToMS(static_cast<ZenkCSSEvent>(kNew), &info);
    };
    dispatch(1);
    this->m_server->setEnableInterDevSync(false);
    dispatch(2);
    this->m_server->onNewClient(std::string(TypeParam::kUri).data(), 3);  // recorded while disabled
    EXPECT_EQ(this->exists(3), 1);
    this->m_server->setEnableInterDevSync(true);
    (*this->m_server.*TypeParam::kRegister)(Host::note, nullptr);
    dispatch(4);
    (*this->m_server.*TypeParam::kUnregister)();
    dispatch(5);
    (*this->m_server.*TypeParam::kRegister)(Host::note, &this->m_host);
    dispatch(6);
    std::vector<Event> got = this->m_host.take(2);
    std::erase(got, Event{kNew, 3, ""});  // came before or after the flag was back
    EXPECT_EQ(got, (std::vector<Event>{{kNew, 1, "x"}, {kNew, 6, "x"}}));
}

TYPED_TEST(CssServer, UnregisteringWaitsForTheCallback) {
    struct Call {
        Door entered, door;
        std::atomic<bool> finished = false;
    } call;
    this->build("5");
    (*this->m_server.*TypeParam::kRegister)(
        [](ZenkCSSEvent, ZenkCSSEevntInfo*, void const* user) {
            auto& running = *static_cast<Call*>(const_cast<void*>(user));
            running.entered.open();
            running.door.pass();
            running.finished = true;
        },
        &call);
    this->newClient(TypeParam::kUri);
    ASSERT_TRUE(call.entered.pass());
    std::thread opener([&] { call.door.open(); });
    (*this->m_server.*TypeParam::kUnregister)();
    EXPECT_TRUE(call.finished);
    opener.join();
}

using CssServers = Clients;

TEST_F(CssServers, CloseAClientWhoseHandshakeIsUnderWayWhenTheyAreDisabled) {
    ZenkCSSCIIServer css;
    server.addObserver(&css);
    css.setEnableInterDevSync(true);
    lws *const swept = zenk_test::openConnection(7, "/css-cii"), *const app =
                                                                     zenk_test::openConnection(8, "/local/hbbtv/");
    for (lws* wsi : {swept, app}) {
        EXPECT_EQ(filter(wsi), 0);
        css.setEnableInterDevSync(false);
        establish(wsi);
        css.setEnableInterDevSync(true);
    }
    using zenk_test::Action;
    EXPECT_EQ(zenk_test::takeActions(), (std::vector<Action>(2, {Action::kClose, swept, 1001, ""})))
        << "by both sweeps";
    close(swept);
    EXPECT_EQ(css.ciiClientIdExists(1), 0);
    delete ZenkCSSEventDispatcher::m_instance;
}

TEST_F(CssServers, ShareAClientButNotTheirCounts) {
    setenv("VEL_CONFIG_FILE", "/nowhere", 1);
    ZenkCSSCIIServer cii;
    ZenkCSSTSServer ts;
    EXPECT_EQ(cii.removeCiiClientId(1), 0);
    ts.setEnableInterDevSync(false);  // before addObserver(): nobody to close
    server.addObserver(&cii);
    server.addObserver(&ts);
    for (int i = 0; i < 24; ++i) newClient("/css-cii");
    const int both = newClient("/css-ts/css-cii");
    cii.setEnableInterDevSync(true);
    ts.setEnableInterDevSync(true);
    EXPECT_EQ(cii.getCssServerStatus(), 2);
    EXPECT_EQ(ts.getCssServerStatus(), 0);
    cii.setEnableInterDevSync(false);
    EXPECT_EQ(cii.ciiClientIdExists(both), 0);
    EXPECT_EQ(ts.tsClientIdExists(both), 1);
    EXPECT_EQ(ZenkCSSCIIServer::m_instance, &cii);
    { ZenkCSSCIIServer other; }
    EXPECT_EQ(ZenkCSSCIIServer::m_instance, nullptr);
}

}  // namespace
