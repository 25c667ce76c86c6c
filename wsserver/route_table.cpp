#include "wsserver/route_table.h"

namespace {

constexpr int kRouteColumns = 11;
constexpr int kLongestName = 19;

struct RouteLine {
    char interface[kLongestName + 1];
    unsigned long destination, gateway, mask;
    unsigned int flags;
    int references, uses, metric, mtu, window, irtt;
};

// The table is a stream of fields, not of lines: behind a short line the next line's fields fill the open columns.
int readRoute(std::FILE* table, RouteLine& line) {
    return std::fscanf(table, "%19s%lx%lx%X%d%d%d%lx%d%d%d\n", line.interface, &line.destination, &line.gateway,
                       &line.flags, &line.references, &line.uses, &line.metric, &line.mask, &line.mtu, &line.window,
                       &line.irtt);
}

}  // namespace

std::optional<std::string> firstRouteInterface(std::FILE* table) {
    if (std::fscanf(table, "%*[^\n]\n") < 0) return std::nullopt;
    RouteLine line = {};
    int columns = 0;
    // Every read takes at least one character or meets the end, so this ends.
    do {
        columns = readRoute(table, line);
        if (columns == kRouteColumns) return line.interface;
    } while (columns >= 0 && std::ferror(table) == 0);
    return std::string();
}
