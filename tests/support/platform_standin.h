/// Stands before the real platform: reports interfaces as a test scripts them.
#pragma once

#include <string>
#include <vector>

#include <zaro/platform.h>

struct PlatformStandin {
    std::vector<_tag_TLIB_NETIF> nics; ///< the interface table
    std::string mac;                   ///< six bytes of every interface; empty: there is none
    int pppoe = 0;                     ///< status of the PPPoE link, which has no address
};

/// Set it anew at the start of a test.
extern PlatformStandin gPlatform;
