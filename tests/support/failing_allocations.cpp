#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/support/environment.h"

static std::atomic<pthread_t> g_thread;
static std::atomic<long> g_left = -1;  // below 0: none fails

static bool isToFail() {
    return g_left >= 0 && pthread_equal(pthread_self(), g_thread) != 0 && g_left.fetch_sub(1) == 0;
}

void zenk_test::failAllocationOf(pthread_t thread, long count) {
    g_thread = thread;
    g_left = count;
}

bool zenk_test::stopFailing() {
    return g_left.exchange(-1) < 0;
}

void* operator new(std::size_t size) {
    if (void* const block = isToFail() ? nullptr : std::malloc(size)) return block;
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

extern "C" {
void* __real_mmap(void* where, std::size_t bytes, int access, int flags, int fd, off_t offset);
void* __wrap_mmap(void* where, std::size_t bytes, int access, int flags, int fd, off_t offset) {
    return isToFail() ? MAP_FAILED : __real_mmap(where, bytes, access, flags, fd, offset);
}
}
