#include "tests/trace/trace_words.h"

#include <unistd.h>

#include <regex>
#include <sstream>
#include <utility>

namespace zenk_test {

namespace {

constexpr char kGreen[] = "\033[32m";
constexpr char kRed[] = "\033[31m";
constexpr char kReset[] = "\033[0m";

/// A trace line without its colours, as the word that stands for it; the line itself when it is malformed.
std::string wordFor(const std::string& line, const std::string& colour) {
    static const std::regex form(
        "time=\\d+/\\d+/\\d+ \\d+:\\d+:\\d+,timestamp=\\d+,pid=\\d+,tid=\\d+,logtype=info "
        "File:( ?)(media_sync_server\\.cpp|zenk_dvbCss\\.cpp) Function: (~?\\w+)\\(\\)"
        "( Enter!| Leave!|, line: [1-9]\\d*(, ([^:]*):(.*))?)");
    std::smatch parts;
    if (!std::regex_match(line, parts, form)) return line;
    const std::string function = parts[3];
    const bool isStep = parts[4] == " Enter!" || parts[4] == " Leave!";
    const bool isValue = parts[5].matched;
    if ((parts[1].length() == 1) != isStep) return line;  // the blank behind "File:" belongs to these two only
    if ((colour == kRed) != (!isStep && !isValue)) return line;
    if (parts[4] == " Enter!") return ">" + function;
    if (parts[4] == " Leave!") return "<" + function;
    return isValue ? function + ":" + parts[6].str() + "=" + parts[7].str() : "!" + function;
}

}  // namespace

std::vector<std::string> TraceWords::take(From from) {
    const std::string ownTid = ",tid=" + std::to_string(gettid()) + ",";
    std::vector<std::string> words;
    std::istringstream lines(m_output.take());
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(kReset)) line.erase(0, sizeof kReset - 1);  // of the line before
        if (line.empty()) continue;
        const std::string colour = line.substr(0, sizeof kGreen - 1);
        const bool isTrace = colour == kGreen || colour == kRed;
        const bool isOwn = !isTrace || line.find(ownTid) != line.npos;
        const std::string word = isTrace ? wordFor(line.substr(colour.size()), colour) : line;
        (isOwn ? words : m_others).push_back(word);
    }
    return from == From::kThisThread ? words : std::exchange(m_others, {});
}

}  // namespace zenk_test
