// The CSS servers: what they come up with, whom they let go, and the road of an event to the host's callback.
#include <sys/mman.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

#include "tests/support/environment.h"
#include "tests/support/front_end.h"
#include "wsserver/css_client_list.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

using Actions = std::vector<Action>;
using Events = std::vector<std::pair<unsigned, int>>;  // and their clients

ZenkCSSEventDispatcher*& g_dispatcher = ZenkCSSEventDispatcher::m_instance;

TEST(CssLimit, ComesFromAValidConfiguration) {
    const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("vel_config", 0));
    setenv("VEL_CONFIG_FILE", path.c_str(), 1);
    const auto limitOf = [&path](const std::string& value) {
        std::ofstream(path) << "MSMaxClientNum=2\nnonsense\n[HbbTV]\nMSMaxClientNum=" << value;
        return zenk::readCssClientLimit();
    };
    EXPECT_EQ(limitOf("100 ; why\n[X]\nMSMaxClientNum=3"), 100);
    for (const char* bad : {"0", "-3", "", "10x", "1 0", "2147483648", "10\nMSMaxClientNum=11"})
        EXPECT_EQ(limitOf(bad), 25) << bad;
}

// Of the allocations of the constructions each fails once.
TEST(Constructors, ComeUpWithoutMemory) {
    if (kIsSanitized) GTEST_SKIP() << "the sanitizer's allocator does not fail";
    std::string text(100, '1');
    long count = 0;
    do {
        failAllocationOf(pthread_self(), count++);
        EXPECT_NO_THROW((ZenkCSSCIIServer(text), ZenkCSSTSServer(text), ZenkCSSWCServer(text)));
        delete g_dispatcher;
    } while (stopFailing());
}

/// The host of both servers. Its callback notes what comes, and then does what the test wants.
class EventQueue : public FrontEnd {
protected:
    static constexpr auto kCii = &ZenkCSSCIIServer::registerCIIEventCallback;
    static constexpr auto kTs = &ZenkCSSTSServer::registerTSEventCallback;

    EventQueue() { build(m_cii, kCii), build(m_ts, kTs); }
    ~EventQueue() override { delete g_dispatcher; }

    static void onEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* fixture) {
        auto& self = *static_cast<EventQueue*>(const_cast<void*>(fixture));
        std::unique_lock lock(self.m_mutex);
        self.m_events.emplace_back(event, info->clientId);
        self.m_arrival.notify_one();
        lock.unlock();
        self.m_then(event);
    }
    void build(auto& css, auto subscribe) {
        css = std::make_unique<std::remove_reference_t<decltype(*css)>>();
        ((*css).*subscribe)(onEvent, this);
        css->setEnableInterDevSync(true);
        server.addObserver(css.get());
    }
    static void queue(unsigned event, void* css, int clientId, std::size_t bytes = 0) {
        ZenkDispatcherInfo record{static_cast<ZenkCSSEvent>(event), css, clientId, std::string(bytes, 'm')};
        g_dispatcher->queueEvent(&record);
    }
    /// The events since the last call, once there are `count` or the deadline has passed.
    Events take(std::size_t count) {
        std::unique_lock lock(m_mutex);
        m_arrival.wait_for(lock, kPatience, [&] { return m_events.size() >= count; });
        return std::exchange(m_events, {});
    }
    static Action hold(lws* wsi) { return {Action::kReception, wsi, 0, ""}; }
    static Action resume(lws* wsi) { return {Action::kReception, wsi, 1, ""}; }

    std::mutex m_mutex;
    std::condition_variable m_arrival;
    Events m_events;  // guarded by m_mutex
    std::function<void(unsigned event)> m_then = [](unsigned) {};
    std::unique_ptr<ZenkCSSCIIServer> m_cii;
    std::unique_ptr<ZenkCSSTSServer> m_ts;
    const std::function<void()> m_ends[3] = {[this] { m_cii.reset(); }, [this] { m_ts.reset(); },
                                             [] { delete g_dispatcher; }};
};

