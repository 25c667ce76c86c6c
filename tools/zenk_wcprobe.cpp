// A wall-clock client for the bench: asks a server for its time and tells how well a device could follow it.

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/wc_ledger.h"
#include "tools/wc_statistics.h"

namespace {

constexpr int kExitNothingAnswers = 1;
constexpr int kExitUsage = 2;
constexpr std::size_t kHistogramRows = 12;
constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
constexpr std::int64_t kNanosPerMilli = 1'000'000;
constexpr std::int64_t kProgressIntervalNs = 100 * kNanosPerMilli;

const std::map<std::string, clockid_t> kClocks = {
    {"raw", CLOCK_MONOTONIC_RAW}, {"monotonic", CLOCK_MONOTONIC}, {"coarse", CLOCK_MONOTONIC_COARSE}};

constexpr char kDescription[] =
    "Asks a wall-clock server (CSS-WC, ETSI TS 103 286-2) for its time again and again, and reports\n"
    "round-trip time, clock offset and dispersion, the server's precision and frequency error, and\n"
    "how many replies were lost.";
constexpr char kFooter[] =
    "The offset is the server's clock minus this machine's, ((T3 + T2) - (T4 + T1)) / 2, of the best\n"
    "candidate: the reply with the lowest dispersion. The dispersion is the bound of the error: half\n"
    "the round trip, the precision of both clocks, and what both can drift by their frequency errors\n"
    "from the request to the end of the run. Between two clocks of one machine the offset should be\n"
    "smaller than the dispersion.\n"
    "\n"
    "A progress line is shown when standard error is a terminal. An interrupt (Ctrl-C) ends the run\n"
    "early with its report.\n"
    "\n"
    "Exit status: 0 when at least one reply counted, 1 when nothing answers, 2 for wrong usage.\n"
    "\n"
    "Examples:\n"
    "  zenk_wcprobe 192.168.1.20:6677\n"
    "  zenk_wcprobe udp://192.168.1.20:6677 --count 1000 --interval 10 --json";

struct Options {
    std::string target;
    std::string clockName = "raw";
    int count = 100;
    int intervalMs = 20;
    int timeoutMs = 1000;
    double freqErrorPpm = 50;  // a cheap quartz
    bool json = false;

    clockid_t clock() const { return kClocks.at(clockName); }
};

volatile std::sig_atomic_t g_interrupted = 0;  // set by the signal handler, read by the run

std::int64_t nowNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * kNanosPerSecond + now.tv_nsec;
}

// The smallest step that was seen, but not below what the system tells.
double measurePrecisionNs(clockid_t clock) {
    timespec resolution{};
    clock_getres(clock, &resolution);
    std::int64_t smallest = kNanosPerMilli;
    for (int i = 0; i < 1000; ++i) {
        const std::int64_t first = nowNs(clock);
        const std::int64_t step = nowNs(clock) - first;
        if (step > 0) smallest = std::min(smallest, step);
    }
    return static_cast<double>(std::max<std::int64_t>(smallest, resolution.tv_nsec));
}

/// A UDP socket that talks to one server only; owns it.
class Connection {
public:
    /// @param target  HOST:PORT, also with "udp://" in front or with the host in brackets
    explicit Connection(const std::string& target);
    ~Connection() {
        if (m_fd != -1) ::close(m_fd);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int fd() const { return m_fd; }
    const std::string& failure() const { return m_failure; }

private:
    void open(const std::string& host, const std::string& port);

    int m_fd = -1;
    std::string m_failure;  // why there is no socket
};

Connection::Connection(const std::string& target) {
    const std::string scheme = "udp://";
    std::string host = target.starts_with(scheme) ? target.substr(scheme.size()) : target;
    const std::size_t colon = host.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == host.size()) {
        m_failure = "not of the form HOST:PORT";
        return;
    }
    const std::string port = host.substr(colon + 1);
    host.resize(colon);
    if (host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    open(host, port);
}

void Connection::open(const std::string& host, const std::string& port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (result != 0) {
        m_failure = gai_strerror(result);
        return;
    }
    m_failure = "no way to this host";
    for (const addrinfo* each = found; each != nullptr && m_fd == -1; each = each->ai_next) {
        m_fd = ::socket(each->ai_family, each->ai_socktype | SOCK_CLOEXEC, each->ai_protocol);
        if (m_fd != -1 && ::connect(m_fd, each->ai_addr, each->ai_addrlen) == 0) break;
        if (m_fd != -1) ::close(m_fd);
        m_fd = -1;
    }
    freeaddrinfo(found);
}

/// Sends the requests and takes in what comes back.
class Run {
public:
    Run(int fd, const Options& options) : m_fd(fd), m_options(options) {}

