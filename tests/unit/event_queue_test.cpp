// The road of an event to the host's callback: in which order it comes, who may go when, and which client waits.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>

#include "tests/support/css_host.h"
#include "tests/support/sanitizer.h"

static std::atomic<bool> g_refusesThreads = false;
static std::function<void()> g_beforeHold = [] {};  // called when a client is about to be held

extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
    const bool isRefused = entry == cssEventThread && g_refusesThreads;
    return isRefused ? EAGAIN : __real_pthread_create(id, attributes, entry, argument);
}
// zenk_ws::lws_rx_flow_control()
int __real__ZN7zenk_ws19lws_rx_flow_controlEP3lwsi(lws*, int);
int __wrap__ZN7zenk_ws19lws_rx_flow_controlEP3lwsi(lws* wsi, int enable) {
    if (enable == 0) g_beforeHold();
    return __real__ZN7zenk_ws19lws_rx_flow_controlEP3lwsi(wsi, enable);
}
}

namespace zenk_test {
namespace {

using Callback = std::function<void(int clientId)>;
using Holds = std::vector<std::pair<lws*, bool>>;
using Events = std::vector<Event>;

void run(ZenkCSSEvent, ZenkCSSEevntInfo* info, void const* callback) {
    (*static_cast<const Callback*>(callback))(info->clientId);
}

void listen(ZenkCSSCIIServer& css, auto callback, const void* data) {
    css.registerCIIEventCallback(callback, data);
}

void listen(ZenkCSSTSServer& css, auto callback, const void* data) {
    css.registerTSEventCallback(callback, data);
}

ZenkCSSEventDispatcher* dispatcher() {
    return std::atomic_ref(ZenkCSSEventDispatcher::m_instance).load();
}

class EventQueue : public FrontEnd {
protected:
    EventQueue() {
        build(m_cii, Host::note, &m_host);
        build(m_ts, run, &m_onTs);
    }
    ~EventQueue() override {
        m_cii.reset(), m_ts.reset();
        delete dispatcher();
        EXPECT_TRUE(waitForNoThread());
    }

