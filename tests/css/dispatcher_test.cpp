#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <optional>
#include <stdexcept>

#include "tests/css/css_host.h"
#include "tests/support/sanitizer.h"

static std::atomic<bool> g_refusesThreads = false;

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                                     void* argument) {
    if (entry == cssEventThread && g_refusesThreads) return EAGAIN;
    return __real_pthread_create(id, attributes, entry, argument);
}

namespace {

using zenk_test::waitUntil;
// With sanitizers everything takes longer, and the amount matters less than the mixture.
constexpr int kManyEvents = zenk_test::kIsSanitized ? 100'000 : 1'000'000;

using Action = std::function<void(int clientId)>;

void run(ZenkCSSEvent, ZenkCSSEevntInfo* info, void const* action) {
    (*static_cast<const Action*>(action))(info->clientId);
}

class Dispatcher : public Clients {
protected:
    Dispatcher() {
        setenv("VEL_CONFIG_FILE", "/nowhere", 1);
        m_cii = std::make_unique<ZenkCSSCIIServer>();
        m_ts = std::make_unique<ZenkCSSTSServer>();
        m_cii->registerCIIEventCallback(Host::note, &m_host);
        m_ts->registerTSEventCallback(Host::note, &m_host);
        m_cii->setEnableInterDevSync(true);
        m_ts->setEnableInterDevSync(true);
    }
    ~Dispatcher() override {
        m_cii.reset();
        m_ts.reset();
        delete dispatcher();
        EXPECT_TRUE(waitUntil([] { return eventThreads() == 0; }));
    }

    using Holds = std::vector<Hold>;

    static ZenkCSSEventDispatcher* dispatcher() { return std::atomic_ref(ZenkCSSEventDispatcher::m_instance).load(); }

    static void queue(unsigned event, void* css, int clientId, std::string message = {}) {
        ZenkDispatcherInfo record{static_cast<ZenkCSSEvent>(event), css, clientId, std::move(message)};
        dispatcher()->queueEvent(&record);
        record = {static_cast<ZenkCSSEvent>(99), nullptr, -99, "overwritten"};
    }

    // The events of TS run `action`, given the client id.
    void onTs(Action action) {
        m_action = std::move(action);
        m_ts->registerTSEventCallback(run, &m_action);
    }

