#pragma once

#include <string>
#include <vector>

#include "tests/support/captured_output.h"

namespace zenk_test {

/// Standard output from construction to destruction, read back as short words.
class TraceWords {
public:
    enum class From { kThisThread, kOtherThreads };

    /// What was printed since the last call: ">f" for a function entered, "<f" left, "!f" in trouble, "f:name=value"
    /// for a value; direct prints as they are. A line that is malformed, or names no source file of the library, stands
    /// there whole. Direct prints count as this thread's.
    std::vector<std::string> take(From from = From::kThisThread);

private:
    CapturedOutput m_output;
    std::vector<std::string> m_others;
};

}  // namespace zenk_test
