#pragma once

#include <string>
#include <vector>

/// Another body of zenk_log_print() that keeps the calls instead of printing them.
namespace zenk_test {

/// The trace since the last call, one text for each line: "> f" for enter, "< f" for leave, "! f" for error,
/// "f: name=value" for values, where f is the tracing function. Lines of other modules than PLUGIN begin with "??".
std::vector<std::string> takeTrace();

void setTracing(bool isOn);  ///< off: nothing is kept and nothing allocated

}  // namespace zenk_test
