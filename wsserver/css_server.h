#pragma once

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "log/trace.h"
#include "platform/shared_value.h"
#include "wsserver/constants.h"
#include "wsserver/css_client_list.h"
#include "wsserver/css_event_queue.h"
#include "wsserver/media_sync_server.h"

namespace zenk {

/// What the CSS-CII and the CSS-TS server do in the same way; their exported operations forward to it. A trace comes
/// from the operation, and all that is told carries its line, since it names that operation's file too.
///
/// `Kind` says what differs: the Server itself, its kName on standard output, the kPath that its clients ask for, the
/// kFirstEvent of its three, and its traced operations kExists and kAdd on the list of its clients.
template <typename Kind>
class CssServer {
public:
    using Server = typename Kind::Server;
    using Removal = CssClientList::Removal;

    static void setUp(Server& server, const std::string& initString, const Trace& trace) {
        attempt(server, trace, [&] {
            server.m_initString = initString;
            server.m_events = CssEventQueue::join(server.m_dispatcher);
        });
        storeShared(Server::m_instance, &server);
        server.m_maxClientNum = readCssClientLimit();
        std::printf("%s m_maxClientNum = %d\n", Kind::kName, server.m_maxClientNum);
        // Last, since events come from here on.
        attempt(server, trace, [&] {
            if (server.m_events != nullptr) server.m_events->enter(&server, server.m_server, kNewClient);
        });
        trace.leave(trace.line());
    }

    /// Leaves both sides that call the server; after this nobody does.
    static void tearDown(Server& server, const Trace& trace) {
        MediaSyncServer* const frontEnd = loadShared(server.m_server);
        if (frontEnd != nullptr) frontEnd->removeObserver(&server);
        if (server.m_events != nullptr) server.m_events->leave(&server);
        server.m_dispatcher = nullptr;
        server.m_enableInterDevSync = false;
        storeShared(Server::m_instance, nullptr);
        setCallback(server, nullptr, nullptr, trace);  // which writes the end of the trace, too
    }

    static void newClient(Server& server, const char* uri, int clientId, const Trace& trace) try {
        if (uri == nullptr || (server.*Kind::kExists)(clientId) != 0) return trace.fail(trace.line());
        if (!hasRoom(server)) return;
        const std::string requrl(uri);
        trace.text("requrl", requrl.c_str(), trace.line());
        if (requrl.find(Kind::kPath) != std::string::npos && (server.*Kind::kAdd)(clientId) != 0) {
            post(server, kNewClient, clientId, {});
        }
        trace.leave(trace.line());
    } catch (const std::exception&) {
        trace.fail(trace.line());
    }

    static void message(Server& server, const unsigned char* bytes, int length, int clientId, const Trace& trace) try {
        if (bytes == nullptr || (server.*Kind::kExists)(clientId) == 0) return trace.fail(trace.line());
        // Throws when the length is negative.
        std::string msg(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
        trace.text("msg", msg.c_str(), trace.line());
        post(server, kMessage, clientId, std::move(msg));
        trace.leave(trace.line());
    } catch (const std::exception&) {
        trace.fail(trace.line());
    }

    // The place becomes free before the host hears of it: one that answers at once sees the list without the client.
    static void clientLeave(Server& server, int clientId, const Trace& trace) {
        const bool wasListed = (server.*Kind::kExists)(clientId) != 0;
        if (!wasListed || server.m_clientIds.remove(clientId) != Removal::kRemoved) return trace.fail(trace.line());
        post(server, kClientLeave, clientId, {});
        trace.leave(trace.line());
    }

    static int status(const Server& server, const Trace& trace) {
        if (!server.m_enableInterDevSync) return kCssDisabled;
        if (server.m_clientIds.holds(server.m_maxClientNum)) return kCssFull;
        return trace.leave(kCssAvailable, trace.line());
    }

    template <typename Callback>
    static void setCallback(Server& server, Callback callback, void const* userData, const Trace& trace) {
        {
            const MutexLock lock(server.m_mutex);
            server.m_eventCallback = callback;
            server.m_eventUserData = userData;
        }
        trace.leave(trace.line());
    }

    // Emptied before the closing: a client that connects in between is then listed and closed like any other, and one
    // that connects later is listed.
    static void enable(Server& server, bool isEnabled, const Trace& trace) {
        server.m_enableInterDevSync = isEnabled;
        if (!isEnabled) {
            server.m_clientIds.takeAll();
            server.closeClientConnection(kEveryClient);
        }
        trace.leave(trace.line());
    }

    /// @param giveUrl  the front end's operation that makes the URL
    static void giveEndpoint(std::string& endpoint, void (MediaSyncServer::*giveUrl)(std::string&),
                             const Trace& trace) try {
        MediaSyncServer* const frontEnd = MediaSyncServer::getInstance();
        if (frontEnd == nullptr) return trace.fail(trace.line());
        std::string url;
        (frontEnd->*giveUrl)(url);
        endpoint = url;
        trace.text("url.c_str()", url.c_str(), trace.line());
        trace.leave(trace.line());
    } catch (const std::exception&) {
        trace.fail(trace.line());
    }

    /// Takes one id, or all of them for kEveryClient, out of the list, and then closes what was taken out. The close
    /// event of such a client finds its id gone, and so makes no event.
    /// @return kRemoved for a single id only
    static Removal remove(Server& server, int clientId) {
        if (clientId != kEveryClient) {
            const Removal removal = server.m_clientIds.remove(clientId);
            if (removal == Removal::kRemoved) server.closeClientConnection(clientId);
            return removal;
        }
        const std::vector<std::int32_t> taken = server.m_clientIds.takeAll();
        for (const std::int32_t id : taken) server.closeClientConnection(id);
        return taken.empty() ? Removal::kListWasEmpty : Removal::kNotInList;
    }

    template <typename Event, typename Info>
    static void dispatch(Server& server, Event event, Info* info, const Trace& trace) {
        if (!server.m_enableInterDevSync) return trace.fail(trace.line());
        {
            const MutexLock lock(server.m_mutex);
            if (server.m_eventCallback != nullptr && server.m_eventUserData != nullptr) {
                server.m_eventCallback(event, info, server.m_eventUserData);
            }
        }
        trace.leave(trace.line());
    }

private:
    using Event = decltype(Kind::kFirstEvent);
    static constexpr Event kNewClient = Kind::kFirstEvent, kMessage = Event(kNewClient + 1),
                           kClientLeave = Event(kNewClient + 2);

    /// Where there is no memory for it the server comes up without a dispatcher: clients are served, but the host hears
    /// of none.
    template <typename Step>
    static void attempt(Server& server, const Trace& trace, const Step& step) try {
        step();
    } catch (const std::exception&) {
        server.m_dispatcher = nullptr;
        trace.fail(trace.line());
    }

    /// Prints the limit, and the refusal too when the list is full.
    static bool hasRoom(const Server& server) {
        std::printf("m_maxClientNum = %d\n", server.m_maxClientNum);
        if (!server.m_clientIds.holds(server.m_maxClientNum)) return true;
        std::printf("%s Client num reach max number, can't connect\n", Kind::kName);
        return false;
    }

    static void post(Server& server, Event event, int clientId, std::string message) {
        if (server.m_dispatcher != nullptr)
            queueEvent(*server.m_events, {event, &server, clientId, std::move(message)});
    }
};

}  // namespace zenk
