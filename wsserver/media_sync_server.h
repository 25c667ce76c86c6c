#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "log/zenk_export.h"
#include "platform/thread_annotations.h"
#include "wsserver/observer_list.h"
#include "wsserver/websocket_service.h"

/// @file
/// Admission, client ids, App2App pairing, observers and the URLs to publish.

class MediaSyncServer;
class PairedApps;
struct _pairedApp;
namespace zenk {
class CssEventQueue;
}

/// Base class of whatever wants to hear of WebSocket clients and talk to them; the CSS servers are such observers.
/// MediaSyncServer::addObserver() connects it to a server. An observer names clients by client id: a positive int that
/// stands for one live connection and is not used again while the counter lasts.
///
/// The virtual operations run on the service thread, one at a time, without any lock of the library held; they must not
/// block. They hear only of connections outside App2App pairing.
///
/// The plain operations may be called from any thread, also from inside the virtual ones, between addObserver() and the
/// destruction of either side; they never wait for the network. Before and after, they do nothing: sending and closing
/// write an error trace line, getUrl() gives "NONE" and copyUrl() false.
///
/// A derived class calls MediaSyncServer::removeObserver() first thing in its own destructor, if `m_server` is not
/// null: the base does it again as a safety net, but by then the overrides of the derived class are gone, and a running
/// call of one would find a half-destroyed object.
class ZENK_API ClientObserver {
public:
    ClientObserver();

    /// A client has connected.
    /// @param uri       request path, and "?" with the query when the request has one; zero-terminated, not null, good
    ///                  only during the call
    /// @param clientId  the id that names the client from now on
    virtual void onNewClient(char* uri, int clientId);

    /// A client has sent a whole message, text or binary: the two cannot be told apart here.
    /// @param message  the payload, not null, good only during the call; zero-terminated if below 131072 bytes
    /// @param length   0 to 131072 bytes
    virtual void onMessage(unsigned char* message, int length, int clientId);

    /// A client has gone; its id names nobody any more.
    virtual void onClientLeave(int clientId);

    /// Asked at each handshake outside App2App pairing, whatever its path.
    /// @return 1 refuses the client with HTTP status 403, 2 with 503; anything else raises no objection
    virtual int getCssServerStatus();

    virtual ~ClientObserver();

    /// Sends one text frame.
    /// @param message   `length` bytes of UTF-8, no terminator needed; may be null if `length` is 0. Copied before
    /// return
    /// @param length    bytes, not negative
    /// @param clientId  the receiver, or -1 for every connection of the server: those of other observers and of App2App
    ///                  pairs too. An id that names nobody gives an error trace line and sends nothing
    /// @thread any; never blocks
    void sendMessage(char* message, int length, int clientId);

    /// Sends one text frame to every connection of the server but `clientId` (which may name nobody, e.g. -1).
    /// @thread any; never blocks
    void sendMessageAll(char* message, int length, int clientId);

    /// Starts the closing handshake (RFC 6455, status 1001) with one client, or with every connection if `clientId` is
    /// -1. The id stays valid until the connection has really closed. An unknown id gives an error trace line.
    /// @thread any; never blocks
    void closeClientConnection(int clientId);

    /// The URI of a client, as given to onNewClient().
    /// @return a text that the server owns, or "NONE" for an id that names nobody; never null. It stays readable while
    ///         the client is connected and until 256 further connections have closed. To keep it, use copyUrl()
    /// @thread any; never blocks
    const char* getUrl(int clientId);

    /// Copies the URI of a client.
    /// @param url  replaced on success, unchanged on failure
    /// @return true, or false for an id that names nobody, for an observer without a server, and without memory
    /// @thread any; never blocks
    bool copyUrl(int clientId, std::string& url);

protected:
    friend class MediaSyncServer;

    /// The server this observer is registered with; null before addObserver() and after. Written by MediaSyncServer
    /// only, through std::atomic_ref; a derived class reads it in the same way, or while no other thread can change it.
    MediaSyncServer* m_server;
};

/// The WebSocket side of the library, one instance per process: admits connections, numbers them, joins App2App clients
/// into pairs, hands everything else to the observers, and makes the URLs that the host publishes. The host sets
/// `m_port` and `enablePairing`, adds its observers, and passes the instance to startWebSocketServer().
///
/// The virtual operations and the pairing operations are for the service thread; the header says so of each operation.
/// The host owns the instance: nothing in the library destroys it, and it must not be destroyed while
/// startWebSocketServer() runs or an operation of an observer is under way.
class ZENK_API MediaSyncServer : public Client {
public:
    /// Makes this object the instance of the process and draws new random tokens. Prefer getInstance(), which throws
    /// nothing. @throw std::bad_alloc
    MediaSyncServer();

