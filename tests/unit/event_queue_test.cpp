// The road of an event to the host's callback: in which order it comes, who may go when, and which client waits.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <thread>

#include "tests/css/css_host.h"
#include "tests/support/sanitizer.h"

using Callback = std::function<void(int clientId)>;

static std::atomic<bool> g_refusesThreads = false;
static Callback g_beforeHold;  // called when a client is about to be held

extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
    if (entry == cssEventThread && g_refusesThreads) return EAGAIN;
    return __real_pthread_create(id, attributes, entry, argument);
}
// zenk_ws::lws_rx_flow_control()
int __real__ZN7zenk_ws19lws_rx_flow_controlEP3lwsi(lws*, int);
int __wrap__ZN7zenk_ws19lws_rx_flow_controlEP3lwsi(lws* wsi, int enable) {
    if (enable == 0 && g_beforeHold) g_beforeHold(0);
    return __real__ZN7zenk_ws19lws_rx_flow_controlEP3lwsi(wsi, enable);
}
}

namespace zenk_test {
namespace {

using Holds = std::vector<std::pair<lws*, bool>>;
using Events = std::vector<Event>;

void run(ZenkCSSEvent, ZenkCSSEevntInfo* info, void const* callback) {
    (*static_cast<const Callback*>(callback))(info->clientId);
}

ZenkCSSEventDispatcher* dispatcher() {
    return std::atomic_ref(ZenkCSSEventDispatcher::m_instance).load();
}

bool waitForThreads(int count) {
    return waitUntil([count] { return eventThreads() == count; });
}

class EventQueue : public FrontEnd {
protected:
    EventQueue() {
        setenv("VEL_CONFIG_FILE", "/nowhere", 1);
        build(m_cii, &ZenkCSSCIIServer::registerCIIEventCallback, Host::note, &m_host);
        build(m_ts, &ZenkCSSTSServer::registerTSEventCallback, Host::note, &m_host);
    }
    ~EventQueue() override {
        m_cii.reset();
        m_ts.reset();
        delete dispatcher();
        EXPECT_TRUE(waitForThreads(0));
        g_beforeHold = nullptr;
    }

    template <typename Server>
    void build(std::unique_ptr<Server>& css, auto registerCallback, auto callback, const void* userData) {
        css = std::make_unique<Server>();
        (css.get()->*registerCallback)(callback, userData);
        css->setEnableInterDevSync(true);
        server.addObserver(css.get());
    }
    static void queue(unsigned event, void* css, int clientId, std::string message = {}) {
        ZenkDispatcherInfo record{static_cast<ZenkCSSEvent>(event), css, clientId, std::move(message)};
        dispatcher()->queueEvent(&record);
        record = {static_cast<ZenkCSSEvent>(99), nullptr, -99, "overwritten"};
    }
    static void stop() {
        dispatcher()->stopEventThread();
        ASSERT_TRUE(waitForThreads(0));
    }
    void onTs(Callback callback) {
        m_callback = std::move(callback);
        m_ts->registerTSEventCallback(run, &m_callback);
    }
    /// Keeps the event thread in a callback of TS, which has begun, until the door opens.
    void holdUp(Door& door, std::atomic<bool>& finished) {
        onTs([&](int) {
            m_entered.open();
            door.pass();
            finished = true;
        });
        queue(4, m_ts.get(), 1);
        ASSERT_TRUE(m_entered.pass());
    }
    /// Who was held (true) and who was let go since the last call.
    static Holds takeHolds() {
        Holds holds;
        for (const Action& action : takeActions())
            if (action.kind == Action::kReception) holds.emplace_back(action.wsi, action.code == 0);
        return holds;
    }

