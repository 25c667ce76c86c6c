#pragma once

#include <cstddef>

namespace zenk_log_detail {

constexpr std::size_t kPrefixBytes = 100;  // 85 characters at most up to the year 9999, 98 at the end of time_t

/// Fills `buffer` with the beginning of a line (time, ids and the level's word), zero-filled to its end.
/// Any thread; a thread formats it anew once a second and copies it otherwise.
void formatLogPrefix(char (&buffer)[kPrefixBytes], int level);

}  // namespace zenk_log_detail