    /// Refuses what an observer refuses: the first one with status 1 gives 403, with status 2 gives 503. App2App URIs
    /// always pass. @thread service thread
    int onFilterConnection() override;

    /// Gives the connection its client id and hands it to pairing or to the observers. @thread service thread
    void onConnect() override;

    /// Relays a message of an App2App client to its partner, hands any other to the observers. @thread service thread
    void onMessage(unsigned char* message, int length, bool binary) override;

    /// Forgets the connection; closes its App2App partner or tells the observers.
    /// @return 0, or -1 for a connection that was never registered. @thread service thread
    int onClose() override;

    /// Closes no connection and destroys no observer; the observers' `m_server` becomes null.
    ~MediaSyncServer() override;

    /// The instance of the process, created by the first call; the host may delete it when startWebSocketServer() has
    /// returned.
    /// @return null, with an error trace line, only when there is no memory for the first one. @thread any
    static MediaSyncServer* getInstance();

    /// Registers an observer; it hears of events after those of earlier registrations, and twice if added twice.
    /// @param observer  stays the caller's; it belongs to one server at a time. Null is ignored, and so is an observer
    ///                  for which there is no memory
    /// @thread any; best before startWebSocketServer()
    void addObserver(ClientObserver* observer);

    /// Takes out every registration of `observer` and then waits for a call of it that is running. When this returns,
    /// the observer is called no more and may be destroyed. From inside a call of an observer it does not wait.
    /// @param observer  an observer that is alive; null or one that was never added is ignored
    /// @thread any; blocks as long as the observer's running call does: hold no lock that this call needs
    void removeObserver(ClientObserver* observer);

    /// Sends one text frame to the client `clientId`, or to every connection, the oldest first, if it is -1.
    /// @param message  `length` bytes, copied before return; may be null if `length` is 0
    /// @return 0, or 1 with an error trace line when the id names nobody; whether it arrives is not told
    /// @thread any; never blocks
    int observerSendMessage(char* message, int length, int clientId);

    /// Sends one text frame to every connection but `clientId`, the oldest first. @return 0. @thread any; never blocks
    int observerSendMessageAll(char* message, int length, int clientId);

    /// Starts the closing handshake with status 1001, with one connection or with all of them (-1).
    /// An unknown id gives an error trace line. @thread any; never blocks
    void observerCloseClientConnection(int clientId);

    /// As ClientObserver::copyUrl(). @thread any; never blocks
    bool copyUrl(int clientId, std::string& url);

    /// Files an App2App connection: completes the oldest waiting record of the same endpoint whose other side is
    /// present, and then sends "pairingcompleted" to the local and to the remote side if `enablePairing` is true; or
    /// starts a record of its own.
    /// @param uri       "/local/hbbtv/..." or "/remote/hbbtv/...", with the query
    /// @param socketFd  the connection's socket number; 0 cannot be paired and is ignored
    /// @param wsi       the connection, owned by the WebSocket layer
    /// @return 1. @thread service thread
    int handlePairingConnection(const std::string& uri, int socketFd, lws* wsi);

    /// Relays a message to the partner in one frame of the same kind; without a partner, or with `enablePairing` false,
    /// it is dropped. @return 1 when the socket belongs to pairing, 0 when it does not. @thread service thread
    int handlePairingMsg(unsigned char* message, int length, int socketFd, bool binary);

    /// Takes a closed connection out of its record and closes its partner with status 1000.
    /// @return 1 when the socket belonged to pairing, 0 when it did not. @thread service thread
    int handlePairingClose(int socketFd);

    /// Draws the random tokens of the URLs anew. The constructor does it; URLs published before become stale, though
    /// they still work. @thread one thread, with no URL operation under way
    static void createRandom();

    /// "ws://ADDRESS:PORT/local/hbbtv/TOKEN/": to it an application on the receiver adds its endpoint name. A name may
    /// have a query, but a "/" that stands alone behind its "?" or its last "&" is lost: "x?/" is the same as "x?".
    /// The four URL operations look up the receiver's address anew, see getLocalIpAddr().
    /// @param url  replaced on success; unchanged, with an error trace line, when the receiver has no address or there
    ///             is no memory
    /// @thread any; makes a few system calls, does not wait
    void getApp2AppLocalBaseUrl(std::string& url);

    /// "ws://ADDRESS:PORT/remote/hbbtv/TOKEN/", for companion devices. @see getApp2AppLocalBaseUrl
    void getApp2AppRemoteBaseUrl(std::string& url);

    /// The CSS-CII endpoint (ETSI TS 103 286-2), "ws://ADDRESS:PORT/css-cii/TOKEN/". @see getApp2AppLocalBaseUrl
    void getInterDevSyncUrl(std::string& url);