TEST_F(EventQueue, DeliversEachEventOnceAndInOrderAndOnlyToTheLivingServerThatItIsMeantFor) {
    for (int burst = 0; burst < 3000; ++burst) {  // the last event of one must not wait for the next burst
        for (const unsigned event : {5u, 0u, 3u, 6u, 1u, ~0u, 4u, 2u})
            for (void* each : std::initializer_list<void*>{m_cii.get(), m_ts.get(), nullptr, this})
                queue(event, each, burst);
        ASSERT_EQ(take(6), (Events{{5, burst}, {0, burst}, {3, burst}, {1, burst}, {4, burst}, {2, burst}}));
    }
    g_dispatcher->stopEventThread();
    ASSERT_TRUE(waitForEventThreads(0));
    void* const place = m_cii.get();
    queue(1, place, 1);
    m_cii.reset();
    queue(1, place, 2);
    build(m_cii, kCii);
    EXPECT_TRUE(m_cii.get() == place || kIsSanitized);
    for (const int client : {3, 4}) queue(1, m_cii.get(), client);
    m_then = nullptr;  // whose call throws
    for (int twice = 0; twice < 2; ++twice) g_dispatcher->startEventThread();
    EXPECT_EQ(take(2), (Events{{1, 3}, {1, 4}})) << "of the server that is in its place now";
    EXPECT_TRUE(waitForEventThreads(1));
}

TEST_F(EventQueue, SweepsAClientWhoseHandshakeIsUnderWay) {
    lws* const client = open(98, "/css-cii");
    EXPECT_EQ(filter(client), 0);
    m_cii->setEnableInterDevSync(false);
    establish(client);
    m_cii->setEnableInterDevSync(false);
    EXPECT_EQ(takeActions(), (Actions(2, {Action::kClose, client, 1001, ""}))) << "by both sweeps";
    EXPECT_EQ(m_cii->ciiClientIdExists(1), 0);
}

// All together come to 64 MiB first, and the event thread drains the queue, and decides to let the last one go, while
// this thread is about to hold it. Then one of each of two front ends comes to 4 MiB.
TEST_F(EventQueue, HoldsClientsUntilTheirEventsAreTakenOrDropped) {
    g_dispatcher->stopEventThread();
    ASSERT_TRUE(waitForEventThreads(0));
    m_then = [taken = 0](unsigned) mutable { ++taken < 60 ? void() : g_dispatcher->stopEventThread(); };
    g_onHold = [&] { g_dispatcher->startEventThread(), take(60), waitForEventThreads(0); };
    for (int client = 1; client <= 68; ++client) {
        connect("/x");
        queue(4, m_ts.get(), client, 1'000'000);
    }
    lws *const here = &m_connections.front(), *const last = &m_connections.back();
    EXPECT_EQ(takeActions(), (Actions{hold(last), resume(last)})) << "a late hold is not the last word";
    g_onHold = nullptr;

    MediaSyncServer second;
    ZenkCSSTSServer there;
    second.addObserver(&there);
    lws* const away = second.m_wsi = open(98, "/css-ts");
    second.onConnect();
    for (const Actions& expected : {Actions(), Actions{hold(here), hold(away)}}) {
        queue(1, m_cii.get(), 1, 3'000'000);
        queue(4, &there, 1, 3'000'000);
        EXPECT_EQ(takeActions(), expected);
    }
    m_cii.reset();
    EXPECT_EQ(takeActions(), Actions{resume(here)}) << "nobody is held for what will never be delivered";
    delete g_dispatcher;
    EXPECT_EQ(takeActions(), Actions{resume(away)});
}

// Servers and dispatcher go in every order, and the first of them from the callback of another, perhaps while the
// second goes. A client meanwhile comes, speaks and leaves as fast as it can, and must not be reached when it has gone.
TEST_F(EventQueue, LivesTwoThousandLives) {
    std::size_t order[] = {0, 1, 2};
    std::atomic<bool> isFirstToGo = false;
    m_then = [&](unsigned event) {
        if (event / 3 != order[0] && isFirstToGo.exchange(false)) m_ends[order[0]]();
    };
    lws* const client = open(98, "/css-cii/css-ts");
    const std::jthread service([&](const std::stop_token& end) {
        while (!end.stop_requested()) {
            client->isOpen = true;
            establish(client);
            message(client, "message");
            close(client);
            takeActions();
        }
    });
    for (int life = 0; life < 2000; ++life, std::ranges::next_permutation(order)) {
        std::thread builder([this] { build(m_cii, kCii); });
        build(m_ts, kTs);
        builder.join();
        m_cii->closeClientConnection(-1);
        EXPECT_GT(take(3).size(), 2u) << "nothing comes";
        isFirstToGo = true;
        EXPECT_TRUE(life / 6 % 2 == 0 || waitUntil([&] { return !isFirstToGo; }));
        m_ends[order[1]]();
        if (isFirstToGo.exchange(false)) m_ends[order[0]]();
        m_ends[order[2]]();
    }
}

}  // namespace
}  // namespace zenk_test
