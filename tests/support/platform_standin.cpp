#include "tests/support/platform_standin.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

PlatformStandin gPlatform;

#pragma GCC visibility push(default)
extern "C" {

int TLIBNetGetInterfaceInfo(_tag_TLIB_NETIF* records, int max, int selector) {
    const auto n = std::min(static_cast<std::size_t>(max), gPlatform.nics.size());
    std::copy_n(gPlatform.nics.begin(), n, records);
    return selector == 2 ? static_cast<int>(n) : -1;
}

int ZARONetIFGetInfo(const char*, _tag_TLIB_NETIF* record, int) {
    memcpy(record->rgMac, gPlatform.mac.data(), gPlatform.mac.size());
    return gPlatform.mac.empty() ? -1 : 0;
}

int ZAROPPPoECheckStatusEx(int) {
    return gPlatform.pppoe;
}

int ZAROPPPoeNetInfoGet(char*, int, char* mask, int cbMask) {
    snprintf(mask, static_cast<std::size_t>(cbMask), "255.255.255.255");
    return 0;
}

} // extern "C"
#pragma GCC visibility pop