    /// The CSS-TS endpoint (ETSI TS 103 286-2), "ws://ADDRESS:PORT/css-ts/". @see getApp2AppLocalBaseUrl
    void getCssTsEndpoint(std::string& url);

    /// The instance constructed last; null before the first and after a destructor. Use getInstance().
    static MediaSyncServer* m_instance;

private:
    friend class ClientObserver;
    friend class zenk::CssEventQueue;

    /// Stops the reading of a client of `server`, or lets it go on; nothing happens when either has gone.
    /// @thread any, also while the host destroys the server; never blocks
    ZENK_HIDDEN static void holdClient(MediaSyncServer* server, int clientId, bool isHeld);

    ZENK_HIDDEN static MediaSyncServer* instanceOrNewOne();
    ZENK_HIDDEN void leaveServer(ClientObserver& observer);
    ZENK_HIDDEN int registerConnection(int socketFd, const std::string& uri);
    ZENK_HIDDEN int forgetConnection(int socketFd);
    ZENK_HIDDEN int clientIdOf(int socketFd);
    ZENK_HIDDEN const char* urlOf(int clientId);
    ZENK_HIDDEN void beginHandshake();
    ZENK_HIDDEN std::string takeHandshakeUri();
    ZENK_HIDDEN void sweepHandshake();
    ZENK_HIDDEN bool wasSwept();
    template <typename Action>
    ZENK_HIDDEN bool forClients(int clientId, const Action& action);

    // References to texts that live as long as the process: a callback may ask for a URL while it exits.
    ZENK_HIDDEN static std::string& m_local_random;  // written by createRandom() only, as are the next two
    ZENK_HIDDEN static std::string& m_remote_random;
    ZENK_HIDDEN static std::string& m_sync_random;
    ZENK_HIDDEN static std::string& m_css_random;  // stays empty

    // The three maps belong together: a connection is in all of them from onConnect() to onClose(). Changed by the
    // service thread only. The registry lock is held across writes and closes of other threads, so that no connection
    // vanishes under them; it is never held while an observer is called. Behind it comes only the WebSocket layer's.
    std::map<int, lws*> m_clientMap ZENK_GUARDED_BY(m_registryMutex);  // client id to connection
    std::map<int, int> m_fdMap ZENK_GUARDED_BY(m_registryMutex);       // socket number to client id
    std::vector<ClientObserver*> m_observers;                          // kept by m_observerList, under m_registryMutex
    int mClientIdIndex ZENK_GUARDED_BY(m_registryMutex);               // the last client id given out

public:
    /// TCP port that the URLs name; 0 at first. Nothing ties it to the port of startWebSocketServer(): set both.
    /// The library reads it through std::atomic_ref; a host that changes it later writes it in the same way.
    int m_port;

private:
    std::vector<_pairedApp*> m_pairedApps;  // in order of creation; service thread

public:
    /// Whether App2App clients hear of each other; false at first. Pairs form and end whatever it says. It counts for
    /// the next message or pair. The library reads it through std::atomic_ref; write it in the same way while serving.
    bool enablePairing;

private:
    static constexpr std::uint32_t kRetiredUrls = 256;  // how many closes a text of getUrl() survives

    std::map<int, std::string> m_urlMap ZENK_GUARDED_BY(m_registryMutex);  // client id to full URI

    zenk::Mutex m_registryMutex;
    std::array<std::map<int, std::string>::node_type, kRetiredUrls> m_retiredUrls ZENK_GUARDED_BY(m_registryMutex);
    std::uint32_t m_nextRetired ZENK_GUARDED_BY(m_registryMutex) = 0;
    // A client between filter and registration must not slip through a closing of everybody.
    bool m_isHandshakeSwept ZENK_GUARDED_BY(m_registryMutex) = false;

    zenk::ObserverList m_observerList;      // keeps m_observers
    std::unique_ptr<PairedApps> m_pairing;  // keeps m_pairedApps, with an index beside it; service thread

    // The URI built at the filter event waits here for the established event of the same connection; service thread.
    std::string m_handshakeUri;
    const lws* m_handshakeWsi ZENK_GUARDED_BY(m_registryMutex) = nullptr;  // from the filter to the registration
};

/// The receiver's IPv4 address: that of the interface which the first complete line of /proc/net/route names.
/// @param ip_addr  receives the dotted text, filled up with zeros to `len`; not null, and at least `len` + 1 zero
/// bytes,
///                 since the text gets no terminator when it is `len` long. Unchanged on failure
/// @param len      bound for the interface name and for the text; 15 holds every address
/// @return 0, or -1 when the route table cannot be read, or its first interface has no IPv4 address
/// @thread any; makes a few system calls, does not wait
ZENK_API int getLocalIpAddr(char* ip_addr, int len);
