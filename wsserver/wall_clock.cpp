#include "wsserver/wall_clock.h"

#include <endian.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <optional>

#include "platform/shared_value.h"

using zenk::loadShared;
using zenk::storeShared;

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

std::optional<clockid_t> systemClock(ZenkWallClockType type) {
    constexpr clockid_t kClocks[] = {CLOCK_MONOTONIC, CLOCK_MONOTONIC_COARSE, CLOCK_MONOTONIC_RAW};
    const auto index = static_cast<std::size_t>(type);
    return index < std::size(kClocks) ? std::optional(kClocks[index]) : std::nullopt;
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
    storeShared(m_instance, this);
}

ZenkWallClock::~ZenkWallClock() = default;

int ZenkWallClock::Initialize(ZenkWallClockType type) {
    storeShared(m_type, type);
    storeShared(m_resolutionNs, toldResolutionNs(type));
    measureAndStore();
    storeShared(m_maxFreqError, CountMaxFreqError());
    return 0;
}

int ZenkWallClock::Deinitialize() {
    return 0;
}

timespec ZenkWallClock::GetWallClockTime() {
    timespec now{};
    const std::optional<clockid_t> clock = systemClock(loadShared(m_type));
    if (!clock) return now;
    clock_gettime(*clock, &now);
    const int tickNs = loadShared(m_precisionNs);
    if (tickNs > 0) now.tv_nsec = now.tv_nsec / tickNs * tickNs;
    return now;
}

int ZenkWallClock::CountPrecision() {
    const std::optional<clockid_t> clock = systemClock(loadShared(m_type));
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
    return systemClock(loadShared(m_type)) ? kMaxFreqError : 0;
}

int ZenkWallClock::GetMaxFreqError() {
    return loadShared(m_maxFreqError);
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
    if (measuredNs > 0 || !systemClock(loadShared(m_type))) return measuredNs;
    return loadShared(m_resolutionNs);
}

int ZenkWallClock::measureAndStore() {
    const int tickNs = usableTick(CountPrecision());
    const int log2 = log2Seconds(tickNs);
    storeShared(m_precisionNs, tickNs);
    storeShared(m_precisionLog2, log2);
    return log2;
}
