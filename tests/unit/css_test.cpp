// The CSS servers: what they come up with, whom they let go, and the road of an event to the host's callback.
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include "tests/support/event_threads.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/front_end.h"
#include "tests/support/sanitizer.h"
#include "wsserver/css_client_list.h"
#include "wsserver/zenk_dvbCss.h"

namespace zenk_test {
namespace {

using Actions = std::vector<Action>;
using Events = std::vector<std::tuple<unsigned, int, std::string>>;

TEST(CssLimit, ComesFromAValidConfiguration) {
    const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("vel_config", 0));
    const auto limitOf = [&path](const std::string& text) {
        std::ofstream(path) << text;
        return zenk::readCssClientLimit();
    };
    setenv("VEL_CONFIG_FILE", path.c_str(), 1);
    EXPECT_EQ(limitOf("MSMaxClientNum=2\n[X]\nMSMaxClientNum=3\nnonsense\n[HbbTV]\nMSMaxClientNum = 100 ; why\n"), 100);
    for (const char* bad : {"0", "-3", "", "10x", "1 0", "2147483648", "10\nMSMaxClientNum=11"})
        EXPECT_EQ(limitOf(std::string("[HbbTV]\nMSMaxClientNum=") + bad), 25) << bad;
    setenv("VEL_CONFIG_FILE", "/dev/zero", 1);
    EXPECT_EQ(zenk::readCssClientLimit(), 25) << "of a file without end";
}

// Of the allocations of the constructions each fails once.
TEST(Constructors, ComeUpWithoutMemory) {
    if (kIsSanitized) GTEST_SKIP() << "the sanitizer's allocator does not fail";
    std::string text(100, '1');
    bool hasFailed = true;
    for (long count = 0; hasFailed; ++count) {
        failAllocationOf(pthread_self(), count);
        EXPECT_NO_THROW((ZenkCSSCIIServer(text), ZenkCSSTSServer(text), ZenkCSSWCServer(text)));
        hasFailed = stopFailing();
        delete ZenkCSSEventDispatcher::m_instance;
    }
}

TEST_F(FrontEnd, SweepAClientWhoseHandshakeIsUnderWay) {
    const ZenkCSSEventDispatcher dispatcher;
    ZenkCSSCIIServer cii;
    server.addObserver(&cii);
    cii.setEnableInterDevSync(true);
    lws *const swept = open(7, "/css-cii"), *const app = open(8, "/local/hbbtv/");
    for (lws* wsi : {swept, app}) {
        EXPECT_EQ(filter(wsi), 0);
        cii.setEnableInterDevSync(false);
        establish(wsi);
        cii.setEnableInterDevSync(true);
    }
    EXPECT_EQ(takeActions(), (std::vector<Action>(2, {Action::kClose, swept, 1001, ""}))) << "by both sweeps";
    EXPECT_EQ(cii.ciiClientIdExists(1), 0);
}

ZenkCSSEventDispatcher* dispatcher() {
    return std::atomic_ref(ZenkCSSEventDispatcher::m_instance).load();
}

/// The host of both servers: notes what its callback gets, holds it while the client's id is above m_allowed, and then
/// does what the test wants.
class EventQueue : public FrontEnd {
protected:
    static constexpr auto kCii = &ZenkCSSCIIServer::registerCIIEventCallback;
    static constexpr auto kTs = &ZenkCSSTSServer::registerTSEventCallback;

    EventQueue() { build(m_cii, kCii), build(m_ts, kTs); }
    ~EventQueue() override {
        for (const auto& end : m_ends) end();
        EXPECT_TRUE(waitForEventThreads(0));
    }

