#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct lws;

/// One pairing record: the connections of one endpoint that exchange messages, or one that waits for its partner.
/// A side is either present (socket and connection set) or absent (0 and null).
struct _pairedApp {
    char* endpoint;  ///< made by strdup; null only if that failed, and then the record never finds a partner
    bool isPaired;   ///< both sides are present
    int localFd;
    lws* localWsi;
    int remoteFd;
    lws* remoteWsi;
};

enum class PairSide { kLocal, kRemote };

/// What an App2App URI says: "/local/hbbtv/" or "/remote/hbbtv/", a token that nobody compares, and the endpoint with
/// its leading "/". Without a token the endpoint has no "/" in front.
struct PairingUri {
    PairSide side;
    std::string endpoint;
};
PairingUri cutPairingUri(std::string_view uri);

/// Whether a URI asks for pairing: only the beginning counts, with the slash behind "hbbtv" and in exact case.
bool isPairingUri(std::string_view uri);

/// Keeps the list of pairing records, in order of creation, with an index beside it. The list is the truth, and every
/// look-up gives the first record that a walk from its front would find, but without the walk. Socket 0 is never found.
///
/// Not safe between threads: it belongs to the service thread.
class PairedApps {
public:
    /// `list` is empty, outlives this object and is changed by it only.
    explicit PairedApps(std::vector<_pairedApp*>& list) : m_list(list) {}
    PairedApps(const PairedApps&) = delete;
    PairedApps& operator=(const PairedApps&) = delete;
    ~PairedApps() { clear(); }

    /// The first record that holds the socket on either side, or null. Constant time, no allocation.
    _pairedApp* findBySocket(int socketFd) const;

    /// The first record in which a newcomer of side `newcomer` finds its partner waiting on `endpoint`, or null.
    _pairedApp* findWaiting(const std::string& endpoint, PairSide newcomer) const;

    /// Appends a record that holds one side and waits for the other. This and complete() throw when there is no memory,
    /// with nothing changed; the others never do.
    void start(const std::string& endpoint, PairSide side, int socketFd, lws* wsi);

    /// Adds the second side to a waiting record.
    void complete(_pairedApp& app, PairSide side, int socketFd, lws* wsi);

    /// Takes one side out of a pair; the record waits again, at its old place.
    void leave(_pairedApp& app, PairSide side);

    /// Releases a record.
    void end(_pairedApp& app);

    /// Releases all records.
    void clear();

private:
    /// All records are of this type: the number gives the place in the list without a walk.
    struct Record : _pairedApp {
        std::uint64_t number;
    };
    /// Waiting records of one endpoint and side, the oldest first.
    using Queue = std::map<std::uint64_t, Record*>;
    /// Finds an endpoint by its characters: a record that ends must not need memory.
    struct EndpointHash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    using Waiting = std::unordered_map<std::string, Queue, EndpointHash, std::equal_to<>>;

    static Record& recordOf(_pairedApp& app) { return static_cast<Record&>(app); }
    static void setSide(_pairedApp& app, PairSide side, int socketFd, lws* wsi);
    Waiting& waitingWith(PairSide present) { return present == PairSide::kLocal ? m_waitingLocal : m_waitingRemote; }
    void enqueue(Record& record);
    void dequeue(Record& record);
    void forgetSocket(int socketFd, const Record& record);

    std::vector<_pairedApp*>& m_list;
    std::unordered_multimap<int, Record*> m_bySocket;  // one entry for each present side
    Waiting m_waitingLocal;                            // by endpoint: only the local side is present
    Waiting m_waitingRemote;
    std::uint64_t m_nextNumber = 0;
};