    std::unique_ptr<ZenkCSSCIIServer> m_cii;
    std::unique_ptr<ZenkCSSTSServer> m_ts;
    Host m_host;
    Action m_action;
};

TEST_F(Dispatcher, DeliversBothServersEventsInQueueOrderWithTheirOwnBytes) {
    using namespace std::string_literals;
    EXPECT_EQ(eventThreads(), 1);
    for (const unsigned event : {5u, 0u, 3u, 1u, 4u, 2u}) {
        void* const css = event <= 2 ? static_cast<void*>(m_cii.get()) : m_ts.get();
        queue(event, css, static_cast<int>(event) + 10, event == 4 ? "a\0b\0"s : "");
        queue(6, css, 1);          // no such event
        queue(event, nullptr, 1);  // nobody's event
        dispatcher()->queueEvent(nullptr);
    }
    EXPECT_EQ(cssEventThread(nullptr), nullptr);
    const std::vector<Event> expected{{5, 15, ""}, {0, 10, ""},        {3, 13, ""},
                                      {1, 11, ""}, {4, 14, "a\0b\0"s}, {2, 12, ""}};
    EXPECT_EQ(m_host.take(expected.size()), expected);
}

TEST_F(Dispatcher, DeliversEachOfManyEventsOnceAndInOrderPerProducer) {
    std::array<int, 2> next{};
    std::atomic<int> delivered = 0;
    bool isInOrder = true;
    onTs([&](int number) {
        isInOrder = isInOrder && next[static_cast<std::size_t>(number % 2)]++ == number / 2;
        ++delivered;
    });
    const auto produce = [this, &delivered](int producer) {
        for (int i = 0; i < kManyEvents / 2; ++i) {
            queue(4, m_ts.get(), 2 * i + producer);
            // Bursts with a pause behind each: the last event of a burst must not wait for the next burst.
            if (i % 1000 != 999) continue;
            EXPECT_TRUE(waitUntil([&] { return delivered >= i + 1; }));
        }
    };
    std::thread other(produce, 1);
    produce(0);
    other.join();
    EXPECT_TRUE(waitUntil([&] { return delivered == kManyEvents; }));
    EXPECT_TRUE(isInOrder);
}

TEST_F(Dispatcher, StopsBetweenTwoRecordsAndKeepsTheRest) {
    Door entered, door;
    std::atomic<bool> finished = false;
    onTs([&](int) {
        entered.open();
        dispatcher()->stopEventThread();
        door.pass();  // a cancellation that is let in would end the thread here
        finished = true;
    });
    queue(4, m_ts.get(), 1);
    ASSERT_TRUE(entered.pass());
    queue(1, m_cii.get(), 2, "kept");
    dispatcher()->stopEventThread();
    dispatcher()->startEventThread();  // the stopped one is still alive
    door.open();
    ASSERT_TRUE(waitUntil([] { return eventThreads() == 0; }));
    EXPECT_TRUE(finished);
    dispatcher()->stopEventThread();
    queue(1, m_cii.get(), 3, "kept too");
    EXPECT_TRUE(m_host.take(0).empty());

    dispatcher()->startEventThread();
    EXPECT_EQ(m_host.take(2), (std::vector<Event>{{1, 2, "kept"}, {1, 3, "kept too"}}));
}

TEST_F(Dispatcher, StopsWhenIdleAndLeavesNoLockBehind) {
    for (int round = 0; round < 20; ++round) {
        queue(1, m_cii.get(), round);
        EXPECT_EQ(m_host.take(1), (std::vector<Event>{{1, round, ""}}));
        dispatcher()->stopEventThread();
        ASSERT_TRUE(waitUntil([] { return eventThreads() == 0; }));
        dispatcher()->startEventThread();
        dispatcher()->startEventThread();
        EXPECT_EQ(eventThreads(), 1);
    }
}

TEST_F(Dispatcher, SurvivesCallbacksThatThrowOrEndTheirThread) {
    onTs([](int) { throw std::runtime_error("host"); });
    queue(4, m_ts.get(), 1);
    queue(1, m_cii.get(), 2);
    EXPECT_EQ(m_host.take(1), (std::vector<Event>{{1, 2, ""}}));

    onTs([](int) { pthread_exit(nullptr); });
    queue(4, m_ts.get(), 1);
    ASSERT_TRUE(waitUntil([] { return eventThreads() == 0; }));
    m_ts.reset();  // waits for no call any more
    dispatcher()->startEventThread();
    queue(1, m_cii.get(), 3);
    EXPECT_EQ(m_host.take(1), (std::vector<Event>{{1, 3, ""}}));
}

TEST_F(Dispatcher, KeepsEventsWhenTheSystemGivesNoThread) {
    delete dispatcher();
    g_refusesThreads = true;
    ZenkCSSCIIServer css;
    g_refusesThreads = false;
    ASSERT_NE(dispatcher(), nullptr);
    css.registerCIIEventCallback(Host::note, &m_host);
    css.setEnableInterDevSync(true);
    queue(1, &css, 1);
    dispatcher()->stopEventThread();
    dispatcher()->startEventThread();
    EXPECT_EQ(m_host.take(1), (std::vector<Event>{{1, 1, ""}}));
}

TEST_F(Dispatcher, DestructionWaitsForTheCallbackAndDropsTheRest) {
    Door entered, door;
    std::atomic<bool> finished = false;
    onTs([&](int) {
        entered.open();
        door.pass();
        finished = true;
    });
    queue(4, m_ts.get(), 1);
    for (int i = 0; i < 100; ++i) queue(1, m_cii.get(), i, std::string(1000, 'x'));
    ASSERT_TRUE(entered.pass());
    std::thread opener([&] {
        EXPECT_TRUE(waitUntil([] { return dispatcher() == nullptr; }));
        door.open();
    });
    delete dispatcher();
    EXPECT_TRUE(finished);
    opener.join();
    EXPECT_TRUE(m_host.take(0).empty());

    m_cii->addCiiClientId(1);
    m_cii->onClientLeave(1);  // an event for nobody
    ZenkCSSTSServer later;
    EXPECT_NE(dispatcher(), nullptr);
}

TEST_F(Dispatcher, MayBeDestroyedByACallback) {
    Door door;
    onTs([&](int) {
        door.pass();
        delete dispatcher();
    });
    queue(4, m_ts.get(), 1);
    queue(1, m_cii.get(), 2);
    door.open();
    ASSERT_TRUE(waitUntil([] { return eventThreads() == 0; }));
    EXPECT_EQ(dispatcher(), nullptr);
    EXPECT_TRUE(m_host.take(0).empty());
}

TEST_F(Dispatcher, ServerDestructionWaitsForItsCallbackAndTakesItsRecordsAlong) {
    Door entered, door;
    std::atomic<bool> finished = false;
    onTs([&](int) {
        entered.open();
        door.pass();
        finished = true;
    });
    std::optional<ZenkCSSCIIServer> css;
    css.emplace();
    queue(4, m_ts.get(), 1);
    ASSERT_TRUE(entered.pass());
    queue(1, &*css, 2, "for the dead");
    css.emplace();  // at the same place; the destructor waits for no foreign callback
    css->registerCIIEventCallback(Host::note, &m_host);
    css->setEnableInterDevSync(true);
    queue(1, &*css, 3, "for the living");
    std::thread opener([&] { door.open(); });
    m_ts.reset();
    EXPECT_TRUE(finished);
    opener.join();
    EXPECT_EQ(m_host.take(1), (std::vector<Event>{{1, 3, "for the living"}}));
}

// A host that takes nothing: who floods is held once, at 4 MiB, and resumed when half of that has been delivered.
TEST_F(Dispatcher, HoldsAClientThatIsAheadOfTheHostAndDropsNothing) {
    const int flooding = newClient("/x"), other = newClient("/x");
    Door entered, door;
    int delivered = 0;
    onTs([&](int clientId) {
        if (clientId != flooding) return;
        if (++delivered == 1) entered.open();
        if (delivered == 1) door.pass();
    });
    constexpr int kMessages = 100;
    const std::string message(100'000, 'm');
    queue(4, m_ts.get(), flooding, message);
    ASSERT_TRUE(entered.pass());
    for (int i = 1; i <= 41; ++i) queue(4, m_ts.get(), flooding, message);
    EXPECT_EQ(takeHolds(), Holds{}) << "a little below the mark";
    for (int i = 42; i < kMessages; ++i) queue(4, m_ts.get(), flooding, message);
    queue(4, m_ts.get(), other, message);
    EXPECT_EQ(takeHolds(), (Holds{{flooding, true}}));
    door.open();
    ASSERT_TRUE(waitUntil([&] { return takeHolds() == Holds{{flooding, false}}; }));
    ASSERT_TRUE(m_cii && waitUntil([&] {
                    queue(2, m_cii.get(), 1);
                    return !m_host.take(1).empty();
                }));
    EXPECT_EQ(delivered, kMessages);
}

TEST_F(Dispatcher, HoldsWhoeverSendsWhenAllTogetherAreAhead) {
    dispatcher()->stopEventThread();
    ASSERT_TRUE(waitUntil([] { return eventThreads() == 0; }));
    const std::string message(1'000'000, 'm');
    int id = 0;
    while (takeHolds().empty()) queue(4, m_ts.get(), id = newClient("/x"), message);  // each below its own mark
    EXPECT_EQ(id, 68) << "64 MiB";
    queue(4, m_ts.get(), 1);
    EXPECT_EQ(takeHolds(), (Holds{{1, true}}));
    dispatcher()->startEventThread();
    Holds resumed;
    ASSERT_TRUE(waitUntil([&] {
        for (const Hold& hold : takeHolds()) resumed.push_back(hold);
        return resumed.size() == 2;
    }));
    std::sort(resumed.begin(), resumed.end());
    EXPECT_EQ(resumed, (Holds{{1, false}, {68, false}}));
}

// Nobody stays held for a message that will never be delivered.
TEST_F(Dispatcher, ResumesItsClientsWhenAServerOrTheDispatcherGoes) {
    const std::string message(5'000'000, 'm');
    const int id = newClient("/x");
    for (const bool isServerFirst : {true, false}) {
        dispatcher()->stopEventThread();
        ASSERT_TRUE(waitUntil([] { return eventThreads() == 0; }));
        auto css = std::make_unique<ZenkCSSCIIServer>();
        queue(1, css.get(), id, message);
        EXPECT_EQ(takeHolds(), (Holds{{id, true}}));
        if (isServerFirst) {
            css.reset();
        } else {
            delete dispatcher();
        }
        EXPECT_EQ(takeHolds(), (Holds{{id, false}}));
    }
}

// Each order of destruction, while the service thread and the event thread are at work; with two threads at it too.
TEST_F(Dispatcher, EverythingMayGoInAnyOrderUnderLoad) {
    std::array<int, 3> order{0, 1, 2};
    do {
        auto cii = std::make_unique<ZenkCSSCIIServer>();
        auto ts = std::make_unique<ZenkCSSTSServer>();
        ZenkCSSEventDispatcher* shared = dispatcher();
        std::atomic<int> delivered = 0;
        const Action count = [&](int) { ++delivered; };
        cii->registerCIIEventCallback(run, &count);
        ts->registerTSEventCallback(run, &count);
        cii->setEnableInterDevSync(true);
        ts->setEnableInterDevSync(true);
        server.addObserver(cii.get());
        server.addObserver(ts.get());
        lws* const both = client(newClient("/css-cii/css-ts"));
        std::atomic<bool> isOver = false;
        std::thread service([&] {
            while (!isOver) message(both, "message");
        });
        ASSERT_TRUE(waitUntil([&] { return delivered > 100; }));
        const std::array<std::function<void()>, 3> ends{[&] { cii.reset(); }, [&] { ts.reset(); },
                                                        [&] { delete shared; }};
        const auto end = [&](std::size_t place) { ends[static_cast<std::size_t>(order[place])](); };
        std::thread other([&] { end(0); });
        end(1);
        other.join();
        end(2);
        isOver = true;
        service.join();
        m_cii = std::make_unique<ZenkCSSCIIServer>();  // makes a dispatcher for the next round
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(DispatcherCreation, HappensOnceForServersBuiltAtOnce) {
    for (int round = 0; round < 20; ++round) {
        const auto build = [] { ZenkCSSCIIServer server; };
        std::thread other(build);
        build();
        other.join();
        EXPECT_EQ(eventThreads(), 1);
        delete ZenkCSSEventDispatcher::m_instance;
        EXPECT_TRUE(
            waitUntil([] { return eventThreads() == 0; }));  // the kernel may name an ended thread a little longer
    }
}

}  // namespace