    static void onEvent(ZenkCSSEvent event, ZenkCSSEevntInfo* info, void const* fixture) {
        auto& self = *static_cast<EventQueue*>(const_cast<void*>(fixture));
        {
            const std::lock_guard lock(self.m_mutex);
            self.m_events.emplace_back(event, info->clientId, info->message);
        }
        waitUntil([&] { return info->clientId <= self.m_allowed; });
        self.m_passed = info->clientId;
        self.m_then(event);
    }
    void build(auto& css, auto subscribe) {
        css = std::make_unique<typename std::remove_reference_t<decltype(css)>::element_type>();
        ((*css).*subscribe)(onEvent, this);
        css->setEnableInterDevSync(true);
        server.addObserver(css.get());
    }
    static void queue(unsigned event, void* css, int clientId, std::size_t bytes = 0) {
        ZenkDispatcherInfo record{static_cast<ZenkCSSEvent>(event), css, clientId, std::string(bytes, 'm')};
        dispatcher()->queueEvent(&record);
    }
    /// The events since the last call, once there are `count` or the deadline has passed.
    Events take(std::size_t count) {
        Events taken;
        waitUntil([&] {
            const std::lock_guard lock(m_mutex);
            std::ranges::move(std::exchange(m_events, {}), std::back_inserter(taken));
            return taken.size() >= count;
        });
        return taken;
    }
    static Action hold(lws* wsi) { return {Action::kReception, wsi, 0, ""}; }
    static Action resume(lws* wsi) { return {Action::kReception, wsi, 1, ""}; }
    /// Keeps the event thread in a callback of TS, which has begun.
    void holdUp() {
        m_allowed = m_passed = 0;
        queue(4, m_ts.get(), 1);
        ASSERT_EQ(take(1), (Events{{4, 1, ""}}));
    }

