#include "examples/discovery.h"

#include <cerrno>
#include <fstream>
#include <map>
#include <regex>
#include <system_error>

#include "examples/documents.h"

namespace {

constexpr const char* kGroup = "239.255.255.250";
constexpr int kPort = 1900;
constexpr const char* kXml = "text/xml; charset=utf-8";
constexpr timeval kGlance{.tv_sec = 0, .tv_usec = 200000};  // how often the thread looks whether it shall end

/// Another one with each start, since several hosts may run on one machine.
std::string newDeviceId() {
    std::string id;
    std::ifstream("/proc/sys/kernel/random/uuid") >> id;
    return "uuid:" + id;
}

bool hasHeader(const std::string& message, const std::string& name, const std::string& value) {
    const std::regex line("\r\n" + name + ":[ \t]{0,9}" + value + "[ \t]{0,9}\r\n", std::regex::icase);
    return std::regex_search(message, line);
}

bool asksForUs(const std::string& message) {
    return message.starts_with("M-SEARCH * HTTP/1.1\r\n") && hasHeader(message, "MAN", "\"ssdp:discover\"") &&
           hasHeader(message, "ST", "urn:dial-multiscreen-org:service:dial:1");
}

std::string filledIn(std::string document, const std::map<std::string, std::string>& values) {
    for (const auto& [name, value] : values) document.replace(document.find(name), name.size(), value);
    return document;
}

/// Receives what is sent to the group through the interface that has `address`, and nothing that is sent to us alone:
/// a sender far away is none that looks for a television here.
void joinGroup(const Socket& socket, const std::string& address) {
    ip_mreq membership{};
    inet_pton(AF_INET, kGroup, &membership.imr_multiaddr);
    inet_pton(AF_INET, address.c_str(), &membership.imr_interface);
    socket.set(SOL_SOCKET, SO_REUSEADDR, 1);  // other programs of this machine may answer for services of theirs
    socket.set(SOL_SOCKET, SO_RCVTIMEO, kGlance);
    socket.bind(kGroup, kPort);
    if (socket.set(IPPROTO_IP, IP_ADD_MEMBERSHIP, membership)) return;
    throw std::system_error(errno, std::generic_category(), "cannot join the multicast group of discovery");
}

}  // namespace

Discovery::Discovery(const std::string& address, const std::string& pageUrl)
    : m_deviceId(newDeviceId()), m_pageUrl(pageUrl), m_socket(SOCK_DGRAM) {
    joinGroup(m_socket, address);
    m_thread = std::jthread([this](const std::stop_token& end) { serve(end); });
}

Documents Discovery::documents(const Endpoints& urls) const {
    const std::string device = filledIn(kDeviceDescription, {{"{device}", m_deviceId}});
    const std::string application = filledIn(kApplication, {{"{app2app}", urls.app2appRemote}, {"{cii}", urls.cssCii}});
    const auto giveDevice = [device, applications = m_pageUrl + "apps"](auto& response) {
        response.set_header("Application-URL", applications);
        response.set_content(device, kXml);
    };
    const auto giveApplication = [application](auto& response) { response.set_content(application, kXml); };
    return {{"/dial/device.xml", giveDevice}, {"/apps/HbbTV", giveApplication}};
}

void Discovery::serve(const std::stop_token& end) const {
    const std::string text = filledIn(kDiscoveryAnswer, {{"{page}", m_pageUrl}, {"{device}", m_deviceId}});
    const std::string answer = std::regex_replace(text, std::regex("\n"), "\r\n");
    char buffer[2048];
    while (!end.stop_requested()) {
        sockaddr_in sender{};
        socklen_t size = sizeof sender;
        auto* const address = reinterpret_cast<sockaddr*>(&sender);
        const ssize_t length = recvfrom(m_socket.fd(), buffer, sizeof buffer, 0, address, &size);
        if (length <= 0 || !asksForUs({buffer, static_cast<std::size_t>(length)})) continue;
        // Nobody waits for the answer of a sender that has gone.
        sendto(m_socket.fd(), answer.data(), answer.size(), 0, address, size);
    }
}
