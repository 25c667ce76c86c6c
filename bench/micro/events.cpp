// The road of an event from a producer to the host's callback, beside a plain std::deque with a mutex and a condition
// variable that does the same: copies a record in, hands it to one thread, calls a function.
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "wsserver/zenk_dvbCss.h"

namespace {

constexpr int kBurst = 200'000;
const std::string kMessage(100, 'm');  // a small JSON message

std::atomic<int> g_delivered = 0;

void onEvent(ZenkCSSEvent, ZenkCSSEevntInfo*, void const*) {
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

template <typename Road>
void eventsInABurst(benchmark::State& state) {
    Road road;
    for (auto _ : state) {
        g_delivered = 0;
        for (int i = 0; i < kBurst; ++i) road.queue();
        while (g_delivered.load() < kBurst) std::this_thread::yield();
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
}

BENCHMARK(eventsInABurst<Library>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(eventsInABurst<PlainDeque>)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