    Host m_host;
    Callback m_callback;
    Door m_entered;
    std::unique_ptr<ZenkCSSCIIServer> m_cii;
    std::unique_ptr<ZenkCSSTSServer> m_ts;
    const std::string m_megabyte = std::string(1'000'000, 'm');
};

TEST_F(EventQueue, DeliversBothServersEventsInOrderAndDropsWhatIsNobodys) {
    using namespace std::string_literals;
    EXPECT_EQ(eventThreads(), 1);
    for (const unsigned event : {5u, 0u, 3u, 1u, 4u, 2u}) {
        void *const cii = m_cii.get(), *const ts = m_ts.get();
        queue(event, event <= 2 ? cii : ts, static_cast<int>(event) + 10, event == 4 ? "a\0b\0"s : "");
        queue(event, event <= 2 ? ts : cii, 1);  // an event of the other kind of server
        for (const unsigned unknown : {6u, ~0u}) queue(unknown, ts, 1);
        queue(event, nullptr, 1);
        queue(event, &m_host, 1);
        dispatcher()->queueEvent(nullptr);
    }
    EXPECT_EQ(cssEventThread(nullptr), nullptr);
    const Events expected{{5, 15, ""}, {0, 10, ""}, {3, 13, ""}, {1, 11, ""}, {4, 14, "a\0b\0"s}, {2, 12, ""}};
    EXPECT_EQ(m_host.take(expected.size()), expected);
}

TEST_F(EventQueue, DeliversEachOfManyEventsOnceAndInOrderPerProducer) {
    constexpr int kEach = kIsSanitized ? 50'000 : 500'000;
    std::array<int, 2> next{};
    std::atomic<int> delivered = 0;
    bool isInOrder = true;
    onTs([&](int number) {
        isInOrder = isInOrder && next[static_cast<std::size_t>(number % 2)]++ == number / 2;
        ++delivered;
    });
    const auto produce = [&](int producer) {
        for (int i = 0; i < kEach; ++i) {
            queue(4, m_ts.get(), 2 * i + producer);
            // Bursts with a pause behind each: the last event of a burst must not wait for the next burst.
            EXPECT_TRUE(i % 1000 != 999 || waitUntil([&] { return delivered >= i + 1; }));
        }
    };
    std::thread other(produce, 1);
    produce(0);
    other.join();
    EXPECT_TRUE(waitUntil([&] { return delivered == 2 * kEach; }));
    EXPECT_TRUE(isInOrder);
}

TEST_F(EventQueue, KeepsEventsWhileItHasNoThread) {
    Door door;
    std::atomic<bool> finished = false;
    holdUp(door, finished);
    queue(1, m_cii.get(), 2, "kept");
    dispatcher()->stopEventThread();
    dispatcher()->startEventThread();  // the stopped one is still alive
    door.open();
    ASSERT_TRUE(waitForThreads(0));
    EXPECT_TRUE(finished) << "no stop inside a callback";
    dispatcher()->stopEventThread();
    g_refusesThreads = true;
    dispatcher()->startEventThread();
    g_refusesThreads = false;
    queue(1, m_cii.get(), 3, "kept too");
    EXPECT_TRUE(m_host.take(0).empty());
    dispatcher()->startEventThread();
    EXPECT_EQ(m_host.take(2), (Events{{1, 2, "kept"}, {1, 3, "kept too"}}));
    for (int round = 0; round < 20; ++round) {
        stop();  // when idle
        for (int twice = 0; twice < 2; ++twice) dispatcher()->startEventThread();
        EXPECT_EQ(eventThreads(), 1);
        queue(1, m_cii.get(), round);
        EXPECT_EQ(m_host.take(1), (Events{{1, round, ""}}));
    }
}

TEST_F(EventQueue, SurvivesCallbacksThatThrowOrEndTheirThread) {
    onTs([](int) { throw std::runtime_error("host"); });
    queue(4, m_ts.get(), 1);
    queue(1, m_cii.get(), 2);
    EXPECT_EQ(m_host.take(1), (Events{{1, 2, ""}}));
    onTs([](int) { pthread_exit(nullptr); });
    queue(4, m_ts.get(), 1);
    ASSERT_TRUE(waitForThreads(0));
    m_ts.reset();  // waits for no call any more
    dispatcher()->startEventThread();
    queue(1, m_cii.get(), 3);
    EXPECT_EQ(m_host.take(1), (Events{{1, 3, ""}}));
}

TEST_F(EventQueue, ADispatcherThatGoesWaitsForTheCallbackAndDropsTheRest) {
    Door door;
    std::atomic<bool> finished = false;
    holdUp(door, finished);
    queue(1, m_cii.get(), 1, "dropped");
    std::thread opener([&] {
        EXPECT_TRUE(waitUntil([] { return dispatcher() == nullptr; }));
        door.open();
    });
    delete dispatcher();
    EXPECT_TRUE(finished);
    opener.join();
    m_cii->addCiiClientId(1);
    m_cii->onClientLeave(1);  // an event for nobody
    const ZenkCSSTSServer later;
    EXPECT_NE(dispatcher(), nullptr);
    EXPECT_TRUE(m_host.take(0).empty());
}

TEST_F(EventQueue, AServerThatGoesWaitsForItsCallbackAndLeavesNothingToTheNextInItsPlace) {
    Door door;
    std::atomic<bool> finished = false;
    holdUp(door, finished);
    std::optional<ZenkCSSCIIServer> css(std::in_place);
    queue(1, &*css, 1, "while it lives");
    css.reset();  // waits for no foreign callback
    queue(1, &*css, 2, "when it is dead");
    css.emplace();
    css->registerCIIEventCallback(Host::note, &m_host);
    css->setEnableInterDevSync(true);
    queue(1, &*css, 3, "for the new one");
    std::thread opener([&] { door.open(); });
    m_ts.reset();
    EXPECT_TRUE(finished);
    opener.join();
    EXPECT_EQ(m_host.take(1), (Events{{1, 3, "for the new one"}}));
}

// Two servers at once, and both have a client 1.
TEST_F(EventQueue, HoldsAClientOfTheServerThatItCameTo) {
    std::optional<MediaSyncServer> second(std::in_place);
    ZenkCSSCIIServer there;
    const auto connectThere = [&](int socketFd) {
        second->addObserver(&there);
        second->m_wsi = openConnection(socketFd, "/css-cii");
        second->onConnect();
        return second->m_wsi;
    };
    lws *const here = connect("/x"), *const away = connectThere(98);
    stop();
    for (int megabytes = 0; megabytes < 4; ++megabytes) {
        queue(4, m_ts.get(), 1, m_megabyte);
        queue(1, &there, 1, m_megabyte);
    }
    EXPECT_EQ(takeHolds(), Holds{});
    for (int twice = 0; twice < 2; ++twice) queue(1, &there, 1, m_megabyte);
    EXPECT_EQ(takeHolds(), (Holds{{away, true}}));
    queue(4, m_ts.get(), 1, m_megabyte);
    EXPECT_EQ(takeHolds(), (Holds{{here, true}}));
    markClosed(away);
    second.reset();
    there.removeCiiClientId(1);
    second.emplace();
    lws* const next = connectThere(99);
    EXPECT_EQ(takeHolds(), (Holds{{next, true}})) << "the queue is as full for the new client 1 in the same place";
    dispatcher()->startEventThread();
    Holds resumed;
    ASSERT_TRUE(
        waitUntil([&] { return std::ranges::copy(takeHolds(), std::back_inserter(resumed)), resumed.size() == 2; }));
    std::ranges::sort(resumed);
    Holds expected{{here, false}, {next, false}};
    std::ranges::sort(expected);
    EXPECT_EQ(resumed, expected);
    EXPECT_EQ(misdirectedActions(), 0);
}

TEST_F(EventQueue, HoldsWhoeverSendsWhenAllTogetherAreAheadAndResumesThemWhenTheyGo) {
    std::vector<lws*> clients;
    for (const bool isDispatcherFirst : {false, true}) {
        stop();
        const std::size_t before = clients.size();
        Holds holds;
        while (holds.empty() && clients.size() < before + 100) {  // each below its own mark
            clients.push_back(connect("/x"));
            queue(4, m_ts.get(), static_cast<int>(clients.size()), m_megabyte);
            holds = takeHolds();
        }
        EXPECT_EQ(clients.size(), before + 68) << "64 MiB";
        EXPECT_EQ(holds, (Holds{{clients.back(), true}}));
        if (isDispatcherFirst) delete dispatcher();
        m_ts.reset();
        EXPECT_EQ(takeHolds(), (Holds{{clients.back(), false}})) << "nobody is held for what will never be delivered";
        build(m_ts, &ZenkCSSTSServer::registerTSEventCallback, Host::note, &m_host);
        if (!isDispatcherFirst) dispatcher()->startEventThread();
    }
}

// The event thread drains the queue, and decides to let the client go, while the other thread is about to hold it.
TEST_F(EventQueue, AHoldThatComesLateIsNotTheLastWord) {
    lws* const wsi = connect("/x");
    Door door;
    std::atomic<int> delivered = 0;
    onTs([&](int) {
        door.pass();
        ++delivered;
    });
    g_beforeHold = [&](int) {
        door.open();
        EXPECT_TRUE(waitUntil([&] { return delivered >= 5; }));
    };
    for (int megabytes = 0; megabytes < 6; ++megabytes) queue(4, m_ts.get(), 1, m_megabyte);
    EXPECT_TRUE(waitUntil([&] { return delivered == 6; }));
    EXPECT_EQ(takeHolds(), (Holds{{wsi, true}, {wsi, false}}));
}

// Servers and dispatcher go in every order, one by one, at once, and from a callback, while the service thread floods.
TEST_F(EventQueue, LivesTwoThousandLives) {
    lws* const both = connect("/css-cii/css-ts");
    std::atomic<bool> isOver = false;
    std::thread service([&] {
        while (!isOver) message(both, "message");
    });
    std::array<std::size_t, 3> order{0, 1, 2};
    for (int life = 0; life < 2000; ++life, std::ranges::next_permutation(order)) {
        m_cii.reset(), m_ts.reset();
        delete dispatcher();
        std::atomic<int> delivered = 0;
        std::atomic<bool> isFirstGone = false;
        std::array<Callback, 3> ends{[&](int) { m_cii.reset(); }, [&](int) { m_ts.reset(); },
                                     [&](int) { delete dispatcher(); }};
        const auto end = [&](std::size_t place) { ends[order[place]](life); };
        const Callback count = [&](int) { ++delivered; }, destroy = [&](int) {
            if (!isFirstGone) end(0);
            isFirstGone = true;
        };
        const int way = life / 6 % 3;
        const bool isByCii = way == 2 && order[0] == 1, isByTs = way == 2 && !isByCii;
        std::thread builder(
            [&] { build(m_cii, &ZenkCSSCIIServer::registerCIIEventCallback, run, isByCii ? &destroy : &count); });
        build(m_ts, &ZenkCSSTSServer::registerTSEventCallback, run, isByTs ? &destroy : &count);
        builder.join();
        void* const first[]{m_cii.get(), m_ts.get()};
        // Who is destroyed first is fed first: from then on a callback of the other one may do it.
        if (isByCii) m_ts->addTsClientId(1);
        m_cii->addCiiClientId(1);
        if (!isByCii) m_ts->addTsClientId(1);
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!(way == 2 ? isFirstGone.load() : delivered > 2) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_TRUE(way != 2 || isFirstGone);
        std::thread other([&] {
            if (way == 1) end(0);
        });
        if (way == 0) end(0);
        if (way == 0 && order[0] != 2) queue(order[0] == 0 ? 1 : 4, first[order[0]], 1);
        end(1);
        other.join();
        end(2);
    }
    isOver = true;
    service.join();
}

}  // namespace
}  // namespace zenk_test
