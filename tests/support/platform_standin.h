/// Takes the real platform's place: reports the interfaces that a test sets.
#pragma once

#include <string>
#include <vector>

#include <zaro/platform.h>

struct PlatformStandin {
    std::vector<_tag_TLIB_NETIF> nics; ///< the interface table
    std::string mac;                   ///< the six bytes of every interface; empty: the call fails
    int pppoe = 0;                     ///< status of the PPPoE link, which has no address
};

/// Reset it at the start of a test.
extern PlatformStandin gPlatform;
