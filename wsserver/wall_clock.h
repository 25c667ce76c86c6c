#pragma once

#include <cstdint>
#include <ctime>

#include "log/zenk_export.h"

/// @file
/// The time source of the wall-clock server, and its message.

/// The system clock that a ZenkWallClock reads. Any other value can be stored too and gives a clock that stands at 0.
enum ZenkWallClockType : std::int32_t {
    WALLCLOCK_MONOTONIC = 0,         ///< CLOCK_MONOTONIC: steered by the system's time service
    WALLCLOCK_MONOTONIC_COARSE = 1,  ///< CLOCK_MONOTONIC_COARSE: cheap, a tick of some milliseconds
    WALLCLOCK_MONOTONIC_RAW = 2,     ///< CLOCK_MONOTONIC_RAW: the bare oscillator, the default
};

/// A wall-clock message (ETSI TS 103 286-2, CSS-WC) in host byte order, in the order of its 32 bytes on the wire.
/// Of the first four fields only the low-order 8 bits travel.
struct ZenkWCMessage {
    std::int32_t version;       ///< 0; a reply repeats that of its request
    std::int32_t message_type;  ///< 0 request, 1 response
    std::int32_t precision;  ///< log2 of the clock's precision in seconds; a decoded one is 0 to 255, not sign-extended
    std::int32_t reserved;   ///< 0; a reply repeats that of its request
    std::uint32_t max_freq_error;             ///< in 1/256 part per million
    std::uint32_t originate_timevalue_secs;   ///< when the device sent the request, by its own clock
    std::uint32_t originate_timevalue_nanos;  ///< the rest of it, in ns
    std::uint32_t receive_timevalue_secs;     ///< when the request came, by the wall clock
    std::uint32_t receive_timevalue_nanos;    ///< the rest of it, in ns
    std::uint32_t transmit_timevalue_secs;    ///< when the response left, by the wall clock
    std::uint32_t transmit_timevalue_nanos;   ///< the rest of it, in ns
};

/// The time source of the wall-clock server: one of three monotonic system clocks, with its measured tick.
///
/// Ready from the constructor on; there is no stopped state. Nothing is logged, nothing allocates or blocks, nothing
/// throws. Every operation may be called from any thread at any time: the fields are read and written as single atomic
/// words. Two threads that measure at the same time leave the tick of one of them.
///
/// The host owns its clocks. One that stands in `m_instance` when a ZenkCSSWCServer starts must outlive that run.
class ZENK_API ZenkWallClock {
public:
    /// Selects WALLCLOCK_MONOTONIC_RAW, measures as Initialize() does and stores `this` in `m_instance`.
    ZenkWallClock();

    /// Has no effect: `m_instance` keeps its value, so a host that destroys its clock sets it to null or to another.
    ~ZenkWallClock();  // NOLINT(performance-trivially-destructible): part of the binary interface

    /// Selects the clock and measures its tick; may be repeated at any time.
    /// @param type  any value; one outside the enumeration gives a clock that stands at 0
    /// @return 0 always
    int Initialize(ZenkWallClockType type);

    /// Has no effect. @return 0 always
    int Deinitialize();

    /// Reads the clock. Does not measure.
    /// @return the seconds as they are and the nanoseconds cut to a multiple of the last measured tick; 0 and 0 for an
    ///         unknown type
    timespec GetWallClockTime();

    /// Measures the tick by two reads in a row; stores nothing.
    /// @return the tick in nanoseconds, in wrapping 32-bit arithmetic; 0 when both reads fell into the same tick; -1
    ///         for an unknown type
    int CountPrecision();

    /// Measures the tick afresh, for this answer and for the GetWallClockTime() calls that follow. A measured tick of
    /// 0 or below counts as the resolution that the system tells for the clock.
    /// @return log2 of the tick in seconds, truncated toward zero (-19 for 1000 ns); 0 for an unknown type
    int GetPrecision();

    /// @return the frequency error of the selected clock in 1/256 part per million: 500, or 0 for an unknown type
    int CountMaxFreqError();

    /// @return what CountMaxFreqError() gave when the clock was selected
    int GetMaxFreqError();

    /// Encodes a message.
    /// @param message  may be null
    /// @param buffer   room for 32 bytes; may be null
    /// @param length   gets 32; not null
    /// @return 0, or -1 when `message` or `buffer` is null, with nothing written
    int ZenkWCMessageToString(ZenkWCMessage* message, char* buffer, int* length);

    /// Decodes a message without checking any field.
    /// @param buffer   32 readable bytes; may be null
    /// @param length   not looked at
    /// @param message  may be null; the upper 24 bits of its first four fields stay as they were, so clear it first
    /// @return 0, or -1 when `buffer` or `message` is null, with nothing written
    int StringToZenkWCMessage(char* buffer, int length, ZenkWCMessage* message);

    /// The clock that was constructed last; null before the first. A running server keeps the one it started with.
    static ZenkWallClock* m_instance;

private:
    ZENK_HIDDEN int usableTick(int measuredNs);
    ZENK_HIDDEN int measureAndStore();

    // Written by whichever thread initialises or measures, read by any: each one atomic word, no lock.
    ZenkWallClockType m_type;
    std::int32_t m_precisionNs;    ///< last tick; above 0 for the known types
    std::int32_t m_precisionLog2;  ///< log2 of that tick in seconds
    std::int32_t m_maxFreqError;
    std::int32_t m_resolutionNs;  ///< tick that the system tells for m_type, asked once per Initialize()
};
