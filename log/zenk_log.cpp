#include "log/zenk_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "log/log_line.h"
#include "log/log_prefix.h"

using namespace zenk_log_detail;

namespace {

constexpr int kHighestType = 5;  // one more than the types there are; it prints nothing, and no message either
constexpr std::size_t kBodyBytes = 2048;
constexpr int kLevelErrors = 1;
constexpr int kLevelAll = 2;

// A host often looks at errno behind a log line.
class ErrnoKeeper {
public:
    ErrnoKeeper() : m_errno(errno) {}
    ~ErrnoKeeper() { errno = m_errno; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    const int m_errno;
};

const char* textOf(const void* text) {
    return text != nullptr ? static_cast<const char*>(text) : "(null)";
}

const char* lastComponent(const char* path) {
    const char* const text = textOf(path);
    const char* const slash = std::strrchr(text, '/');
    return slash != nullptr ? slash + 1 : text;
}

// Where a line comes from, ready to print.
struct Place {
    const char* prefix;
    const char* file;
    const char* function;
    int line;
};

void printEnter(const Place& at) {
    printLine("\033[32m%s File: %s Function: %s() Enter!\n\033[0m", at.prefix, at.file, at.function);
}

void printLeave(const Place& at) {
    printLine("\033[32m%s File: %s Function: %s() Leave!\n\033[0m", at.prefix, at.file, at.function);
}

void printError(const Place& at) {
    printLine("\033[31m%s File:%s Function: %s(), line: %d\n\033[0m", at.prefix, at.file, at.function, at.line);
}

// The format's last conversion takes either kind of value.
void printString(const Place& at, const char* name, const void* value) {
    printLine("\033[32m%s File:%s Function: %s(), line: %d, %s:%s\n\033[0m", at.prefix, at.file, at.function, at.line,
              textOf(name), textOf(value));
}

void printInt(const Place& at, const char* name, const void* value) {
    if (value == nullptr) return printString(at, name, nullptr);
    printLine("\033[32m%s File:%s Function: %s(), line: %d, %s:%d\n\033[0m", at.prefix, at.file, at.function, at.line,
              textOf(name), *static_cast<const int*>(value));
}

void printByType(int type, const Place& at, const char* name, const void* value) {
    switch (type) {
        case LOG_TYPE_ENTER:
            return printEnter(at);
        case LOG_TYPE_LEAVE:
            return printLeave(at);
        case LOG_TYPE_ERROR:
            return printError(at);
        case LOG_TYPE_INT:
            return printInt(at, name, value);
        case LOG_TYPE_STRING:
            return printString(at, name, value);
        default:
            return;
    }
}

bool isPrinted(int type, int level) {
    return level == kLevelAll || (level == kLevelErrors && type == LOG_TYPE_ERROR);
}

}  // namespace

void zenk_log_print(int type, const char* module, const char* file, const char* function, int line, const char* name,
                    const void* value) {
    const ErrnoKeeper keeper;
    if (type > kHighestType) {
        std::puts("log type set err, out of max enum value");
        return;
    }
    const int level = zenk_log_getLevel(module);
    char prefix[kPrefixBytes];
    formatLogPrefix(prefix, level);
    if (!isPrinted(type, level)) return;
    printByType(type, {prefix, lastComponent(file), textOf(function), line}, name, value);
}

void zenk_log(const char* module, const char* file, const char* function, int line, const char* format, ...) {
    const ErrnoKeeper keeper;
    const int level = zenk_log_getLevel(module);
    char prefix[kPrefixBytes];
    formatLogPrefix(prefix, level);
    char body[kBodyBytes] = {};  // stays empty if the format cannot be carried out
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(body, sizeof body, textOf(format), arguments);
    va_end(arguments);
    if (level != kLevelAll) return;
    printLine("%s File:%s Function: %s(), line: %d, %s", prefix, lastComponent(file), textOf(function), line, body);
}
