#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include "log/level_table.h"
#include "log/zenk_log.h"

using namespace zenk_log_detail;

namespace {

constexpr char kSeparator = '|';
constexpr int kLevelUnlisted = 1;  // the level of a module that the table does not hold

using ModuleLevels = std::map<std::string, int, std::less<>>;

// Threads may still log and change levels while the process exits: the lock and the readers' table are never destroyed.
constinit std::mutex g_modulesMutex;
static_assert(std::is_trivially_destructible_v<std::mutex>);
constinit LevelTable g_levelTable;  // written under g_modulesMutex, read without
static_assert(std::is_trivially_destructible_v<LevelTable>);
constinit bool g_areModulesGone = false;  // guarded by g_modulesMutex; true from the destruction of the map on

// A fork in the middle of a change would leave the child with half a map and a lock that nobody opens.
[[maybe_unused]] const int g_forkWatch =
    pthread_atfork([] { g_modulesMutex.lock(); }, [] { g_modulesMutex.unlock(); }, [] { g_modulesMutex.unlock(); });

ModuleLevels g_module_levels;  // guarded by g_modulesMutex; what the table is, in the order of the report

int levelOfStored(int stored) {
    switch (stored) {
        case 0:
            return 0;
        case 1:
            return 2;
        default:
            return kLevelUnlisted;
    }
}

// Under g_modulesMutex.
void publishModules() {
    std::array<LevelTable::Entry, kMaxModules> entries;
    std::size_t count = 0;
    for (const auto& [name, stored] : g_module_levels) entries[count++] = {wordsOf(name), levelOfStored(stored)};
    g_levelTable.publish(entries, count);
}

// Destroyed just before the map: from then on the table counts as empty.
struct ModulesEnd {
    ~ModulesEnd() {
        const std::lock_guard lock(g_modulesMutex);
        g_areModulesGone = true;
        g_levelTable.publish({}, 0);
    }
} g_modulesEnd;

// Takes the next name off the list, passing over empty ones; empty at its end.
std::string_view takeName(std::string_view& list) {
    list.remove_prefix(std::min(list.find_first_not_of(kSeparator), list.size()));
    const std::string_view name = list.substr(0, list.find(kSeparator));
    list.remove_prefix(name.size());
    return name;
}

bool isTooLong(std::string_view name) {
    return name.size() > kMaxNameBytes;
}

void removeModule(std::string_view name) {
    const auto entry = g_module_levels.find(name);
    if (entry != g_module_levels.end()) g_module_levels.erase(entry);
}

bool storeModule(std::string_view name, int level) try {
    g_module_levels.insert_or_assign(std::string(name), level);
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

/// Where a list ended early: what follows would fare no better.
struct EarlyEnd {
    std::string_view name;  // empty: it did not
    std::size_t tableSize = 0;
};

// Under g_modulesMutex. A full table takes no new level for a name that it holds either.
EarlyEnd applyList(std::string_view list, int level) {
    for (auto name = takeName(list); !name.empty(); name = takeName(list)) {
        if (isTooLong(name)) continue;
        if (level == 0) {
            removeModule(name);
        } else if (g_module_levels.size() >= kMaxModules || !storeModule(name, level)) {
            return {name, g_module_levels.size()};
        }
    }
    return {};
}

int printableSize(std::string_view name) {
    return static_cast<int>(std::min<std::size_t>(name.size(), std::numeric_limits<int>::max()));
}

// Behind the lock: whoever prints may wait for the reader of standard output, and whoever forks waits for the lock.
void tellRefusals(std::string_view list, const EarlyEnd& end) {
    for (auto name = takeName(list); !name.empty() && name.data() != end.name.data(); name = takeName(list)) {
        if (!isTooLong(name)) continue;
        std::printf("module:%.*s set error, length is %zu, out of max length:%d\n", printableSize(name), name.data(),
                    name.size(), static_cast<int>(kMaxNameBytes));
    }
    if (end.name.empty()) return;
    if (end.tableSize >= kMaxModules) {
        std::printf("module:%.*s set error, module_list map has number:%zu\n", printableSize(end.name), end.name.data(),
                    end.tableSize);
    } else {
        std::printf("module:%.*s set error, out of memory\n", printableSize(end.name), end.name.data());
    }
}

}  // namespace

int zenk_log_getLevel(const char* module) {
    if (g_levelTable.isEmpty() || module == nullptr) return kLevelUnlisted;
    const std::size_t size = strnlen(module, kMaxNameBytes + 1);
    if (size > kMaxNameBytes) return kLevelUnlisted;
    return g_levelTable.find(wordsOf({module, size})).value_or(kLevelUnlisted);
}

int insert_modules_list(const char* modules, int level) {
    if (modules == nullptr) return -1;
    EarlyEnd end;
    {
        const std::lock_guard lock(g_modulesMutex);
        if (g_areModulesGone) return 0;
        end = applyList(modules, level);
        publishModules();
    }
    tellRefusals(modules, end);
    return 0;
}

int get_modules_list(char* list) {
    const std::lock_guard lock(g_modulesMutex);
    if (g_areModulesGone || g_module_levels.empty()) return 0;
    if (list != nullptr) {
        char* end = list;
        for (const auto& [name, level] : g_module_levels) {
            if (end != list) *end++ = kSeparator;
            end = std::copy(name.begin(), name.end(), end);
        }
        *end = '\0';
    }
    return static_cast<int>(g_module_levels.size());
}

int clear_modules_list(void) {
    const std::lock_guard lock(g_modulesMutex);
    if (g_areModulesGone) return 0;
    g_module_levels.clear();
    publishModules();
    return 0;
}