    std::mutex m_mutex;
    Events m_events;  // guarded by m_mutex
    std::atomic<int> m_allowed = INT_MAX, m_passed = 0;
    std::function<void(unsigned event)> m_then = [](unsigned) {};
    std::unique_ptr<ZenkCSSCIIServer> m_cii;
    std::unique_ptr<ZenkCSSTSServer> m_ts;
    const std::array<std::function<void()>, 3> m_ends{[this] { m_cii.reset(); }, [this] { m_ts.reset(); },
                                                      [] { delete dispatcher(); }};
};

TEST_F(EventQueue, DeliversEachEventOnceAndInOrderAndOnlyToALivingServerThatItIsMeantFor) {
    for (const unsigned event : {5u, 0u, 3u, 6u, 1u, ~0u, 4u, 2u})
        for (void* each : std::initializer_list<void*>{m_cii.get(), m_ts.get(), nullptr, this}) queue(event, each, 7);
    EXPECT_EQ(take(6), (Events{{5, 7, ""}, {0, 7, ""}, {3, 7, ""}, {1, 7, ""}, {4, 7, ""}, {2, 7, ""}}));
    // Bursts with a pause behind each: the last event of a burst must not wait for the next burst.
    for (int burst = 0; burst < 100; ++burst) {
        Events expected;
        for (int i = 0; i < 1000; ++i) {
            queue(4, m_ts.get(), i);
            expected.emplace_back(4, i, "");
        }
        ASSERT_EQ(take(1000), expected);
    }
}

TEST_F(EventQueue, WhoGoesWaitsForItsCallbackAndLeavesNothingToTheNextInItsPlace) {
    holdUp();
    std::optional<ZenkCSSCIIServer> css(std::in_place);
    queue(1, &*css, 1);
    css.reset();
    EXPECT_EQ(m_passed, 0) << "it waits for no foreign callback";
    queue(1, &*css, 2);
    css.emplace();
    css->registerCIIEventCallback(onEvent, this);
    css->setEnableInterDevSync(true);
    queue(1, &*css, 3);
    dispatcher()->stopEventThread();
    m_allowed = 4;
    ASSERT_TRUE(waitForEventThreads(0));
    EXPECT_EQ(m_passed, 1) << "a stop waits for the callback, and the rest for another thread";
    queue(1, &*css, 4);
    m_then = [](unsigned) { throw std::runtime_error("host"); };
    for (int twice = 0; twice < 2; ++twice) dispatcher()->startEventThread();
    EXPECT_EQ(take(2), (Events{{1, 3, ""}, {1, 4, ""}})) << "of the new one only";
    EXPECT_TRUE(waitForEventThreads(1));
    for (const auto& end : {m_ends[1], m_ends[2]}) {
        holdUp();
        const std::jthread opener([this] { m_allowed = 1; });
        end();
        EXPECT_EQ(m_passed, 1);
        build(m_ts, kTs);
    }
}

// Two servers at once, and both have a client 1.
TEST_F(EventQueue, HoldsAClientOfTheServerThatItCameTo) {
    MediaSyncServer second;
    ZenkCSSTSServer there;
    second.addObserver(&there);
    lws *const here = connect("/x"), *const away = second.m_wsi = open(98, "/css-ts");
    second.onConnect();
    dispatcher()->stopEventThread();
    ASSERT_TRUE(waitForEventThreads(0));
    for (int megabytes = 1; megabytes <= 6; ++megabytes) {
        EXPECT_EQ(takeActions(), megabytes < 6 ? Actions() : (Actions{hold(here), hold(away)}));
        queue(1, m_cii.get(), 1, 1'000'000);
        queue(4, &there, 1, 1'000'000);
    }
    m_cii.reset();
    EXPECT_EQ(takeActions(), Actions{resume(here)}) << "nobody is held for what will never be delivered";
    delete dispatcher();
    EXPECT_EQ(takeActions(), Actions{resume(away)});
}

// The event thread drains the queue, and decides to let the client go, while the other thread is about to hold it.
TEST_F(EventQueue, HoldsWhoeverSendsWhenAllAreAheadAndALateHoldIsNotTheLastWord) {
    m_allowed = 0;
    g_onHold = [&] { m_allowed = 60, waitUntil([&] { return m_passed > 50; }); };
    lws* last = nullptr;
    for (int client = 1; client <= 69; ++client) {  // each below its own mark; 64 MiB, and what is being delivered
        EXPECT_EQ(takeActions(), Actions());
        last = connect("/x");
        queue(4, m_ts.get(), client, 1'000'000);
    }
    EXPECT_EQ(takeActions(), (Actions{hold(last), resume(last)})) << "while its own event still waits";
    m_allowed = 69;
    g_onHold = nullptr;
}

// Servers and dispatcher go in every order, two at once or the first from a callback, while the service thread floods
// and a client comes and goes, whom the host must not reach when it has gone.
TEST_F(EventQueue, LivesTwoThousandLives) {
    lws *const both = connect("/css-cii/css-ts"), *const passing = open(98, "/x");
    const std::jthread service([&](const std::stop_token& end) {
        while (!end.stop_requested()) {
            passing->isOpen = true;
            establish(passing);
            message(both, "message");
            close(passing);
            takeActions();
        }
    });
    for (const auto& end : m_ends) end();
    std::array<std::size_t, 3> order{0, 1, 2};
    for (int life = 0; life < 2000; ++life, std::ranges::next_permutation(order)) {
        const std::size_t first = order[0], second = order[1], third = order[2];  // clang captures no binding
        const bool isFromCallback = life / 6 % 2 == 0;
        std::atomic<bool> isBuilt = false, isFirstGone = false;
        m_then = [&](unsigned event) {
            const bool isOfFirst = event / 3 == first;
            if (isFromCallback && isBuilt && !isOfFirst && !isFirstGone) m_ends[first](), isFirstGone = true;
        };
        std::thread builder([this] { build(m_cii, kCii); });
        build(m_ts, kTs);
        builder.join();
        m_cii->addCiiClientId(1), m_ts->addTsClientId(1);
        char text[] = "x";
        m_cii->sendMessage(text, 1, -1);
        m_ts->closeClientConnection(-1);
        isBuilt = true;
        EXPECT_TRUE(isFromCallback ? waitUntil([&] { return isFirstGone.load(); }) : take(3).size() > 2);
        std::thread other([&] { isFromCallback ? void() : m_ends[first](); });
        m_ends[second]();
        other.join();
        m_ends[third]();
        take(0);
    }
}

}  // namespace
}  // namespace zenk_test
