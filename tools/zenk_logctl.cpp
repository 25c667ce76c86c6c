// Turns the log of a running receiver up and down: the peer of the library's log control channel. It shares nothing
// with the library but the format of the two datagrams, so that it serves every build of it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Names = std::set<std::string>;
using NameList = std::vector<std::string>;

constexpr std::uint16_t kPort = 54321;
constexpr std::size_t kTextBytes = 1024;  // the command's text field with its terminator; the level byte follows
constexpr std::size_t kMaxNameBytes = 32;
constexpr std::size_t kMaxModules = 20;
constexpr std::string_view kClearWord = "__CLIEAR_LOG_MODULES__";  // the spelling is the protocol's
constexpr auto kFindTime = 3s;                                     // a receiver reports once a second
constexpr auto kConfirmTime = 4s;  // it takes one command a second, perhaps another peer's before ours

enum ExitCode {
    kDone = 0,
    kFailed = 1,
    kUsage = 2,
    kNoReceiver = 3,
    kNameRefused = 4,
    kTableFull = 5,
    kPortInUse = 6,
    kNotConfirmed = 7,
};

constexpr char kFooter[] =
    "Level 1 prints every trace line of a module; any other level, like no entry, prints its errors only.\n"
    "A receiver's table takes 20 modules with names of up to 32 bytes.\n"
    "Module names go to standard output, one a line; everything else goes to standard error.\n\n"
    "Exit codes:\n"
    "  0  done\n"
    "  1  a system call failed\n"
    "  2  wrong usage\n"
    "  3  no receiver reported within 3 seconds\n"
    "  4  a module name that a receiver would refuse; nothing was sent\n"
    "  5  the receiver's table is full\n"
    "  6  UDP port 54321 is in use, perhaps by another zenk_logctl\n"
    "  7  the receiver did not confirm the change within 4 seconds";

// Ends the program with a message and an exit code.
struct Failure : std::runtime_error {
    Failure(ExitCode exitCode, const std::string& what) : std::runtime_error(what), code(exitCode) {}
    ExitCode code;
};

[[noreturn]] void throwSystemError(const std::string& what) {
    throw Failure(kFailed, what + ": " + strerror(errno));
}

struct Report {
    sockaddr_in sender;
    Names names;
};

bool isSameSender(const sockaddr_in& a, const sockaddr_in& b) {
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

NameList split(const std::string& text) {
    NameList names;
    std::string name;
    for (std::istringstream stream(text); std::getline(stream, name, '|');) {
        if (!name.empty()) names.push_back(name);
    }
    return names;
}

// The port that receivers report to. Owned, not shared, so that two of us never take each other's reports.
class ReportPort {
public:
    ReportPort() : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (m_fd < 0) throwSystemError("cannot make a socket");
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(kPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
        const int error = errno;
        close(m_fd);
        errno = error;
        if (error == EADDRINUSE) throw Failure(kPortInUse, "UDP port 54321 is in use; is another zenk_logctl running?");
        throwSystemError("cannot bind UDP port 54321");
    }
    ~ReportPort() { close(m_fd); }
    ReportPort(const ReportPort&) = delete;
    ReportPort& operator=(const ReportPort&) = delete;

    // The next report, of any sender; nothing when the time is up.
    std::optional<Report> receive(Clock::time_point deadline) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waiting{m_fd, POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(std::max<decltype(left)>(left, 0))) <= 0) return std::nullopt;
        std::array<char, kTextBytes + 1> bytes;
        Report report{};
        socklen_t size = sizeof report.sender;
        const ssize_t length =
            recvfrom(m_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&report.sender), &size);
        if (length < 0) throwSystemError("cannot receive");
        const NameList names = split(std::string(bytes.data(), static_cast<std::size_t>(length)));
        report.names.insert(names.begin(), names.end());
        return report;
    }

    void send(const std::string& text, std::uint8_t level, const sockaddr_in& receiver) {
        std::array<char, kTextBytes + 1> command{};
        text.copy(command.data(), kTextBytes - 1);
        command[kTextBytes] = static_cast<char>(level);
        const auto* address = reinterpret_cast<const sockaddr*>(&receiver);
        if (sendto(m_fd, command.data(), command.size(), 0, address, sizeof receiver) < 0)
            throwSystemError("cannot send");
    }

private:
    const int m_fd;
};

// Dots on a terminal while something takes time.
class Progress {
public:
    explicit Progress(const char* what) {
        if (m_isShown) std::fprintf(stderr, "%s", what);
    }
    ~Progress() {
        if (m_isShown) std::fputc('\n', stderr);
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void tick() const {
        if (m_isShown) std::fputc('.', stderr);
    }

private:
    const bool m_isShown = isatty(STDERR_FILENO) == 1;
};

// The first report that the condition accepts. Ticks between, since reports of other receivers may keep coming.
std::optional<Report> waitForReport(ReportPort& port, Clock::duration time, const char* what,
                                    const std::function<bool(const Report&)>& isAccepted) {
    const Progress progress(what);
    const auto deadline = Clock::now() + time;
    do {
        auto report = port.receive(std::min(deadline, Clock::now() + 250ms));
        if (report && isAccepted(*report)) return report;
        progress.tick();
    } while (Clock::now() < deadline);
    return std::nullopt;
}

Report findReceiver(ReportPort& port) {
    auto report = waitForReport(port, kFindTime, "waiting for a receiver", [](const Report&) { return true; });
    if (!report) throw Failure(kNoReceiver, "no receiver reported within 3 seconds; was its log control started?");
    return *report;
}

// Names come from outside: nothing of them may steer the terminal.
std::string printable(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](unsigned char byte) { return std::iscntrl(byte) != 0; }, '?');
    return name;
}

