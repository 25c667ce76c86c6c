#pragma once

#include <cstdint>
#include <vector>

#include "platform/thread_annotations.h"

namespace zenk {

/// The client ids of one CSS server, in order of arrival, each at most once. Any thread may call; the lock is held
/// within each operation only, so nothing is ever called under it.
class CssClientList {
public:
    enum class Addition { kAdded, kPresent, kNoMemory };
    enum class Removal { kListWasEmpty, kNotInList, kRemoved };

    bool contains(std::int32_t id) const;

    /// Whether the list holds `limit` ids or more. @param limit  positive
    bool holds(std::int32_t limit) const;

    /// Appends an id.
    Addition add(std::int32_t id);

    /// Takes one id out; the others keep their order.
    Removal remove(std::int32_t id);

    /// Empties the list. @return what it held, in order of arrival
    std::vector<std::int32_t> takeAll();

private:
    std::vector<std::int32_t> m_ids ZENK_GUARDED_BY(m_mutex);
    mutable Mutex m_mutex;
};

/// The number of clients that each CSS server may hold: the receiver's configured one, or 25 where none is configured
/// or the number is not positive. Reads the configuration, so it may wait for the disk.
std::int32_t readCssClientLimit();

}  // namespace zenk
