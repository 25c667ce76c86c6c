#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "tests/support/front_end.h"
#include "wsserver/client_ids.h"

namespace {

using zenk_test::takeActions;
using Heard = std::vector<std::string>;

/// Writes down what it hears; `inCall` runs inside each of its calls.
class Listener : public ClientObserver {
public:
    ~Listener() override {
        if (m_server != nullptr) m_server->removeObserver(this);
    }
    void onNewClient(char* uri, int id) override { note("new " + std::to_string(id) + " " + uri); }
    void onMessage(unsigned char* message, int length, int id) override {
        note(std::to_string(id) + ": " +
             std::string(reinterpret_cast<char*>(message), static_cast<std::size_t>(length)));
    }
    void onClientLeave(int id) override { note("left " + std::to_string(id)); }
    int getCssServerStatus() override {
        ++asked;
        return status;
    }
    Heard take() { return std::exchange(heard, {}); }

    int status = 0, asked = 0;
    Heard heard;
    std::function<void()> inCall = [] {};

private:
    void note(std::string line) {
        heard.push_back(std::move(line));
        inCall();
    }
};

class Routing : public zenk_test::FrontEnd {
protected:
    Listener first, second;
    void addBoth() {
        server.addObserver(&first);
        server.addObserver(&second);
    }
    void send(const std::string& message, int id) {
        first.sendMessage(const_cast<char*>(message.data()), static_cast<int>(message.size()), id);
    }
};

TEST_F(Routing, FirstObjectionDecidesOverNonPairingUris) {
    addBoth();
    lws* const css = zenk_test::openConnection(5, "/css-cii");
    const struct {
        int first, second, result;
    } cases[] = {{0, 0, 0}, {1, 2, 403}, {2, 1, 503}, {0, 2, 503}, {7, 1, 403}, {-1, 3, 0}};
    for (const auto& row : cases) {
        first.status = row.first;
        second.status = row.second;
        EXPECT_EQ(filter(css), row.result) << row.first << " then " << row.second;
    }
    EXPECT_EQ(second.asked, 4) << "after an objection nobody else is asked";
    first.status = second.status = 0;
    connect("/css-cii");
    EXPECT_EQ(first.take(), Heard{"new 1 /css-cii"}) << "refused connections take no id";
}

TEST_F(Routing, UrlsOutliveTheirConnectionForAWhile) {
    server.addObserver(&first);
    EXPECT_STREQ(first.getUrl(-1), "NONE");
    lws* const css = connect("/css-cii/a-path-too-long-to-stand-inside-a-string-object", "q");
    const char* const url = first.getUrl(1);
    const std::string copy = url;
    std::string kept = "unchanged";
    close(css);
    EXPECT_STREQ(first.getUrl(1), "NONE");
    EXPECT_FALSE(first.copyUrl(1, kept));
    EXPECT_EQ(kept, "unchanged");
    for (int i = 0; i < 255; ++i) close(connect("/another"));
    EXPECT_EQ(url, copy);
    connect("/live");
    EXPECT_TRUE(first.copyUrl(257, kept));
    EXPECT_EQ(kept, "/live");
}

TEST(ClientIds, GoOnAtOneAfterTheLargestAndPassOverThoseInUse) {
    std::map<int, lws*> inUse;
    EXPECT_EQ(nextClientId(0, inUse), 1);
    EXPECT_EQ(nextClientId(INT_MAX - 1, inUse), INT_MAX);
    inUse = {{1, nullptr}, {2, nullptr}, {INT_MAX, nullptr}};
    EXPECT_EQ(nextClientId(INT_MAX, inUse), 3);
    EXPECT_EQ(nextClientId(INT_MAX - 1, inUse), 3);
}

TEST_F(Routing, ObserverWithoutAServerDoesNothing) {
    auto other = std::make_unique<MediaSyncServer>();
    other->addObserver(&first);
    other.reset();
    connect("/x");
    send("x", -1);
    first.sendMessageAll(nullptr, 0, -1);
    first.closeClientConnection(-1);
    EXPECT_TRUE(takeActions().empty());
    EXPECT_STREQ(first.getUrl(1), "NONE");
    EXPECT_EQ(MediaSyncServer::m_instance, nullptr);
}

TEST_F(Routing, ObserversMayLeaveInsideACall) {
    auto leaving = std::make_unique<Listener>();
    for (ClientObserver* each : {static_cast<ClientObserver*>(leaving.get()), static_cast<ClientObserver*>(&first),
                                 static_cast<ClientObserver*>(leaving.get()), static_cast<ClientObserver*>(&second)}) {
        server.addObserver(each);
    }
    first.inCall = [&leaving] { leaving.reset(); };
    connect("/a");
    EXPECT_EQ(first.take(), Heard{"new 1 /a"});
    EXPECT_EQ(second.take(), Heard{"new 1 /a"}) << "the walk neither skips nor repeats";
    first.inCall = [this] { server.removeObserver(&first); };
    lws* const b = connect("/b");
    close(b);
    EXPECT_EQ(first.take(), Heard{"new 2 /b"});
    EXPECT_EQ(second.take(), (Heard{"new 2 /b", "left 2"}));
}

TEST_F(Routing, RemovalWaitsForARunningCall) {
    server.addObserver(&first);
    std::promise<void> entered, release;
    first.inCall = [&entered, &release] {
        entered.set_value();
        release.get_future().wait();
    };
    std::thread service([this] { connect("/a"); });
    entered.get_future().wait();
    std::future<void> removal = std::async(std::launch::async, [this] { server.removeObserver(&first); });
    EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    release.set_value();
    removal.wait();
    service.join();
    connect("/b");
    EXPECT_EQ(first.take(), Heard{"new 1 /a"});
}

TEST_F(Routing, HostThreadsNeverReachAClosedConnection) {
    zenk_test::setRecording(false);
    server.addObserver(&first);
    std::atomic<bool> isOver = false;
    const auto host = [this, &isOver](int seed) {
        for (int i = seed; !isOver; ++i) {
            Listener passing;
            server.addObserver(&passing);
            send("x", i % 7 == 0 ? -1 : i % 300);
            if (i % 5 == 0) first.closeClientConnection(i % 300);
            std::string url;
            const bool isCopied = first.copyUrl(i % 300, url);
            EXPECT_EQ(url, isCopied ? "/css-cii/some/path/of/a/certain/length" : "");
            EXPECT_NE(first.getUrl(i % 300)[0], '\0');
        }
    };
    std::thread hosts[] = {std::thread(host, 0), std::thread(host, 1)};
    std::vector<lws*> open;
    for (int i = 0; i < 300; ++i) {
        open.push_back(connect("/css-cii/some/path/of/a/certain/length"));
        message(open.back(), "m");
        if (i % 3 == 0) {
            close(open.front());
            open.erase(open.begin());
        }
    }
    isOver = true;
    for (std::thread& each : hosts) each.join();
    EXPECT_EQ(zenk_test::misdirectedActions(), 0);
}

}  // namespace
