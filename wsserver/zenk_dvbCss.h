#pragma once

#include <pthread.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "log/zenk_export.h"
#include "wsserver/media_sync_server.h"

// ---------------------------------------------------------------- event dispatcher

// ---------------------------------------------------------------- CSS-CII server

// ---------------------------------------------------------------- CSS-TS server

// ---------------------------------------------------------------- CSS-WC server

class ZenkCSSEventDispatcher;

/// The wall-clock server (CSS-WC of ETSI TS 103 286-2): answers each UDP request of a companion device with the
/// receiver's time.
///
/// startWCServer() lends the server a thread of the host and blocks there; the other operations are for any other
/// thread. Each request gets one reply, whatever it holds; a pass of the loop allocates nothing. Two "##MS##" lines per
/// request go to standard output, so nobody may leave a pipe there unread.
///
/// Nothing tells who sent a datagram: "quitwc" from any device on the network ends the server, as stopWCServer() does.
///
/// The host owns the server and destroys it only after startWCServer() has returned. No exception leaves the
/// operations; the constructors throw std::bad_alloc when there is no memory.
class ZENK_API ZenkCSSWCServer {
public:
    /// Stores `this` in `m_instance` and takes the event dispatcher, which is built if there is none yet. Without a
    /// port: startWCServer() refuses. Servers are built one after another, not by two threads at once.
    ZenkCSSWCServer();

    /// The same, with a port.
    /// @param port  decimal text, copied; what follows the number is ignored by the sockets but stays in the URL; a
    ///              text that does not begin with a number counts as 0, which listens on a port that nobody can know
    explicit ZenkCSSWCServer(std::string& port);

    /// Clears `m_instance`, whatever server it names. Neither wakes a running loop nor destroys the dispatcher.
    ~ZenkCSSWCServer();

    /// Serves on all IPv4 interfaces until stopWCServer(), a "quitwc" or a failure to receive, and blocks until then.
    /// Creates a ZenkWallClock when ZenkWallClock::m_instance is null; the clock found at the start serves to the end.
    ///
    /// Returns at once, with an error log line, when the server runs already, the port is empty, or the socket cannot
    /// be had or bound. After it has returned it may be called again.
    void startWCServer();

    /// Ends a running server; any thread. Does not wait: the server ends at once when it is answering, within half a
    /// second when it is idle. An error log line is all that happens when none runs.
    void stopWCServer();

    /// Gives the URL to publish, "udp://ADDRESS:PORT", with the receiver's own IPv4 address and the port text. Any
    /// thread; reads the system's route table.
    /// @param url  replaced; left alone, with an error log line, when there is no address
    void getCssWcEndpoint(std::string& url);

    /// The server that was constructed last; null before the first and after the destruction of any.
    static ZenkCSSWCServer* m_instance;

private:
    unsigned char m_running;               // any thread, as an atomic byte; set from the bind to the end of the loop
    std::string m_port;                    // constant after construction
    ZenkCSSEventDispatcher* m_dispatcher;  // constant after construction; held, not used

public:
    /// Non-zero lets the server answer; 0, as it is built, lets it stay idle with the datagrams waiting in its socket.
    /// The host may write it at any time, from one thread. A running server sees the change after its next datagram,
    /// or within half a second when it is idle.
    unsigned char m_enableInterDevSync;
};