    template <typename Owner>
    void build(Owner& css, auto callback, const void* data) {
        css = std::make_unique<typename Owner::element_type>();
        listen(*css, callback, data);
        css->setEnableInterDevSync(true);
        server.addObserver(css.get());
    }
    static void queue(unsigned event, void* css, int clientId, std::string message = {}) {
        ZenkDispatcherInfo record{static_cast<ZenkCSSEvent>(event), css, clientId, std::move(message)};
        dispatcher()->queueEvent(&record);
        record = {static_cast<ZenkCSSEvent>(99), nullptr, -99, "overwritten"};
    }
    static bool waitForNoThread() {
        return waitUntil([] { return eventThreads() == 0; });
    }
    /// Keeps the event thread in a callback of TS, which has begun, until the door opens.
    void holdUp() {
        m_onTs = [this](int) { m_entered.open(), m_door.pass(), m_hasPassed = true; };
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

    Host m_host;  // of CII
    Callback m_onTs;
    Door m_entered, m_door;
    std::atomic<bool> m_hasPassed = false;
    std::unique_ptr<ZenkCSSCIIServer> m_cii;
    std::unique_ptr<ZenkCSSTSServer> m_ts;
    const std::string m_megabyte = std::string(1'000'000, 'm');
};

TEST_F(EventQueue, DeliversInOrderWhatIsMeantForALivingServer) {
    using namespace std::string_literals;
    listen(*m_ts, Host::note, &m_host);
    void *const cii = m_cii.get(), *const ts = m_ts.get();
    for (const unsigned event : {5u, 0u, 3u, 1u, 4u, 2u}) {
        queue(event, event <= 2 ? cii : ts, 7, event == 4 ? "a\0b\0"s : "");
        queue(event, event <= 2 ? ts : cii, 1);  // an event of the other kind of server
        for (const unsigned unknown : {6u, ~0u}) queue(unknown, ts, 1);
        for (void* const nobody : {static_cast<void*>(nullptr), static_cast<void*>(&m_host)}) queue(event, nobody, 1);
        dispatcher()->queueEvent(nullptr);
    }
    EXPECT_EQ(cssEventThread(nullptr), nullptr);
    const Events expected{{5, 7, ""}, {0, 7, ""}, {3, 7, ""}, {1, 7, ""}, {4, 7, "a\0b\0"s}, {2, 7, ""}};
    EXPECT_EQ(m_host.take(expected.size()), expected);
}

TEST_F(EventQueue, DeliversEachOfManyEventsOnceAndInOrderPerProducer) {
    constexpr int kEach = kIsSanitized ? 50'000 : 500'000;
    std::array<int, 2> next{};
    std::atomic<int> delivered = 0, misplaced = 0;
    m_onTs = [&](int number) {
        misplaced += next[static_cast<std::size_t>(number % 2)]++ == number / 2 ? 0 : 1;
        ++delivered;
    };
    const auto produce = [&](int producer) {
        for (int i = 0; i < kEach; ++i) {
            queue(4, m_ts.get(), 2 * i + producer);
            // Bursts with a pause behind each: the last event of a burst must not wait for the next burst.
            EXPECT_TRUE(i % 1000 != 999 || waitUntil([&] { return delivered > i; }));
        }
    };
    std::thread other(produce, 1);
    produce(0);
    other.join();
    EXPECT_TRUE(waitUntil([&] { return delivered == 2 * kEach; }));
    EXPECT_EQ(misplaced, 0);
}

TEST_F(EventQueue, KeepsEventsWhileItHasNoThread) {
    holdUp();
    queue(1, m_cii.get(), 2, "kept");
    dispatcher()->stopEventThread();
    dispatcher()->startEventThread();  // the stopped one is still alive
    m_door.open();
    ASSERT_TRUE(waitForNoThread());
    EXPECT_TRUE(m_hasPassed) << "no stop inside a callback";
    dispatcher()->stopEventThread();
    g_refusesThreads = true;
    dispatcher()->startEventThread();
    g_refusesThreads = false;
    EXPECT_TRUE(m_host.take(0).empty());
    for (const int round : {2, 3, 4, 5}) {
        for (int twice = 0; twice < 2; ++twice) dispatcher()->startEventThread();
        EXPECT_EQ(m_host.take(1), (Events{{1, round, "kept"}}));
        EXPECT_EQ(eventThreads(), 1);
        if (round == 3) m_onTs = [](int) { throw std::runtime_error("host"); };
        if (round == 4) m_onTs = [](int) { pthread_exit(nullptr); };
        queue(4, m_ts.get(), 1);
        if (round != 4) dispatcher()->stopEventThread();  // when idle, or before the next event
        ASSERT_TRUE(waitForNoThread());
        queue(1, m_cii.get(), round + 1, "kept");
    }
    m_ts.reset();  // waits for no call any more
}

TEST_F(EventQueue, AServerThatGoesWaitsForItsCallbackAndLeavesNothingToTheNextInItsPlace) {
    holdUp();
    std::optional<ZenkCSSCIIServer> css(std::in_place);
    queue(1, &*css, 1, "while it lives");
    css.reset();  // waits for no foreign callback
    queue(1, &*css, 2, "when it is dead");
    css.emplace();
    listen(*css, Host::note, &m_host);
    css->setEnableInterDevSync(true);
    queue(1, &*css, 3, "for the new one");
    std::thread opener([this] { m_door.open(); });
    m_ts.reset();
    EXPECT_TRUE(m_hasPassed);
    opener.join();
    EXPECT_EQ(m_host.take(1), (Events{{1, 3, "for the new one"}}));
}

TEST_F(EventQueue, ADispatcherThatGoesWaitsForTheCallbackAndDropsTheRest) {
    holdUp();
    queue(1, m_cii.get(), 1, "dropped");
    std::thread opener([this] { waitUntil([] { return dispatcher() == nullptr; }) ? m_door.open() : abort(); });
    delete dispatcher();
    EXPECT_TRUE(m_hasPassed);
    opener.join();
    m_cii->addCiiClientId(1);
    m_cii->onClientLeave(1);  // an event for nobody
    const ZenkCSSTSServer later;
    EXPECT_NE(dispatcher(), nullptr);
    EXPECT_TRUE(m_host.take(0).empty());
}

// Two servers at once, and both have a client 1.
TEST_F(EventQueue, HoldsAClientOfTheServerThatItCameTo) {
    std::optional<MediaSyncServer> second(std::in_place);
    ZenkCSSCIIServer there;
    const auto connectThere = [&](int socketFd) {
        there.removeCiiClientId(1);
        second->addObserver(&there);
        second->m_wsi = open(socketFd, "/css-cii");
        second->onConnect();
        return second->m_wsi;
    };
    lws *const here = connect("/x"), *const away = connectThere(98);
    dispatcher()->stopEventThread();
    ASSERT_TRUE(waitForNoThread());
    for (int megabytes = 0; megabytes < 4; ++megabytes) {
        queue(4, m_ts.get(), 1, m_megabyte);
        queue(1, &there, 1, m_megabyte);
    }
    EXPECT_EQ(takeHolds(), Holds{});
    for (void* css : {m_cii.get(), m_cii.get()}) queue(1, css, 1, m_megabyte);
    EXPECT_EQ(takeHolds(), (Holds{{here, true}}));
    queue(1, &there, 1, m_megabyte);
    EXPECT_EQ(takeHolds(), (Holds{{away, true}}));
    away->isOpen = false;
    second.reset();
    second.emplace();
    lws* const next = connectThere(99);
    EXPECT_EQ(takeHolds(), (Holds{{next, true}})) << "the queue is as full for the new client 1 in the same place";
    m_ts.reset();
    EXPECT_EQ(takeHolds(), (Holds{{here, false}})) << "nobody is held for what will never be delivered";
    delete dispatcher();
    EXPECT_EQ(takeHolds(), (Holds{{next, false}}));
}

// The event thread drains the queue, and decides to let the client go, while the other thread is about to hold it.
TEST_F(EventQueue, HoldsWhoeverSendsWhenAllAreAheadAndALateHoldIsNotTheLastWord) {
    std::atomic<int> delivered = 0;
    m_onTs = [&](int) { m_door.pass(), ++delivered; };
    g_beforeHold = [&] {
        m_door.open();
        EXPECT_TRUE(waitUntil([&] { return delivered > 50; }));
    };
    Holds holds;
    lws* last = nullptr;
    int count = 0;
    while (holds.empty() && count < 100) {  // each client below its own mark
        last = connect("/x");
        queue(4, m_ts.get(), ++count, m_megabyte);
        holds = takeHolds();
    }
    EXPECT_EQ(count, 69) << "64 MiB, and what is being delivered";
    EXPECT_EQ(holds, (Holds{{last, true}, {last, false}}));
    EXPECT_TRUE(waitUntil([&] { return delivered == count; }));
    g_beforeHold = [] {};
}

// Servers and dispatcher go in every order, one by one, at once, and from a callback, while the service thread floods.
TEST_F(EventQueue, LivesTwoThousandLives) {
    lws* const both = connect("/css-cii/css-ts");
    std::atomic<bool> isOver = false;
    std::thread service([&] {
        while (!isOver) message(both, "message");
    });
    std::array<std::size_t, 3> order{0, 1, 2};
    const std::array<std::function<void()>, 3> ends{[&] { m_cii.reset(); }, [&] { m_ts.reset(); },
                                                    [] { delete dispatcher(); }};
    for (int life = 0; life < 2000; ++life, std::ranges::next_permutation(order)) {
        for (const auto& end : ends) end();
        std::atomic<int> delivered = 0;
        std::atomic<bool> isFirstGone = false;
        const Callback count = [&](int) { ++delivered; }, destroy = [&](int) {
            if (!isFirstGone) ends[order[0]]();
            isFirstGone = true;
        };
        const bool isFromCallback = life / 6 % 3 == 0, isAtOnce = life / 6 % 3 == 1, isByCii = order[0] == 1;
        std::thread builder([&] { build(m_cii, run, isFromCallback && isByCii ? &destroy : &count); });
        build(m_ts, run, isFromCallback && !isByCii ? &destroy : &count);
        builder.join();
        void* const built[]{m_cii.get(), m_ts.get(), nullptr};
        // Who is destroyed first is fed first: from then on a callback of the other one may do it.
        if (isByCii) m_ts->addTsClientId(1);
        m_cii->addCiiClientId(1);
        if (!isByCii) m_ts->addTsClientId(1);
        EXPECT_TRUE(waitUntil([&] { return isFromCallback ? isFirstGone.load() : delivered > 2; }));
        std::thread other([&] { isAtOnce ? ends[order[0]]() : void(); });
        if (!isAtOnce && !isFromCallback) ends[order[0]]();
        if (dispatcher() != nullptr && !isAtOnce) queue(order[0] == 0 ? 1 : 4, built[order[0]], 1);
        ends[order[1]]();
        other.join();
        ends[order[2]]();
    }
    isOver = true;
    service.join();
}

}  // namespace
}  // namespace zenk_test
