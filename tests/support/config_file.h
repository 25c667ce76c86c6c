#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace zenk_test {

/// The receiver's configuration for this process and its children, in a file that lives as long as this.
class ConfigFile {
public:
    explicit ConfigFile(const std::string& text) {
        std::ofstream(m_path) << text;
        setenv("VEL_CONFIG_FILE", m_path.c_str(), 1);
    }
    ~ConfigFile() {
        setenv("VEL_CONFIG_FILE", "/nowhere", 1);
        unlink(m_path.c_str());
    }
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;

private:
    const std::string m_path = testing::TempDir() + "vel_config." + std::to_string(getpid());
};

}  // namespace zenk_test
