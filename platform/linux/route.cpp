#include "route.h"

#include <arpa/inet.h>
#include <net/route.h>

#include <algorithm>

#include "base/paths.h"
#include "common.h"
#include "lines.h"
#include "number.h"

namespace ZARO::Platform {
namespace {

/// Reads one line of the kernel's table; false unless it is a default route in use.
bool ParseRoute(std::string_view line, DefaultRoute& route, unsigned int& metric) {
    std::vector<std::string_view> field;
    for (size_t end = 0, begin = 0;
         (begin = line.find_first_not_of(" \t", end)) != line.npos && field.size() < 8;) {
        end = std::min(line.find_first_of(" \t", begin), line.size());
        field.push_back(line.substr(begin, end - begin));
    }
    unsigned int destination = 0;
    unsigned int gateway = 0;
    unsigned int flags = 0;
    unsigned int mask = 0;
    if (field.size() < 8 || !ParseNumber(field[1], 16, destination) ||
        !ParseNumber(field[2], 16, gateway) || !ParseNumber(field[3], 16, flags) ||
        !ParseNumber(field[6], 10, metric) || !ParseNumber(field[7], 16, mask) ||
        destination != 0 || mask != 0 || (flags & RTF_UP) == 0 || (flags & RTF_REJECT) != 0) {
        return false;
    }
    route.interface = field[0];
    // The kernel prints the address's bytes as a number of this machine; read back, they match.
    route.gateway.s_addr = (flags & RTF_GATEWAY) != 0 ? gateway : 0;
    return true;
}

} // namespace

int FindDefaultRoute(DefaultRoute& best) {
    std::string text;
    if (const int error = ReadWhole(paths::RouteFile(), text)) {
        return error;
    }
    bool found = false;
    unsigned int bestMetric = 0;
    std::string_view rest = text;
    for (std::string_view line; TakeLine(rest, line);) {
        DefaultRoute route;
        unsigned int metric = 0;
        if (ParseRoute(line, route, metric) && (!found || metric < bestMetric)) {
            best = route;
            bestMetric = metric;
            found = true;
        }
    }
    return found ? 0 : ENETUNREACH;
}

} // namespace ZARO::Platform

using namespace ZARO::Platform;

int ZARONetDefaultGatewayGet(char* buf, int size) {
    return Guard([&] {
        DefaultRoute route;
        if (buf == nullptr) {
            return Fail(EINVAL);
        }
        if (const int error = FindDefaultRoute(route)) {
            return Fail(error);
        }
        if (route.gateway.s_addr == 0) {
            return Fail(EHOSTUNREACH);
        }
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &route.gateway, text, sizeof text); // can't fail: it holds any address
        const int error = CopyWhole(text, buf, size);
        return error == 0 ? 0 : Fail(error);
    });
}
