#include "wsserver/wall_clock.h"

#include <endian.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <optional>

ZenkWallClock* ZenkWallClock::m_instance = nullptr;

namespace {

constexpr int kMaxFreqError = 500;  // of all three clocks; about 2 parts per million
constexpr std::uint32_t kNanosPerSecond = 1'000'000'000;
constexpr int kMessageBytes = 32;

// The message in wire order: four fields of one byte, then seven big-endian words.
constexpr std::int32_t ZenkWCMessage::*kByteFields[] = {&ZenkWCMessage::version, &ZenkWCMessage::message_type,
                                                        &ZenkWCMessage::precision, &ZenkWCMessage::reserved};
constexpr std::uint32_t ZenkWCMessage::*kWordFields[] = {
    &ZenkWCMessage::max_freq_error,
    &ZenkWCMessage::originate_timevalue_secs,
    &ZenkWCMessage::originate_timevalue_nanos,
    &ZenkWCMessage::receive_timevalue_secs,
    &ZenkWCMessage::receive_timevalue_nanos,
    &ZenkWCMessage::transmit_timevalue_secs,
    &ZenkWCMessage::transmit_timevalue_nanos,
};

// The fields stay plain for the host's sake; no two of them have to agree, so no order between them is needed.
template <typename T>
T load(T& field) {
    return std::atomic_ref<T>(field).load(std::memory_order_relaxed);
}

template <typename T>
void store(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

std::optional<clockid_t> systemClock(ZenkWallClockType type) {
    switch (type) {
        case WALLCLOCK_MONOTONIC:
            return CLOCK_MONOTONIC;
        case WALLCLOCK_MONOTONIC_COARSE:
            return CLOCK_MONOTONIC_COARSE;
        case WALLCLOCK_MONOTONIC_RAW:
            return CLOCK_MONOTONIC_RAW;
    }
    return std::nullopt;
}

// A thread can be held up for seconds between two reads: 32 bits wrap then, which only unsigned types may do. Modulo
// 2^32 a borrow from the seconds cancels itself out.
int elapsedNs(const timespec& from, const timespec& to) {
    const std::uint32_t seconds = static_cast<std::uint32_t>(to.tv_sec) - static_cast<std::uint32_t>(from.tv_sec);
    const std::uint32_t nanos = static_cast<std::uint32_t>(to.tv_nsec) - static_cast<std::uint32_t>(from.tv_nsec);
    return static_cast<std::int32_t>(seconds * kNanosPerSecond + nanos);
}

int toldResolutionNs(ZenkWallClockType type) {
    const std::optional<clockid_t> clock = systemClock(type);
    timespec resolution{};
    if (clock) clock_getres(*clock, &resolution);
    return elapsedNs(timespec{}, resolution);
}

// The conversion truncates toward zero, which is the next integer above the logarithm of a tick below a second.
int log2Seconds(int tickNs) {
    if (tickNs <= 0) return 0;
    return static_cast<int>(std::log2(static_cast<double>(tickNs) / 1e9));
}

}  // namespace

ZenkWallClock::ZenkWallClock() {
    Initialize(WALLCLOCK_MONOTONIC_RAW);
    std::atomic_ref<ZenkWallClock*>(m_instance).store(this);
}

ZenkWallClock::~ZenkWallClock() = default;

int ZenkWallClock::Initialize(ZenkWallClockType type) {
    store(m_type, type);
    store(m_resolutionNs, toldResolutionNs(type));
    measureAndStore();
    store(m_maxFreqError, CountMaxFreqError());
    return 0;
}

int ZenkWallClock::Deinitialize() {
    return 0;
}

timespec ZenkWallClock::GetWallClockTime() {
    timespec now{};
    const std::optional<clockid_t> clock = systemClock(load(m_type));
    if (!clock) return now;
    clock_gettime(*clock, &now);
    const int tickNs = load(m_precisionNs);
    if (tickNs > 0) now.tv_nsec = now.tv_nsec / tickNs * tickNs;
    return now;
}

int ZenkWallClock::CountPrecision() {
    const std::optional<clockid_t> clock = systemClock(load(m_type));
    if (!clock) return -1;
    timespec first{};
    timespec second{};
    clock_gettime(*clock, &first);
    clock_gettime(*clock, &second);
    return elapsedNs(first, second);
}

int ZenkWallClock::GetPrecision() {
    return measureAndStore();
}

int ZenkWallClock::CountMaxFreqError() {
    return systemClock(load(m_type)) ? kMaxFreqError : 0;
}

int ZenkWallClock::GetMaxFreqError() {
    return load(m_maxFreqError);
}

int ZenkWallClock::ZenkWCMessageToString(ZenkWCMessage* message, char* buffer, int* length) {
    if (message == nullptr || buffer == nullptr) return -1;
    char* out = buffer;
    for (const auto field : kByteFields) *out++ = static_cast<char>(message->*field & 0xFF);
    for (const auto field : kWordFields) {
        const std::uint32_t word = htobe32(message->*field);
        std::memcpy(out, &word, sizeof word);
        out += sizeof word;
    }
    *length = kMessageBytes;
    return 0;
}

int ZenkWallClock::StringToZenkWCMessage(char* buffer, int /*length*/, ZenkWCMessage* message) {
    if (buffer == nullptr || message == nullptr) return -1;
    const char* in = buffer;
    for (const auto field : kByteFields) {
        message->*field = (message->*field & ~0xFF) | static_cast<unsigned char>(*in++);
    }
    for (const auto field : kWordFields) {
        std::uint32_t word;
        std::memcpy(&word, in, sizeof word);
        message->*field = be32toh(word);
        in += sizeof word;
    }
    return 0;
}

// Two reads in the same tick of a coarse clock measure 0, which tells nothing: the system's own figure serves then.
int ZenkWallClock::usableTick(int measuredNs) {
    if (measuredNs > 0 || !systemClock(load(m_type))) return measuredNs;
    return load(m_resolutionNs);
}

int ZenkWallClock::measureAndStore() {
    const int tickNs = usableTick(CountPrecision());
    const int log2 = log2Seconds(tickNs);
    store(m_precisionNs, tickNs);
    store(m_precisionLog2, log2);
    return log2;
}
