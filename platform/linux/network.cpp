#include "common.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>

#include "base/paths.h"
#include "lines.h"
#include "mac.h"
#include "number.h"
#include "route.h"

namespace ZARO::Platform {
namespace {

using Record = struct _tag_TLIB_NETIF;

constexpr int kStateUp = 2;
constexpr int kStateDown = 1;

/// The hardware address that the kernel shows for an interface. A name from outside is checked
/// first: it becomes part of a path.
std::optional<Mac> ReadMac(const std::string& name) {
    std::string text;
    if (name.empty() || name.size() >= IFNAMSIZ || name.front() == '.' ||
        name.find('/') != name.npos ||
        ReadWhole(paths::NetClassDir() + "/" + name + "/address", text) != 0) {
        return std::nullopt;
    }
    return ParseMac(std::string_view(text).substr(0, text.find('\n')));
}

struct AddressList {
    AddressList() {
        if (getifaddrs(&first) != 0) {
            error = errno;
        }
    }
    ~AddressList() { freeifaddrs(first); }
    AddressList(const AddressList&) = delete;
    AddressList& operator=(const AddressList&) = delete;

    ifaddrs* first = nullptr;
    int error = 0;
};

bool HasIpv4(const ifaddrs& entry) {
    return entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET &&
           entry.ifa_netmask != nullptr && (entry.ifa_flags & IFF_LOOPBACK) == 0;
}

void CopyAddress(const sockaddr* from, char* text, socklen_t size) {
    sockaddr_in address{};
    memcpy(&address, from, sizeof address);
    inet_ntop(AF_INET, &address.sin_addr, text, size); // can't fail: the fields hold any address
}

void FillAddress(const ifaddrs& entry, Record& record) {
    constexpr unsigned int kUp = IFF_UP | IFF_RUNNING;
    CopyCut(entry.ifa_name, record.szName, sizeof record.szName);
    CopyAddress(entry.ifa_addr, record.szIp, sizeof record.szIp);
    CopyAddress(entry.ifa_netmask, record.szMask, sizeof record.szMask);
    record.nState = (entry.ifa_flags & kUp) == kUp ? kStateUp : kStateDown;
}

void FillMac(const Mac& mac, Record& record) {
    std::copy(mac.begin(), mac.end(), record.rgMac);
}

/// The first IPv4 address of an interface; the record is untouched when it has none.
int FillFirstAddress(const std::string& name, Record& record) {
    const AddressList list;
    for (const ifaddrs* entry = list.first; entry != nullptr; entry = entry->ifa_next) {
        if (HasIpv4(*entry) && name == entry->ifa_name) {
            FillAddress(*entry, record);
            return 0;
        }
    }
    return list.error != 0 ? list.error : EADDRNOTAVAIL;
}

/// The interface that stands for "eth0" on a machine without one. It gives the device its identity,
/// so the choice must not depend on what happens to be up: the one named in the settings; else the
/// first with hardware; else, as in a container, that of the default route.
std::string EthernetName() {
    const std::string folder = paths::NetClassDir();
    struct stat info {};
    if (stat((folder + "/eth0").c_str(), &info) == 0) {
        return "eth0";
    }
    std::string named = ReadValue(paths::InfoFile(), "nic");
    if (!named.empty()) {
        return named;
    }
    const std::string prefix = folder + "/";
    std::vector<std::string> names;
    if (ListFolder(folder, names) == 0) {
        for (const std::string& name : names) {
            if (stat((prefix + name).append("/device").c_str(), &info) == 0 && ReadMac(name)) {
                return name;
            }
        }
    }
    DefaultRoute route;
    return FindDefaultRoute(route) == 0 ? route.interface : "";
}

std::string PppName(int index) {
    return "ppp" + std::to_string(index);
}

} // namespace

std::optional<Mac> ParseMac(std::string_view text) {
    Mac mac{};
    if (text.size() != mac.size() * 3 - 1) {
        return std::nullopt;
    }
    for (size_t i = 0; i < mac.size(); ++i) {
        if (!ParseNumber(text.substr(i * 3, 2), 16, mac[i]) || (i > 0 && text[i * 3 - 1] != ':')) {
            return std::nullopt;
        }
    }
    return mac == Mac{} ? std::nullopt : std::optional<Mac>(mac);
}

} // namespace ZARO::Platform

using namespace ZARO::Platform;

int TLIBNetGetInterfaceInfo(struct _tag_TLIB_NETIF* records, int max, int selector) {
    return Guard([&] {
        if (records == nullptr || max <= 0 || selector != 2) {
            return Fail(EINVAL);
        }
        const AddressList list;
        std::vector<Record> found;
        for (const ifaddrs* entry = list.first; entry != nullptr; entry = entry->ifa_next) {
            const bool known = std::any_of(found.begin(), found.end(), [&](const Record& record) {
                return strcmp(record.szName, entry->ifa_name) == 0;
            });
            if (known || !HasIpv4(*entry) || found.size() == static_cast<size_t>(max)) {
                continue;
            }
            Record record{};
            FillAddress(*entry, record);
            FillMac(ReadMac(record.szName).value_or(Mac{}), record);
            found.push_back(record);
        }
        std::copy(found.begin(), found.end(), records);
        if (found.empty()) {
            return Fail(list.error != 0 ? list.error : EADDRNOTAVAIL);
        }
        return static_cast<int>(found.size());
    });
}

int ZARONetIFGetInfo(const char* ifname, struct _tag_TLIB_NETIF* record, int) {
    return Guard([&] {
        if (ifname == nullptr || record == nullptr) {
            return Fail(EINVAL);
        }
        const std::string name = strcmp(ifname, "eth0") == 0 ? EthernetName() : ifname;
        const auto mac = ReadMac(name);
        if (!mac) {
            return Fail(ENODEV);
        }
        Record found{};
        CopyCut(name, found.szName, sizeof found.szName);
        found.nState = kStateDown;
        (void)FillFirstAddress(name, found); // without an address it is there all the same
        FillMac(*mac, found);
        *record = found;
        return 0;
    });
}

int ZAROPPPoECheckStatusEx(int index) {
    return Guard([&] {
        Record record{};
        return FillFirstAddress(PppName(index), record) == 0 && record.nState == kStateUp ? 1 : 0;
    });
}

int ZAROPPPoeNetInfoGet(char* ip, int cbIp, char* mask, int cbMask) {
    return Guard([&] {
        Record record{};
        if (ip == nullptr || mask == nullptr) {
            return Fail(EINVAL);
        }
        if (const int error = FillFirstAddress(PppName(0), record)) {
            return Fail(error);
        }
        if (!Fits(record.szIp, cbIp) || !Fits(record.szMask, cbMask)) {
            return Fail(ERANGE);
        }
        CopyCut(record.szIp, ip, cbIp);
        CopyCut(record.szMask, mask, cbMask);
        return 0;
    });
}
