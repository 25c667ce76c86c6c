#include "tests/css/trace_record.h"

#include <utility>

#include "log/zenk_log.h"

namespace {

thread_local bool t_isRecording = false;
thread_local std::string t_calls;

}  // namespace

TraceRecord::TraceRecord() {
    t_isRecording = true;
}

TraceRecord::~TraceRecord() {
    t_isRecording = false;
    t_calls.clear();
}

std::string TraceRecord::take() {
    return std::exchange(t_calls, {});
}

void zenk_log_print(int type, const char* module, const char* file, const char* function, int, const char* name,
                    const void* value) {
    if (!t_isRecording) return;
    const bool isOurs = std::string(module) == "PLUGIN" && std::string(file).ends_with("/zenk_dvbCss.cpp");
    t_calls += isOurs ? "" : "(unknown place) ";
    if (type == LOG_TYPE_STRING) {
        t_calls += std::string(function) + ":" + name + "=" + static_cast<const char*>(value) + " ";
    } else {
        t_calls += std::string(1, type < 3 ? "+-!"[type] : '?') + function + " ";
    }
}
