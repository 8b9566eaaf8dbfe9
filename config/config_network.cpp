#define RELAY_LOG_UNIT "config.cpp"
#include <zarorelayd/config.h>

#include <strings.h>

#include <algorithm>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "platform/include/zaro/platform.h"

namespace ZARO::Relay {

namespace {

constexpr int kMostInterfaces = 32;
constexpr int kAllInterfaces = 2; // the platform's selector
constexpr int kUp = 2;            // the platform's state of an interface that is up
constexpr int kAddressText = 46;
constexpr int kGatewayText = 20;

void AppendInterfaces(std::list<InterfaceConf>& interfaces) {
    _tag_TLIB_NETIF records[kMostInterfaces] = {};
    const int count = TLIBNetGetInterfaceInfo(records, kMostInterfaces, kAllInterfaces);
    if (count <= 0) {
        RELAY_LOG(log::Debug, "TLIBNetGetInterfaceInfo failed: [0x%04X]", TLIBCErrGet());
        return;
    }
    for (int i = 0; i < std::min(count, kMostInterfaces); ++i) {
        if (records[i].nState == kUp) {
            interfaces.emplace_back(records[i]);
        }
    }
}

void AppendPppoe(std::list<InterfaceConf>& interfaces) {
    if (ZAROPPPoECheckStatusEx(0) != 1) {
        return;
    }
    char ip[kAddressText] = "";
    char mask[kAddressText] = "";
    if (ZAROPPPoeNetInfoGet(ip, sizeof ip, mask, sizeof mask) < 0) {
        RELAY_LOG(log::Debug, "ZAROPPPoeNetInfoGet failed: [0x%04X]", TLIBCErrGet());
        return;
    }
    interfaces.emplace_back("pppoe", ip, mask);
}

void ReadGateway(std::string& gateway) {
    char text[kGatewayText] = "";
    if (ZARONetDefaultGatewayGet(text, sizeof text) < 0) {
        RELAY_LOG(log::Debug, "ZARONetDefaultGatewayGet failed: [0x%04X]", TLIBCErrGet());
        return;
    }
    gateway = text;
}

bool IsDdnsOn(const std::string& settings) {
    char update[8] = "";
    if (TLIBCFileGetKeyValue(settings.c_str(), "ddns_update", update, sizeof update, 0) < 1) {
        return false;
    }
    return strcasecmp(update, "yes") == 0;
}

// Some devices lack the above, so that is no error; a DDNS that is on but can't be read is one.
void ReadDdns(std::string& ddns) {
    const std::string settings = paths::InfoFile();
    if (TLIBCSupportGet("supportddns") == 0 || !IsDdnsOn(settings)) {
        return;
    }
    char provider[128] = "";
    if (TLIBCFileGetKeyValue(settings.c_str(), "ddns_select", provider, sizeof provider, 0) < 1) {
        RELAY_LOG(log::Error, "get ddns provider failed");
        return;
    }
    _tag_ZARO_DDNS record = {};
    if (ZARODDNSConfigGet(provider, &record) < 0) {
        RELAY_LOG(log::Error, "ZARODDNSConfigGet failed: [0x%04X]", TLIBCErrGet());
        return;
    }
    ddns = record.szHostname;
}

} // namespace

// --- InterfaceConf

InterfaceConf::InterfaceConf() = default;

InterfaceConf::InterfaceConf(const _tag_TLIB_NETIF& nic)
    : name(nic.szName), ip(nic.szIp), mask(nic.szMask) {
}

InterfaceConf::InterfaceConf(const std::string& interfaceName, const std::string& address,
                             const std::string& netmask)
    : name(interfaceName), ip(address), mask(netmask) {
}

InterfaceConf::~InterfaceConf() = default;

bool InterfaceConf::Overwrite(const Json::Value& v) {
    json::Get(v, "ip", ip);
    json::Get(v, "mask", mask);
    json::Get(v, "name", name);
    return true;
}

bool InterfaceConf::IsValid() const {
    return !name.empty() && !ip.empty() && !mask.empty();
}

bool InterfaceConf::Write(Json::Value& out, bool) const {
    json::Object(out)["name"] = name;
    out["ip"] = ip;
    out["mask"] = mask;
    return true;
}

bool InterfaceConf::operator==(const InterfaceConf& other) const {
    return name == other.name && ip == other.ip && mask == other.mask;
}

bool InterfaceConf::operator!=(const InterfaceConf& other) const {
    return !(*this == other);
}

// --- NetworkConf

NetworkConf::NetworkConf(bool readNow) {
    if (readNow) {
        ReadConf();
    }
}

NetworkConf::~NetworkConf() = default;

bool NetworkConf::Overwrite(const Json::Value& v) {
    json::Get(v, "ddns", ddns);
    json::Get(v, "gateway", gateway);
    json::Get(v, "mode", mode);
    const Json::Value* list = json::Find(v, "interface");
    if (list == nullptr || !list->isArray()) {
        return true;
    }
    interfaces.clear();
    for (const Json::Value& element : *list) {
        InterfaceConf entry;
        entry.Overwrite(element);
        if (entry.IsValid()) {
            interfaces.push_back(entry);
        }
    }
    return true;
}

bool NetworkConf::IsValid() const {
    return std::all_of(interfaces.begin(), interfaces.end(),
                       [](const InterfaceConf& entry) { return entry.IsValid(); });
}

bool NetworkConf::Write(Json::Value& out, bool flag) const {
    Json::Value& list = json::Object(out)["interface"];
    list = Json::Value(Json::arrayValue);
    for (const InterfaceConf& entry : interfaces) {
        entry.Write(list.append(Json::Value()), flag);
    }
    out["gateway"] = gateway;
    out["ddns"] = ddns;
    out["mode"] = mode;
    return true;
}

bool NetworkConf::ReadConf() {
    AppendInterfaces(interfaces);
    AppendPppoe(interfaces);
    ReadGateway(gateway);
    ReadDdns(ddns);
    return true;
}

bool NetworkConf::operator==(const NetworkConf& other) const {
    return ddns == other.ddns && gateway == other.gateway && interfaces == other.interfaces;
}

bool NetworkConf::operator!=(const NetworkConf& other) const {
    return !(*this == other);
}

} // namespace ZARO::Relay