    void go();
    const zenk::WCLedger& ledger() const { return m_ledger; }

private:
    void sendRequest();
    void takeReply();
    void collectReplies(int forMs, bool untilAllCame);
    void showProgress();

    const int m_fd;
    const Options& m_options;
    zenk::WCLedger m_ledger;
    const bool m_showsProgress = isatty(STDERR_FILENO) != 0;
    std::int64_t m_shownNs = 0;  // when the progress line was last written
};

void Run::go() {
    for (int left = m_options.count; left > 0 && g_interrupted == 0; --left) {
        sendRequest();
        const bool isLast = left == 1;
        collectReplies(isLast ? m_options.timeoutMs : m_options.intervalMs, isLast);
    }
    if (m_showsProgress) std::fputs("\r\033[K", stderr);
}

// Errors of the socket mean that nobody listens there now, which the missing reply tells.
void Run::sendRequest() {
    const zenk::WCDatagram request = m_ledger.makeRequest(nowNs(m_options.clock()));
    ::send(m_fd, request.data(), request.size(), 0);
}

void Run::takeReply() {
    std::uint8_t datagram[64];  // larger than a message, so that a longer one is seen as such
    const ssize_t bytes = ::recv(m_fd, datagram, sizeof datagram, MSG_DONTWAIT);
    const std::int64_t arrival = nowNs(m_options.clock());
    if (bytes >= 0) m_ledger.takeReply({datagram, static_cast<std::size_t>(bytes)}, arrival);
}

void Run::collectReplies(int forMs, bool untilAllCame) {
    const std::int64_t endNs = nowNs(CLOCK_MONOTONIC) + forMs * kNanosPerMilli;
    while (g_interrupted == 0 && !(untilAllCame && m_ledger.lost() == 0)) {
        const std::int64_t leftNs = endNs - nowNs(CLOCK_MONOTONIC);
        if (leftNs <= 0) return;
        pollfd ready{m_fd, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(leftNs / kNanosPerMilli) + 1) > 0) takeReply();
        showProgress();
    }
}

void Run::showProgress() {
    const std::int64_t now = nowNs(CLOCK_MONOTONIC);
    if (!m_showsProgress || now - m_shownNs < kProgressIntervalNs) return;
    m_shownNs = now;
    std::fprintf(stderr, "\r%zu of %d requests, %zu replies", m_ledger.sent(), m_options.count,
                 m_ledger.candidates().size());
}

/// What a run with at least one reply found.
struct Findings {
    std::vector<std::int64_t> roundTrips;  // ascending
    zenk::WCCandidate best;
    zenk::WCOwnClock own;
    double offsetNs;
    double dispersionNs;
};

Findings evaluate(const zenk::WCLedger& ledger, const Options& options) {
    Findings found{};
    for (const zenk::WCCandidate& each : ledger.candidates()) found.roundTrips.push_back(zenk::roundTripNs(each));
    std::sort(found.roundTrips.begin(), found.roundTrips.end());
    found.own = {measurePrecisionNs(options.clock()), options.freqErrorPpm};
    const std::int64_t now = nowNs(options.clock());
    found.best = ledger.candidates()[zenk::bestCandidate(ledger.candidates(), found.own, now)];
    found.offsetNs = zenk::offsetNs(found.best);
    found.dispersionNs = zenk::dispersionNs(found.best, found.own, now);
    return found;
}

double micros(std::int64_t ns) {
    return static_cast<double>(ns) / 1000;
}

void printCounts(const zenk::WCLedger& ledger) {
    std::printf("requests      %zu sent, %zu answered, %zu lost, %zu replies not matched\n", ledger.sent(),
                ledger.candidates().size(), ledger.lost(), ledger.unmatched());
}

void printHistogram(const Findings& found) {
    constexpr std::size_t kBarWidth = 50;
    const auto rows = zenk::histogram(found.roundTrips, kHistogramRows);
    const auto byCount = [](const auto& a, const auto& b) { return a.count < b.count; };
    const std::size_t highest = std::max_element(rows.begin(), rows.end(), byCount)->count;
    std::printf("\nround trip, us\n");
    for (const zenk::HistogramRow& row : rows) {
        const std::size_t bar = (row.count * kBarWidth + highest - 1) / highest;
        std::printf("%10.1f to %10.1f %7zu %s\n", micros(row.fromNs), micros(row.toNs), row.count,
                    std::string(bar, '#').c_str());
    }
}

