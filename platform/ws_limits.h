#pragma once

#include <chrono>
#include <cstddef>

namespace zenk_ws {

inline constexpr std::size_t kKiB = 1024;
inline constexpr std::size_t kMiB = 1024 * kKiB;

/// The bounds that the layer keeps. The values are for a home network; tests shorten the times.
struct Limits {
    // One send() per message is most of what a relay costs; one per 64 KiB is noise.
    std::size_t earlyFlushBytes = 64 * kKiB;
    // Above this the sender is not read any more, below a quarter of it it is read again.
    std::size_t highWaterBytes = 256 * kKiB;
    std::size_t lowWaterBytes = 64 * kKiB;
    // A sender that has finished can leave as much as its socket's receive buffer holds; it must be read to be kept.
    std::size_t finishedSenderBytes = 6 * kMiB;
    // For writes without a sender to slow down: what may wait for one client behind the message that is on its way, and
    // for all of them.
    std::size_t hostWriteBytes = 8 * kMiB;
    std::size_t hostTotalBytes = 64 * kMiB;
    // What one connection may send in one turn, so that a fast reader does not hold the loop.
    std::size_t turnBytes = 256 * kKiB;

    // A pass of the loop counts for no more than this in what follows: whatever halts the process cuts nobody.
    std::chrono::milliseconds longestPass{1'000};
    std::chrono::milliseconds backlogStall{30'000};  // a backlog without progress ends its connection
    std::chrono::milliseconds closeStall{5'000};     // the same once a close was asked for, and for its answer
    std::chrono::milliseconds closeTotal{30'000};    // a close ends by then, whatever the peer does
    std::chrono::milliseconds goodbye{100};          // what the clients of a stopping server get to say goodbye

    // A phone that left the house holds its place no longer than this; one that sleeps answers a ping in a second.
    std::chrono::milliseconds pingAfter{60'000};
    std::chrono::milliseconds hangUpAfter{75'000};
    std::chrono::seconds handshake{5};

    bool mayUseLibev = true;  // false: as on a machine without the plug-in
};

/// The limits in force. To be changed before a context is created, by tests only.
Limits& limits();

}  // namespace zenk_ws
