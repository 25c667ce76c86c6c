#include "tests/support/allocation_count.h"

#include <atomic>

namespace {
std::atomic<std::size_t> g_count = 0;
}

std::size_t zenk_test::allocationCount() {
    return g_count.load();
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* malloc(std::size_t size) {
    ++g_count;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    ++g_count;
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    ++g_count;
    return __libc_realloc(block, size);
}
}
#endif
