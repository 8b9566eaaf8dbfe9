/// The default route, from the kernel's table.
#pragma once

#include <netinet/in.h>

#include <string>

namespace ZARO::Platform {

struct DefaultRoute {
    std::string interface;
    in_addr gateway{}; // zero on a link that needs none
};

/// Gives the default route of the lowest metric. Returns 0; ENETUNREACH without one; or the error
/// number for which the table can't be read.
int FindDefaultRoute(DefaultRoute& best);

} // namespace ZARO::Platform