void printTable(const Names& names) {
    if (names.empty()) std::fprintf(stderr, "the table is empty\n");
    for (const auto& name : names) std::printf("%s\n", printable(name).c_str());
}

std::string join(const NameList& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : "|") + name;
    return text;
}

void checkNames(const NameList& names) {
    for (const auto& name : names) {
        if (name.empty()) throw Failure(kNameRefused, "a module name is empty");
        if (name.size() > kMaxNameBytes) throw Failure(kNameRefused, "over 32 bytes long: " + printable(name));
        if (name.find('|') != name.npos) throw Failure(kNameRefused, "\"|\" separates names: " + printable(name));
        if (name == kClearWord)
            throw Failure(kNameRefused, "not a module, but the word that clears the table: " + name);
    }
    if (join(names).size() >= kTextBytes) throw Failure(kUsage, "too many names for one command");
}

bool hasAll(const Names& table, const NameList& names) {
    return std::all_of(names.begin(), names.end(), [&](const auto& name) { return table.contains(name); });
}

bool hasNone(const Names& table, const NameList& names) {
    return std::none_of(names.begin(), names.end(), [&](const auto& name) { return table.contains(name); });
}

// A full table refuses a new level even for a name that it holds, and all that follows in the list.
void checkRoom(Names table, const NameList& names) {
    for (const auto& name : names) {
        if (table.size() >= kMaxModules) {
            throw Failure(kTableFull, "the table takes 20 modules; no room for " + name + ", nothing was sent");
        }
        table.insert(name);
    }
}

// Sends a command and prints the table once a report shows its effect.
void change(ReportPort& port, const Report& before, const std::string& text, std::uint8_t level,
            const std::function<bool(const Names&)>& isDone) {
    port.send(text, level, before.sender);
    Names latest = before.names;
    const auto after = waitForReport(port, kConfirmTime, "waiting for the change", [&](const Report& report) {
        if (!isSameSender(report.sender, before.sender)) return false;
        latest = report.names;
        return isDone(latest);
    });
    if (after) return printTable(after->names);
    if (level != 0 && latest.size() >= kMaxModules) throw Failure(kTableFull, "the table was filled up meanwhile");
    throw Failure(kNotConfirmed, "the receiver did not confirm the change within 4 seconds");
}

void list() {
    ReportPort port;
    printTable(findReceiver(port).names);
}

void set(std::uint8_t level, const NameList& names) {
    checkNames(names);
    ReportPort port;
    const Report before = findReceiver(port);
    checkRoom(before.names, names);
    change(port, before, join(names), level, [&](const Names& table) { return hasAll(table, names); });
    for (const auto& name : Names(names.begin(), names.end())) {
        if (!before.names.contains(name)) continue;
        std::fprintf(stderr, "%s was in the table before: its new level cannot be confirmed\n",
                     printable(name).c_str());
    }
}

void remove(const NameList& names) {
    checkNames(names);
    ReportPort port;
    change(port, findReceiver(port), join(names), 0, [&](const Names& table) { return hasNone(table, names); });
}

void clear() {
    ReportPort port;
    change(port, findReceiver(port), std::string(kClearWord), 0, [](const Names& table) { return table.empty(); });
}

void printWithTime(const std::string& text) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    char time[32];
    std::strftime(time, sizeof time, "%F %T", &parts);
    std::printf("%s  %s\n", time, text.c_str());
    std::fflush(stdout);
}

std::string describe(const Names& names) {
    return names.empty() ? "(empty)" : printable(join(NameList(names.begin(), names.end())));
}

// Follows one receiver, and after its silence whoever reports next.
void watch() {
    ReportPort port;
    std::optional<Report> shown = findReceiver(port);
    printWithTime(describe(shown->names));
    for (auto silentAt = Clock::now() + kFindTime;;) {
        const auto report = port.receive(silentAt);
        if (report && shown && !isSameSender(report->sender, shown->sender)) continue;
        if (report && (!shown || report->names != shown->names)) printWithTime(describe(report->names));
        if (!report && shown) printWithTime("no report for 3 seconds");
        shown = report;
        silentAt = Clock::now() + kFindTime;
    }
}

int runCommandLine(int argc, char** argv) {
    CLI::App app("Lists and changes the modules that a running receiver logs, on this machine.", "zenk_logctl");
    app.footer(kFooter);
    app.require_subcommand(1);
    int level = 1;
    NameList names;

    app.add_subcommand("list", "Print the module names of the table")->callback(list);
    auto* const setCommand = app.add_subcommand("set", "Store a level for modules; 1 prints all their lines");
    setCommand->add_option("LEVEL", level, "1 to 255")->required()->check(CLI::Range(1, 255));
    setCommand->add_option("MODULE", names, "Module names, e.g. PLUGIN")->required();
    setCommand->callback([&] { set(static_cast<std::uint8_t>(level), names); });
    auto* const removeCommand = app.add_subcommand("remove", "Take modules off the table");
    removeCommand->add_option("MODULE", names, "Module names")->required();
    removeCommand->callback([&] { remove(names); });
    app.add_subcommand("clear", "Empty the table")->callback(clear);
    app.add_subcommand("watch", "Print each change of the table with its time, until interrupted")->callback(watch);

    try {
        app.parse(argc, argv);
        return kDone;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
}

}  // namespace

int main(int argc, char** argv) try { return runCommandLine(argc, argv); } catch (const Failure& failure) {
    std::fprintf(stderr, "zenk_logctl: %s\n", failure.what());
    return failure.code;
} catch (const std::exception& error) {
    std::fprintf(stderr, "zenk_logctl: %s\n", error.what());
    return kFailed;
}
