/// Stands between the library and the real platform: fails what a test tells it to fail, reports
/// interfaces as a test scripts them, and passes everything else on.
#pragma once

#include <set>
#include <string>
#include <vector>

#include <zaro/platform.h>

struct PlatformStandin {
    std::set<std::string> fail;        ///< functions that fail, by name
    std::vector<_tag_TLIB_NETIF> nics; ///< the interface table
    std::string mac;                   ///< six bytes of every interface; empty: there is none
    int pppoe = 0;                     ///< status of the PPPoE link, which has no address
    int lists = 0;                     ///< firewall lists made and not yet released
};

/// Set it anew at the start of a test.
extern PlatformStandin gPlatform;
