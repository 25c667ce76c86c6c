#include "wsserver/local_address.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>

namespace zenk {

namespace {

constexpr int kRouteColumns = 11;

struct RouteLine {
    InterfaceName interface;
    unsigned long destination, gateway, mask;
    unsigned int flags;
    int references, uses, metric, mtu, window, irtt;
};

// The table is a stream of fields, not of lines: behind a short line the next line's fields fill the open columns.
int readRoute(std::FILE* table, RouteLine& line) {
    return std::fscanf(table, "%19s%lx%lx%X%d%d%d%lx%d%d%d\n", line.interface.text, &line.destination, &line.gateway,
                       &line.flags, &line.references, &line.uses, &line.metric, &line.mask, &line.mtu, &line.window,
                       &line.irtt);
}

}  // namespace

std::optional<InterfaceName> firstRouteInterface(std::FILE* table) {
    if (std::fscanf(table, "%*[^\n]\n") < 0) return std::nullopt;
    RouteLine line = {};
    int columns = 0;
    // Every read takes at least one character or meets the end, so this ends.
    do {
        columns = readRoute(table, line);
        if (columns == kRouteColumns) return line.interface;
    } while (columns >= 0 && std::ferror(table) == 0);
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
