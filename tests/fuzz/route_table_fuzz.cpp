// The route table as any text: the parser ends, and what it finds is a name that stands in the text.
#include <cstdio>
#include <string>

#include "tests/fuzz/fuzz_input.h"
#include "wsserver/local_address.h"

using zenk_test::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::FILE* const table = text.empty() ? std::fopen("/dev/null", "r") : fmemopen(text.data(), text.size(), "r");
    if (table == nullptr) return 0;
    const std::optional<zenk::InterfaceName> found = zenk::firstRouteInterface(table);
    std::fclose(table);
    const std::string_view name = found ? found->text : "";
    if (name.empty()) return 0;
    require(text.find('\n') != std::string::npos, "a name was found without a line behind the header");
    require(name.size() <= 19, "the name is longer than a name can be");
    require(name.find_first_of(" \t\n\v\f\r") == std::string::npos, "the name holds white space");
    require(text.find(name) != std::string::npos, "the name does not stand in the table");
    return 0;
}
