#pragma once

#include <pthread.h>

namespace zenk_test {

/// Lets one allocation of one thread (by new, or a mapping) fail: the one behind the next `count` ones. One failure can
/// be under way at a time.
void failAllocationOf(pthread_t thread, long count);
/// Lets all allocations succeed again. @return whether one has failed
bool stopFailing();

}  // namespace zenk_test
