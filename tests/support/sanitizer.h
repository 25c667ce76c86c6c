#pragma once

#include <unistd.h>

#include <cstddef>
#include <fstream>

namespace zenk_test {

/// Under a sanitizer memory figures say nothing of the library, and everything takes longer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsSanitized = true;
#else
inline constexpr bool kIsSanitized = false;
#endif

/// Of this process; 0 under a sanitizer.
inline std::size_t residentBytes() {
    std::size_t all = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return kIsSanitized ? 0 : resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace zenk_test
