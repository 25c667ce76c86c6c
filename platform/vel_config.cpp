#include "platform/vel_config.h"

#include <ini.h>

#include <charconv>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <system_error>

namespace {

constexpr int kFound = 0;
constexpr int kNotFound = -1;
constexpr const char* kDefaultFile = "/etc/vel_config.ini";

struct Search {
    const std::string& section;
    const std::string& key;
    std::string text;
    int hits = 0;
};

// Called for each "key=value" line, and again for a line that continues one.
int onEntry(void* user, const char* section, const char* key, const char* value) {
    auto& search = *static_cast<Search*>(user);
    if (search.section == section && search.key == key) {
        search.text = value;
        ++search.hits;
    }
    return 1;
}

std::string configFile() {
    const char* const named = std::getenv("VEL_CONFIG_FILE");
    return named != nullptr ? named : kDefaultFile;
}

std::optional<int> toInt(const std::string& text) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || stop != end) return std::nullopt;
    return number;
}

std::optional<int> readInt(const std::string& section, const std::string& key) {
    const std::string file = configFile();
    std::error_code error;
    // A pipe could block the caller and a device might never end.
    if (!std::filesystem::is_regular_file(file, error)) return std::nullopt;
    Search search{section, key, {}};
    if (ini_parse(file.c_str(), onEntry, &search) < 0 || search.hits != 1) return std::nullopt;
    return toInt(search.text);
}

}  // namespace

int zenk_vel_config_get_int(std::string const& section, std::string const& key, int* value) {
    if (value == nullptr) return kNotFound;
    try {
        const std::optional<int> number = readInt(section, key);
        if (!number) return kNotFound;
        *value = *number;
        return kFound;
    } catch (const std::exception&) {
        return kNotFound;
    }
}
