#include "log/level_table.h"

#include <cstring>

namespace zenk_log_detail {
namespace {

template <typename AtomicWords>
bool areEqual(const AtomicWords& stored, const NameWords& name) {
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (stored[i].load(std::memory_order_acquire) != name[i]) return false;
    }
    return true;
}

}  // namespace

NameWords wordsOf(std::string_view name) {
    NameWords words{};
    std::memcpy(words.data(), name.data(), name.size());
    return words;
}

std::optional<int> LevelTable::find(const NameWords& name) const {
    for (;;) {
        const std::uint32_t published = m_published.load(std::memory_order_acquire);
        const auto level = findIn(m_copies[numberOf(published) % 2], countOf(published), name);
        // Unchanged: what was read is of this publication. The acquiring loads before keep this load behind them.
        if (m_published.load(std::memory_order_relaxed) == published) return level;
    }
}

std::optional<int> LevelTable::findIn(const Copy& copy, std::size_t count, const NameWords& name) {
    for (std::size_t i = 0; i < count; ++i) {
        if (areEqual(copy.names[i], name)) return copy.levels[i].load(std::memory_order_acquire);
    }
    return std::nullopt;
}

void LevelTable::publish(const std::array<Entry, kMaxModules>& entries, std::size_t count) {
    const std::uint32_t number = numberOf(m_published.load(std::memory_order_relaxed)) + 1;
    Copy& copy = m_copies[number % 2];
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t word = 0; word < entries[i].name.size(); ++word) {
            copy.names[i][word].store(entries[i].name[word], std::memory_order_release);
        }
        copy.levels[i].store(entries[i].level, std::memory_order_release);
    }
    m_published.store(number << kCountBits | static_cast<std::uint32_t>(count), std::memory_order_release);
}

}  // namespace zenk_log_detail
