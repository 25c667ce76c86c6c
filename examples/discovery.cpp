#include "examples/discovery.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>

namespace {

constexpr const char* kGroup = "239.255.255.250";
constexpr std::uint16_t kPort = 1900;
constexpr std::string_view kService = "urn:dial-multiscreen-org:service:dial:1";
constexpr const char* kUserAgent = "HbbTV/1.6.1 (; Zenk; zenk_receiver; 4.0; ; reference)";
constexpr timeval kGlance{.tv_sec = 0, .tv_usec = 200000};  // how often the thread looks whether it shall end

/// Another one with each start, since several hosts may run on one machine.
const std::string& deviceId() {
    static const std::string id = [] {
        std::string text;
        std::ifstream("/proc/sys/kernel/random/uuid") >> text;
        return "uuid:" + text;
    }();
    return id;
}

/// @return the value of a header of `message`, without the blanks around it
std::optional<std::string_view> header(std::string_view message, std::string_view name) {
    while (!message.empty()) {
        const std::string_view line = message.substr(0, message.find("\r\n"));
        message.remove_prefix(std::min(message.size(), line.size() + 2));
        if (line.size() <= name.size() || line[name.size()] != ':') continue;
        if (strncasecmp(line.data(), name.data(), name.size()) != 0) continue;
        std::string_view value = line.substr(name.size() + 1);
        value.remove_prefix(std::min(value.size(), value.find_first_not_of(" \t")));
        return value.substr(0, value.find_last_not_of(" \t") + 1);
    }
    return std::nullopt;
}

bool asksForUs(std::string_view message) {
    return message.starts_with("M-SEARCH * HTTP/1.1\r\n") && header(message, "MAN") == "\"ssdp:discover\"" &&
           header(message, "ST") == kService;
}

std::string answerNaming(const std::string& httpUrl) {
    return "HTTP/1.1 200 OK\r\n"
           "CACHE-CONTROL: max-age=1800\r\n"
           "EXT:\r\n"
           "LOCATION: " +
           httpUrl + "dial/device.xml\r\n" + "SERVER: Linux UPnP/1.1 zenk_receiver/4.0\r\n" +
           "ST: " + std::string(kService) + "\r\n" + "USN: " + deviceId() + "::" + std::string(kService) + "\r\n\r\n";
}

void check(int result, const char* what) {
    if (result != 0) throw std::system_error(errno, std::generic_category(), what);
}

/// Receives what is sent to the group through the interface that has `address`, and nothing that is sent to us alone:
/// a sender far away is none that looks for a television here.
int joinGroup(const std::string& address) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(kPort);
    inet_pton(AF_INET, kGroup, &group.sin_addr);
    ip_mreq membership{};
    membership.imr_multiaddr = group.sin_addr;
    inet_pton(AF_INET, address.c_str(), &membership.imr_interface);
    try {
        // Other programs of this machine may answer for services of theirs.
        check(setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "cannot make a socket");
        check(setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &kGlance, sizeof kGlance), "cannot make a socket");
        check(bind(socket, reinterpret_cast<const sockaddr*>(&group), sizeof group), "cannot serve UDP port 1900");
        check(setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership),
              "cannot join the multicast group of discovery");
    } catch (...) {
        close(socket);
        throw;
    }
    return socket;
}

}  // namespace

std::map<std::string, Resource> Discovery::documents(const std::string& httpUrl, const std::string& app2appUrl,
                                                     const std::string& ciiUrl) {
    const std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    const std::string device = xml + R"(<root xmlns="urn:schemas-upnp-org:device-1-0">
  <specVersion><major>1</major><minor>0</minor></specVersion>
  <device>
    <deviceType>urn:dial-multiscreen-org:device:dial:1</deviceType>
    <friendlyName>zenk_receiver</friendlyName>
    <manufacturer>Zenk</manufacturer>
    <modelName>zenk_receiver</modelName>
    <UDN>)" + deviceId() + R"(</UDN>
    <serviceList>
      <service>
        <serviceType>urn:dial-multiscreen-org:service:dial:1</serviceType>
        <serviceId>urn:dial-multiscreen-org:serviceId:dial</serviceId>
        <SCPDURL>/dial/none.xml</SCPDURL>
        <controlURL>/dial/none</controlURL>
        <eventSubURL>/dial/none</eventSubURL>
      </service>
    </serviceList>
  </device>
</root>
)";
    const std::string application = xml + R"(<service xmlns="urn:dial-multiscreen-org:schemas:dial" dialVer="1.7">
  <name>HbbTV</name>
  <options allowStop="false"/>
  <state>running</state>
  <additionalData>
    <X_HbbTV_App2AppURL>)" + app2appUrl +
                                    R"(</X_HbbTV_App2AppURL>
    <X_HbbTV_InterDevSyncURL>)" + ciiUrl +
                                    R"(</X_HbbTV_InterDevSyncURL>
    <X_HbbTV_UserAgent>)" + kUserAgent +
                                    R"(</X_HbbTV_UserAgent>
  </additionalData>
</service>
)";
    return {{"/dial/device.xml", {"text/xml; charset=utf-8", device, {{"Application-URL", httpUrl + "apps"}}}},
            {"/apps/HbbTV", {"text/xml; charset=utf-8", application}}};
}

Discovery::Discovery(const std::string& address, const std::string& httpUrl)
    : m_answer(answerNaming(httpUrl)),
      m_socket(joinGroup(address)),
      m_thread([this](const std::stop_token& end) { serve(end); }) {
}

Discovery::~Discovery() {
    m_thread.request_stop();
    m_thread.join();
    close(m_socket);
}

void Discovery::serve(const std::stop_token& end) const {
    char buffer[2048];
    while (!end.stop_requested()) {
        sockaddr_in sender{};
        socklen_t size = sizeof sender;
        auto* const address = reinterpret_cast<sockaddr*>(&sender);
        const ssize_t length = recvfrom(m_socket, buffer, sizeof buffer, 0, address, &size);
        if (length <= 0 || !asksForUs({buffer, static_cast<std::size_t>(length)})) continue;
        // Nobody waits for the answer of a sender that has gone.
        sendto(m_socket, m_answer.data(), m_answer.size(), 0, address, size);
    }
}
