#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zenk_log_detail {

constexpr std::size_t kMaxModules = 20;
constexpr std::size_t kMaxNameBytes = 32;

/// A module's name as words, zero-padded: names are compared a word at a time, and can be read while they change.
/// A name holds no zero byte, so equal words are equal names.
using NameWord = std::size_t;
using NameWords = std::array<NameWord, kMaxNameBytes / sizeof(NameWord)>;
NameWords wordsOf(std::string_view name);  ///< at most kMaxNameBytes

/// What log calls read of the module table: a fixed list of names with their levels, replaced as a whole.
///
/// There are two copies. The writer fills the one that is out of use and then publishes it; a reader that was overtaken
/// meanwhile reads again. So a reader never waits for the writer, however long that is held up (not even in a child
/// that was forked in the middle of a change), takes no lock, writes to no shared memory, and no memory is ever freed.
class LevelTable {
public:
    struct Entry {
        NameWords name;
        int level;
    };

    /// Any thread. A relaxed read: a log call that needs no more than this costs one load.
    bool isEmpty() const { return countOf(m_published.load(std::memory_order_relaxed)) == 0; }

    /// The level of a name, nothing if the table does not hold it. Any thread; lock-free, allocates nothing.
    std::optional<int> find(const NameWords& name) const;

    /// Replaces the whole table by the first `count` of `entries`. The caller lets one thread in at a time.
    void publish(const std::array<Entry, kMaxModules>& entries, std::size_t count);

private:
    // All words are atomic, since a reader may look at a copy just as it is filled again. Storing with release and
    // loading with acquire makes a reader that saw any word of a later filling also see that m_published has moved on.
    struct Copy {
        std::array<std::array<std::atomic<NameWord>, std::tuple_size_v<NameWords>>, kMaxModules> names{};
        std::array<std::atomic<int>, kMaxModules> levels{};
    };

    // m_published holds the number of the publication, which tells the copy, over the count of its entries.
    static constexpr std::uint32_t kCountBits = 5;
    static_assert(kMaxModules < (1U << kCountBits));
    static std::size_t countOf(std::uint32_t published) { return published & ((1U << kCountBits) - 1); }
    static std::uint32_t numberOf(std::uint32_t published) { return published >> kCountBits; }

    static std::optional<int> findIn(const Copy& copy, std::size_t count, const NameWords& name);

    std::array<Copy, 2> m_copies{};
    std::atomic<std::uint32_t> m_published{0};
};

}  // namespace zenk_log_detail
