#include "log/zenk_log.h"

/// Another body of the trace call, for tests that look at what the library does and not at what it tells.
void zenk_log_print(int, const char*, const char*, const char*, int, const char*, const void*) {
}
