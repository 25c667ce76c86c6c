#pragma once

#include <map>
#include <string>
#include <string_view>

#include "log/zenk_log.h"
#include "tests/fuzz/fuzz_input.h"

namespace zenk_test {

/// The rules of the log's module table, written down a second time.
class ModuleTableModel {
public:
    void insert(std::string_view list, int level) {
        while (!list.empty()) {
            const std::string name(list.substr(0, list.find('|')));
            list.remove_prefix(std::min(name.size() + 1, list.size()));
            if (name.empty() || name.size() > 32) continue;
            if (level == 0) {
                m_levels.erase(name);
            } else if (m_levels.size() == 20) {
                return;
            } else {
                m_levels[name] = level;
            }
        }
    }
    void clear() { m_levels.clear(); }

    std::string report() const {
        std::string text;
        for (const auto& [name, level] : m_levels) text += (text.empty() ? "" : "|") + name;
        return text;
    }
    int level(const std::string& name) const {
        const auto entry = m_levels.find(name);
        return entry != m_levels.end() && entry->second == 1 ? 2 : 1;
    }

    /// The real table, in report and levels, is this one.
    void compare() const {
        char list[1025] = "untouched";
        const int count = get_modules_list(list);
        require(count == static_cast<int>(m_levels.size()), "wrong number of modules");
        require(get_modules_list(nullptr) == count, "the count depends on the buffer");
        require(list == (count == 0 ? "untouched" : report()), "wrong report");
        for (const auto& [name, stored] : m_levels) {
            require(zenk_log_getLevel(name.c_str()) == level(name), "wrong level of a stored name");
        }
    }

private:
    std::map<std::string, int> m_levels;
};

}  // namespace zenk_test
