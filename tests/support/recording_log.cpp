#include "tests/support/recording_log.h"

#include <cstring>
#include <mutex>
#include <utility>

#include "log/zenk_log.h"

namespace {

std::mutex g_mutex;  // guards both
std::vector<std::string> g_lines;
bool g_isOn = true;

std::string lineOf(int type, const std::string& function, const char* name, const void* value) {
    switch (type) {
        case LOG_TYPE_ENTER:
            return "> " + function;
        case LOG_TYPE_LEAVE:
            return "< " + function;
        case LOG_TYPE_ERROR:
            return "! " + function;
        case LOG_TYPE_INT:
            return function + ": " + name + "=" + std::to_string(*static_cast<const int*>(value));
        default:
            return function + ": " + name + "=" + static_cast<const char*>(value);
    }
}

}  // namespace

namespace zenk_test {

std::vector<std::string> takeTrace() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_lines, {});
}

void setTracing(bool isOn) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_isOn = isOn;
}

}  // namespace zenk_test

extern "C" void zenk_log_print(int type, const char* module, const char* /*file*/, const char* function, int /*line*/,
                               const char* name, const void* value) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_isOn) return;
    g_lines.push_back((std::strcmp(module, "PLUGIN") == 0 ? "" : "??") + lineOf(type, function, name, value));
}
