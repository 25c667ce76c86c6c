#pragma once

#include <cstddef>

namespace zenk_test {

/// How often memory has been asked for in this process. A program that links the counting body has its malloc replaced,
/// but not under a sanitizer, whose own stands in the way: there it is always 0.
std::size_t allocationCount();

}  // namespace zenk_test
