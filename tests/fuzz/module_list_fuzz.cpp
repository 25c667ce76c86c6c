// The module table's operations with any lists and levels, and log calls with any texts.
#include <limits>

#include "tests/fuzz/module_table_model.h"

namespace {

using zenk_test::FuzzInput;
using zenk_test::require;

constexpr std::size_t kLongestList = 1400;  // more than a datagram carries

// A text ends at its first zero byte for everybody.
std::string textOf(FuzzInput& input) {
    return std::string(input.piece(kLongestList)).c_str();
}

int levelOf(FuzzInput& input) {
    constexpr int kLevels[] = {0, 1, 2, 255, -1, std::numeric_limits<int>::max()};
    return kLevels[input.below(std::size(kLevels))];
}

void logAnything(FuzzInput& input) {
    const int type = static_cast<int>(input.below(8)) - 1;
    const std::string module = textOf(input), name = textOf(input), value = textOf(input);
    const int number = 7;
    const void* const pointed = type == LOG_TYPE_INT ? static_cast<const void*>(&number) : value.c_str();
    zenk_log_print(type, module.c_str(), name.c_str(), value.c_str(), 1, name.c_str(), pointed);
    zenk_log(module.c_str(), name.c_str(), "function", 1, "%s\n", value.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    zenk_test::ModuleTableModel model;
    clear_modules_list();
    while (!input.isEmpty()) {
        switch (input.below(8)) {
            case 0:
                clear_modules_list();
                model.clear();
                break;
            case 1:
                logAnything(input);
                break;
            case 2: {
                const std::string name = textOf(input);
                require(zenk_log_getLevel(name.c_str()) == model.level(name), "wrong level");
                break;
            }
            default: {
                const int level = levelOf(input);
                const std::string list = textOf(input);
                require(insert_modules_list(list.c_str(), level) == 0, "a list was refused");
                model.insert(list, level);
            }
        }
        model.compare();
    }
    return 0;
}
