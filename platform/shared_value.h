#pragma once

#include <atomic>
#include <type_traits>

namespace zenk {

/// Plain members that the host writes, and pointers to the instance of a class, are read and written by several threads
/// as if they were atomic. What was written before a store is seen behind the load that finds it.
template <typename T>
T loadShared(T& value) {
    return std::atomic_ref<T>(value).load(std::memory_order_acquire);
}

template <typename T>
void storeShared(T& value, std::type_identity_t<T> to) {
    std::atomic_ref<T>(value).store(to, std::memory_order_release);
}

/// @return what was there before
template <typename T>
T exchangeShared(T& value, std::type_identity_t<T> to) {
    return std::atomic_ref<T>(value).exchange(to);
}

/// Writes `to` only where `from` stands. @return whether it did
template <typename T>
bool replaceShared(T& value, std::type_identity_t<T> from, std::type_identity_t<T> to) {
    return std::atomic_ref<T>(value).compare_exchange_strong(from, to);
}

}  // namespace zenk
