// Measures the road of an event from a producer to the host's callback, beside a plain std::deque with a mutex and a
// condition variable that does the same: copies a record in, hands it to one thread, calls a function. Both sides take
// turns in one run; each figure is the median of the rounds.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "wsserver/zenk_dvbCss.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 7;
constexpr int kEventsPerRound = 500'000;
constexpr int kHandOversPerRound = 1'000;
constexpr auto kIdlePause = std::chrono::microseconds(100);  // long enough for the other thread to fall asleep
const std::string kMessage(100, 'm');                        // a small JSON message

std::atomic<int> g_delivered = 0;
std::atomic<Clock::rep> g_deliveredAt = 0;

void onEvent(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*) {
    g_deliveredAt.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    g_delivered.fetch_add(1);
}

/// The library's road, from where a server hands an event over.
class Library {
public:
    Library() {
        m_server.registerCIIEventCallback(onEvent, this);
        m_server.setEnableInterDevSync(true);
    }
    void queue() {
        ZenkDispatcherInfo record{CSS_EVENT_CII_MESSAGE, &m_server, 1, kMessage};
        ZenkCSSEventDispatcher::m_instance->queueEvent(&record);
    }

private:
    ZenkCSSCIIServer m_server;
};

/// What one would write in ten minutes.
class PlainDeque {
public:
    PlainDeque() : m_thread([this] { run(); }) {}
    ~PlainDeque() {
        {
            const std::lock_guard lock(m_mutex);
            m_isOver = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    void queue() {
        ZenkDispatcherInfo record{CSS_EVENT_CII_MESSAGE, this, 1, kMessage};
        {
            const std::lock_guard lock(m_mutex);
            m_records.push_back(record);
        }
        m_changed.notify_one();
    }

private:
    void run() {
        std::unique_lock lock(m_mutex);
        while (true) {
            m_changed.wait(lock, [this] { return m_isOver || !m_records.empty(); });
            if (m_isOver) return;
            ZenkDispatcherInfo record = std::move(m_records.front());
            m_records.pop_front();
            lock.unlock();
            ZenkCSSEevntInfo info{record.clientId, record.message};
            onEvent(record.event, &info, this);
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<ZenkDispatcherInfo> m_records;  // under m_mutex
    bool m_isOver = false;                     // under m_mutex
    std::thread m_thread;
};

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

template <typename Road>
double handOverMicroseconds(Road& road) {
    std::vector<double> samples;
    for (int i = 0; i < kHandOversPerRound; ++i) {
        std::this_thread::sleep_for(kIdlePause);
        const int before = g_delivered.load();
        const auto start = Clock::now().time_since_epoch().count();
        road.queue();
        while (g_delivered.load() == before) std::this_thread::yield();
        samples.push_back(static_cast<double>(g_deliveredAt.load() - start) / 1e3);
    }
    return median(samples);
}

template <typename Road>
double eventsPerSecond(Road& road) {
    g_delivered = 0;
    const auto start = Clock::now();
    for (int i = 0; i < kEventsPerRound; ++i) road.queue();
    while (g_delivered.load() < kEventsPerRound) std::this_thread::yield();
    return kEventsPerRound / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main() {
    Library library;
    PlainDeque plain;
    std::vector<double> libraryRates, plainRates, libraryDelays, plainDelays;
    for (int round = 0; round < kRounds; ++round) {
        libraryRates.push_back(eventsPerSecond(library));
        plainRates.push_back(eventsPerSecond(plain));
        libraryDelays.push_back(handOverMicroseconds(library));
        plainDelays.push_back(handOverMicroseconds(plain));
    }
    std::printf("%-44s %12s %12s\n", "100-byte events, one producer", "library", "plain deque");
    std::printf("%-44s %12.0f %12.0f\n", "events per second", median(libraryRates), median(plainRates));
    std::printf("%-44s %12.2f %12.2f\n", "hand-over to an idle thread, median (us)", median(libraryDelays),
                median(plainDelays));
    return EXIT_SUCCESS;
}
