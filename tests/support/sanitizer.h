#pragma once

namespace zenk_test {

/// Under a sanitizer memory figures say nothing of the library, and everything takes longer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsSanitized = true;
#else
inline constexpr bool kIsSanitized = false;
#endif

}  // namespace zenk_test
