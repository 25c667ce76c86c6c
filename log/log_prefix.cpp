#include "log/log_prefix.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <string_view>

namespace zenk_log_detail {
namespace {

constexpr std::time_t kNever = std::numeric_limits<std::time_t>::min();

// Nothing in a prefix but the level's word changes within a second of one thread, so each thread keeps its text.
// Formatting costs a microsecond, the copy a few nanoseconds.
struct CachedPrefix {
    std::time_t second = kNever;
    std::size_t length = 0;
    char text[kPrefixBytes] = {};  // up to "logtype=", zero behind it
};

// Each thread's own. Trivially destructible, so that a thread may still log while its other thread-locals die.
constinit thread_local CachedPrefix t_prefix;

// Runs on the only thread that a forked child has: its ids are no longer those in the text.
void forgetPrefix() {
    t_prefix.second = kNever;
}

[[maybe_unused]] const int g_forkWatch = pthread_atfork(nullptr, nullptr, forgetPrefix);

[[gnu::noinline]] void renewPrefix(CachedPrefix& prefix, std::time_t now) {
    std::tm parts{};
    localtime_r(&now, &parts);
    std::memset(prefix.text, 0, sizeof prefix.text);
    const int length = std::snprintf(
        prefix.text, sizeof prefix.text, "time=%d/%d/%d %d:%d:%d,timestamp=%ld,pid=%d,tid=%ld,logtype=", parts.tm_mday,
        parts.tm_mon + 1, parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<long>(now),
        static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)));
    prefix.length = static_cast<std::size_t>(length);
    prefix.second = now;
}

std::string_view levelWord(int level) {
    switch (level) {
        case 1:
            return "error";
        case 2:
            return "info";
        default:
            return "unknown";
    }
}

}  // namespace

void formatLogPrefix(char (&buffer)[kPrefixBytes], int level) {
    CachedPrefix& prefix = t_prefix;
    const std::time_t now = std::time(nullptr);
    if (prefix.second != now) renewPrefix(prefix, now);
    std::memcpy(buffer, prefix.text, sizeof buffer);  // the whole array: zeroes the rest, and a fixed length is fast
    const std::string_view word = levelWord(level);
    std::memcpy(buffer + prefix.length, word.data(), word.size());
}

}  // namespace zenk_log_detail
