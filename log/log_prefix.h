#pragma once

#include <cstddef>

namespace zenk_log_detail {

constexpr std::size_t kPrefixBytes = 100;  // the longest prefix has 86 characters and a terminator

/// Fills `buffer` with the beginning of a line (time, ids and the level's word), zero-filled to its end.
/// Any thread; a thread formats it anew once a second and copies it otherwise.
void formatLogPrefix(char (&buffer)[kPrefixBytes], int level);

}  // namespace zenk_log_detail
