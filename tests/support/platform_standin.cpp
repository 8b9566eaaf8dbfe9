#include "tests/support/platform_standin.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

PlatformStandin gPlatform;

namespace {

bool Fails(const char* name) {
    return gPlatform.fail.count(name) != 0;
}

} // namespace

#define REAL(name) reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))
#define FORWARD(name, parameters, arguments)                                                       \
    int name parameters {                                                                          \
        return Fails(#name) ? -1 : REAL(name) arguments;                                           \
    }

#pragma GCC visibility push(default)
extern "C" {

FORWARD(TLIBCINFOSetKeyValue, (const char* key, const char* value), (key, value))
FORWARD(ZARONetDefaultGatewayGet, (char* buf, int size), (buf, size))
FORWARD(ZARODDNSConfigGet, (const char* name, _tag_ZARO_DDNS* record), (name, record))
FORWARD(ZAROWstokenGetToken, (char* s, int cbS, char* t, int cbT), (s, cbS, t, cbT))
FORWARD(ZAROWstokenGenerateToken, (const char* serial, char* t, int cbT), (serial, t, cbT))

unsigned int TLIBCErrGet() {
    return 0x1234;
}

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
    return Fails("ZAROPPPoeNetInfoGet") ? -1 : 0;
}

/// A failing platform may have made the list all the same.
int ZAROFwServiceEnum(ZARO_FW_SERVICE_LIST** list) {
    const int n = REAL(ZAROFwServiceEnum)(list);
    gPlatform.lists += *list != nullptr;
    return Fails("ZAROFwServiceEnum") ? 0 : n;
}

void ZAROFwServiceFree(ZARO_FW_SERVICE_LIST* list) {
    gPlatform.lists -= list != nullptr;
    REAL(ZAROFwServiceFree)(list);
}

} // extern "C"
#pragma GCC visibility pop