void printText(const zenk::WCLedger& ledger, const Findings& found, const Options& options) {
    printCounts(ledger);
    std::printf("round trip    min %.1f us, median %.1f us, p99 %.1f us\n", micros(found.roundTrips.front()),
                micros(zenk::percentile(found.roundTrips, 50)), micros(zenk::percentile(found.roundTrips, 99)));
    std::printf("offset        %+.3f us\n", found.offsetNs / 1000);
    std::printf("dispersion    %.3f us\n", found.dispersionNs / 1000);
    std::printf("server clock  precision 2^%d s (%.1f ns), frequency error %.2f ppm\n", found.best.precisionLog2,
                std::exp2(found.best.precisionLog2) * 1e9, found.best.freqError / 256.0);
    std::printf("own clock     %s, precision %.1f ns, frequency error %.2f ppm\n", options.clockName.c_str(),
                found.own.precisionNs, found.own.freqErrorPpm);
    printHistogram(found);
}

nlohmann::ordered_json countsAsJson(const zenk::WCLedger& ledger, const Options& options) {
    return {{"target", options.target},
            {"sent", ledger.sent()},
            {"answered", ledger.candidates().size()},
            {"lost", ledger.lost()},
            {"not_matched", ledger.unmatched()}};
}

void printJson(const zenk::WCLedger& ledger, const Findings& found, const Options& options) {
    nlohmann::ordered_json report = countsAsJson(ledger, options);
    report["round_trip_ns"] = {{"min", found.roundTrips.front()},
                               {"median", zenk::percentile(found.roundTrips, 50)},
                               {"p99", zenk::percentile(found.roundTrips, 99)}};
    report["offset_ns"] = found.offsetNs;
    report["dispersion_ns"] = found.dispersionNs;
    report["server_clock"] = {{"precision_log2", found.best.precisionLog2},
                              {"max_freq_error", found.best.freqError},
                              {"freq_error_ppm", found.best.freqError / 256.0}};
    report["own_clock"] = {{"name", options.clockName},
                           {"precision_ns", found.own.precisionNs},
                           {"freq_error_ppm", found.own.freqErrorPpm}};
    for (const zenk::HistogramRow& row : zenk::histogram(found.roundTrips, kHistogramRows)) {
        report["histogram"].push_back({{"from_ns", row.fromNs}, {"to_ns", row.toNs}, {"count", row.count}});
    }
    std::printf("%s\n", report.dump(2).c_str());
}

int reportNothing(const zenk::WCLedger& ledger, const Options& options) {
    std::fprintf(stderr, "zenk_wcprobe: nothing answers at %s\n", options.target.c_str());
    if (options.json) {
        std::printf("%s\n", countsAsJson(ledger, options).dump(2).c_str());
    } else {
        printCounts(ledger);
    }
    return kExitNothingAnswers;
}

int probe(const Options& options) {
    const Connection connection(options.target);
    if (connection.fd() == -1) {
        std::fprintf(stderr, "zenk_wcprobe: %s: %s\n", options.target.c_str(), connection.failure().c_str());
        return kExitUsage;
    }
    Run run(connection.fd(), options);
    run.go();
    const zenk::WCLedger& ledger = run.ledger();
    if (ledger.candidates().empty()) return reportNothing(ledger, options);
    const Findings found = evaluate(ledger, options);
    options.json ? printJson(ledger, found, options) : printText(ledger, found, options);
    return 0;
}

template <typename Number>
void addNumber(CLI::App& app, const char* name, Number& number, const char* what, const char* unit, Number least,
               Number most) {
    app.add_option(name, number, what)->type_name(unit)->check(CLI::Range(least, most))->capture_default_str();
}

void addOptions(CLI::App& app, Options& options) {
    app.add_option("target", options.target, "the server, as HOST:PORT or as its published URL")
        ->type_name("HOST:PORT")
        ->required();
    addNumber(app, "--count", options.count, "requests to send", "N", 1, 1'000'000);
    addNumber(app, "--interval", options.intervalMs, "milliseconds from one request to the next", "MS", 1, 60'000);
    addNumber(app, "--timeout", options.timeoutMs, "milliseconds to wait for replies after the last request", "MS", 1,
              60'000);
    app.add_option("--clock", options.clockName, "own clock: raw (as the server's default), monotonic or coarse")
        ->type_name("NAME")
        ->check(CLI::IsMember(kClocks))
        ->capture_default_str();
    addNumber(app, "--freq-error", options.freqErrorPpm, "frequency error of the own clock, parts per million", "PPM",
              0.0, 1000.0);
    app.add_flag("--json", options.json, "print the report as one JSON object");
}

}  // namespace

int main(int argc, char** argv) try {
    Options options;
    CLI::App app(kDescription, "zenk_wcprobe");
    app.footer(kFooter);
    addOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& failure) {
        return app.exit(failure) == 0 ? 0 : kExitUsage;
    }
    std::signal(SIGINT, [](int) { g_interrupted = 1; });
    return probe(options);
} catch (const std::exception& failure) {
    std::fprintf(stderr, "zenk_wcprobe: %s\n", failure.what());
    return kExitUsage;
}
