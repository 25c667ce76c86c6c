#pragma once

#include <cstddef>

namespace zenk_test {

/// How often operator new has run in this process. A program that links the counting body has it replaced.
std::size_t allocationCount();

}  // namespace zenk_test
