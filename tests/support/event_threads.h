#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/net_util.h"

namespace zenk_test {

/// Waits until the process has so many event threads.
inline bool waitForEventThreads(int count) {
    return waitUntil([count] {
        int found = 0;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string name;
            std::ifstream(task.path() / "comm") >> name;
            found += name == "zenk-css-event" ? 1 : 0;
        }
        return found == count;
    });
}

}  // namespace zenk_test
