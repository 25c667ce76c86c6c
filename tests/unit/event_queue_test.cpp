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

extern "C" {
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
    const bool isRefused = entry == cssEventThread && g_refusesThreads;
    return isRefused ? EAGAIN : __real_pthread_create(id, attributes, entry, argument);
}
}

namespace zenk_test {
namespace {

using Callback = std::function<void(int clientId)>;
using Actions = std::vector<Action>;
using Events = std::vector<Event>;

void run(ZenkCSSEvent, ZenkCSSEevntInfo* info, void const* callback) {
    (*static_cast<const Callback*>(callback))(info->clientId);
}

ZenkCSSEventDispatcher* dispatcher() {
    return std::atomic_ref(ZenkCSSEventDispatcher::m_instance).load();
}

class EventQueue : public FrontEnd {
protected:
    EventQueue() {
        build<Cii>(m_cii, Host::note, &m_host);
        build<Ts>(m_ts, run, &m_onTs);
    }
    ~EventQueue() override {
        m_cii.reset(), m_ts.reset();
        delete dispatcher();
        EXPECT_TRUE(waitForNoThread());
    }

    template <typename Kind>
    void build(auto& css, ZenkCSSEventCallback callback, const void* data) {
        css.reset();
        css.reset(new typename Kind::Server);
        ((*css).*Kind::kRegister)(callback, data);
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
    static Action hold(lws* wsi) { return {Action::kReception, wsi, 0, ""}; }
    static Action resume(lws* wsi) { return {Action::kReception, wsi, 1, ""}; }

    Host m_host;  // of CII
    Callback m_onTs;
    Door m_entered, m_door;
    std::atomic<bool> m_hasPassed = false;
    std::unique_ptr<ZenkCSSCIIServer> m_cii;
    std::unique_ptr<ZenkCSSTSServer> m_ts;
    const std::string m_megabyte = std::string(1'000'000, 'm');
};

TEST_F(EventQueue, DeliversOnlyWhatIsMeantForALivingServer) {
    m_ts->registerTSEventCallback(Host::note, &m_host);
    const std::initializer_list<void*> servers{m_cii.get(), m_ts.get(), nullptr, &m_host};
    for (const unsigned event : {5u, 0u, 3u, 6u, 1u, ~0u, 4u, 2u})
        for (void* each : servers) queue(event, each, 7);
    EXPECT_EQ(m_host.take(6), (Events{{5, 7, ""}, {0, 7, ""}, {3, 7, ""}, {1, 7, ""}, {4, 7, ""}, {2, 7, ""}}));
}

TEST_F(EventQueue, DeliversEachOfManyEventsOnceAndInOrder) {
    std::atomic<int> delivered = 0, misplaced = 0;
    m_onTs = [&](int number) { misplaced += number != delivered ? 1 : 0, ++delivered; };
    for (int i = 0; i < (kIsSanitized ? 50'000 : 500'000); ++i) {
        queue(4, m_ts.get(), i);
        // Bursts with a pause behind each: the last event of a burst must not wait for the next burst.
        ASSERT_TRUE(i % 1000 != 999 || waitUntil([&] { return delivered > i; }));
    }
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
    css.reset();
    EXPECT_FALSE(m_hasPassed) << "it waits for no foreign callback";
    queue(1, &*css, 2, "when it is dead");
    css.emplace();
    css->registerCIIEventCallback(Host::note, &m_host);
    css->setEnableInterDevSync(true);
    queue(1, &*css, 3, "for the new one");
    std::jthread opener([this] { m_door.open(); });
    m_ts.reset();
    EXPECT_TRUE(m_hasPassed);
    EXPECT_EQ(m_host.take(1), (Events{{1, 3, "for the new one"}}));
}

TEST_F(EventQueue, UnregisteringWaitsForTheCallback) {
    holdUp();
    std::jthread opener([this] { m_door.open(); });
    m_ts->unRegisterTSEventCallback();
    EXPECT_TRUE(m_hasPassed);
}

TEST_F(EventQueue, ADispatcherThatGoesWaitsForTheCallbackAndDropsTheRest) {
    holdUp();
    queue(1, m_cii.get(), 1, "dropped");
    std::jthread opener([this] { waitUntil([] { return dispatcher() == nullptr; }) ? m_door.open() : abort(); });
    delete dispatcher();
    EXPECT_TRUE(m_hasPassed);
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
    EXPECT_EQ(takeActions(), Actions{});
    for (void* css : {m_cii.get(), m_cii.get()}) queue(1, css, 1, m_megabyte);
    EXPECT_EQ(takeActions(), Actions{hold(here)});
    queue(1, &there, 1, m_megabyte);
    EXPECT_EQ(takeActions(), Actions{hold(away)});
    second.emplace();
    lws* const next = connectThere(99);
    EXPECT_EQ(takeActions(), Actions{hold(next)}) << "the queue is as full for the new client 1 in the same place";
    m_ts.reset();
    EXPECT_EQ(takeActions(), Actions{resume(here)}) << "nobody is held for what will never be delivered";
    delete dispatcher();
    EXPECT_EQ(takeActions(), Actions{resume(next)});
}

// The event thread drains the queue, and decides to let the client go, while the other thread is about to hold it.
TEST_F(EventQueue, HoldsWhoeverSendsWhenAllAreAheadAndALateHoldIsNotTheLastWord) {
    std::atomic<int> delivered = 0;
    m_onTs = [&](int) { (delivered < 60 ? m_door : m_entered).pass(), ++delivered; };
    g_onHold = [&] { m_door.open(), waitUntil([&] { return delivered > 50; }); };
    lws* last = nullptr;
    for (int client = 1; client <= 69; ++client) {  // each below its own mark; 64 MiB, and what is being delivered
        EXPECT_EQ(takeActions(), Actions{});
        last = connect("/x");
        queue(4, m_ts.get(), client, m_megabyte);
    }
    EXPECT_EQ(takeActions(), (Actions{hold(last), resume(last)})) << "while its own event still waits";
    m_entered.open();
    EXPECT_TRUE(waitUntil([&] { return delivered == 69; }));
    g_onHold = nullptr;
}

// Servers and dispatcher go in every order, two at once or the first from a callback, while the service thread floods.
TEST_F(EventQueue, LivesTwoThousandLives) {
    lws* const both = connect("/css-cii/css-ts");
    const std::jthread service([&](const std::stop_token& end) {
        while (!end.stop_requested()) message(both, "message");
    });
    const std::array<std::function<void()>, 3> ends{[&] { m_cii.reset(); }, [&] { m_ts.reset(); },
                                                    [] { delete dispatcher(); }};
    std::array<std::size_t, 3> order{0, 1, 2};
    for (int life = 0; life < 2000; ++life, std::ranges::next_permutation(order)) {
        for (const auto& end : ends) end();
        const bool isFromCallback = life / 6 % 2 == 0;
        std::atomic<int> delivered = 0;
        std::atomic<bool> isBuilt = false, isFirstGone = false;
        const Callback count = [&](int) { ++delivered; }, destroy = [&](int) {
            ++delivered;
            if (isFromCallback && isBuilt && !isFirstGone) ends[order[0]](), isFirstGone = true;
        };
        std::thread builder([&] { build<Cii>(m_cii, run, order[0] == 0 ? &count : &destroy); });
        build<Ts>(m_ts, run, order[0] == 0 ? &destroy : &count);
        builder.join();
        m_cii->addCiiClientId(1), m_ts->addTsClientId(1);
        isBuilt = true;
        EXPECT_TRUE(waitUntil([&] { return isFromCallback ? isFirstGone.load() : delivered > 2; }));
        std::thread other([&] { isFromCallback ? void() : ends[order[0]](); });
        ends[order[1]]();
        other.join();
        ends[order[2]]();
    }
}

}  // namespace
}  // namespace zenk_test
