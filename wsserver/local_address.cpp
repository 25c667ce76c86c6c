#include "wsserver/local_address.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

namespace zenk {

namespace {

// The table is a stream of fields, not of lines: behind a short line the next line's fields fill the open columns.
constexpr char kRoute[] = "%19s%*x%*x%*X%*d%*d%*d%*x%*d%*d%*d\n%n";

}  // namespace

std::optional<InterfaceName> firstRouteInterface(std::FILE* table) {
    if (std::fscanf(table, "%*[^\n]\n") < 0) return std::nullopt;
    InterfaceName interface;
    int length = 0;  // of a route whose columns are all there
    // Every read takes at least one character or meets the end, so this ends.
    while (std::fscanf(table, kRoute, interface.text, &length) >= 0 && std::ferror(table) == 0) {
        if (length > 0) return interface;
    }
    return InterfaceName();
}

AddressText addressOf(int socket, const InterfaceName& interface) {
    ifreq request = {};
    std::memcpy(request.ifr_name, interface.text, sizeof request.ifr_name - 1);
    request.ifr_addr.sa_family = AF_INET;
    AddressText address;
    if (::ioctl(socket, SIOCGIFADDR, &request) != 0) return address;
    sockaddr_in in = {};
    std::memcpy(&in, &request.ifr_addr, sizeof in);
    ::inet_ntop(AF_INET, &in.sin_addr, address.text, sizeof address.text);
    return address;
}

}  // namespace zenk
