#define RELAY_LOG_UNIT "config.cpp"
#include <zarorelayd/config.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "platform/include/zaro/platform.h"

namespace ZARO::Relay {

namespace {

constexpr int kSerialText = 36;
constexpr int kTokenText = 33;
constexpr int kMacText = 18;
constexpr std::size_t kBareMacLength = 12; // hex digits
constexpr const char* kFirstPort = "eth0";
constexpr const char* kBlanks = " \t\n\v\f\r";

std::string ClusterMac() {
    char mac[kMacText] = "";
    ZAROHAGetMacDL(0, mac, sizeof mac); // a failure leaves the empty text
    return mac;
}

/// Deletes every third character from the end: the separators of pairs of hex digits.
std::string WithoutSeparators(std::string mac) {
    for (auto at = static_cast<long>(mac.size()) - 3; at >= 1; at -= 3) {
        mac.erase(static_cast<std::size_t>(at), 1);
    }
    return mac;
}

/// Throws if the platform's last answer only means that it ran out of memory.
void CheckMemory() {
    if (errno == ENOMEM) {
        throw std::bad_alloc();
    }
}

/// The factory's MAC, which the kernel keeps for machines whose port has no MAC.
std::string FactoryMac() {
    FileText file;
    (void)ReadFile(paths::MacFile(), file, Trust::Anybodys); // a missing file reads as empty
    const std::size_t begin = std::min(file.text.find_first_not_of(kBlanks), file.text.size());
    std::string word = file.text.substr(begin, file.text.find_first_of(kBlanks, begin) - begin);
    if (word.size() == kBareMacLength) {
        return word;
    }
    RELAY_LOG(log::Error, "invalid mac address");
    return "";
}

} // namespace

AuthConf::AuthConf(bool readNow) : timezone(RelaydConf::GetTimeZone()) {
    if (readNow) {
        ReadConf();
    }
}

AuthConf::~AuthConf() = default;

bool AuthConf::ReadConf() {
    char newSerial[kSerialText] = "";
    char newToken[kTokenText] = "";
    if (ZAROWstokenGetToken(newSerial, sizeof newSerial, newToken, sizeof newToken) < 0) {
        RELAY_LOG(log::Error, "ZAROWstokenGetToken failed: [0x%04X]", TLIBCErrGet());
        return false;
    }
    serial = newSerial;
    token = newToken;
    mac = GetMacAddress();
    return true;
}

bool AuthConf::Overwrite(const Json::Value& v) {
    std::string newSerial;
    std::string newToken;
    json::Get(v, "serial", newSerial);
    json::Get(v, "mac", mac);
    json::Get(v, "token", newToken);
    if (newSerial.empty()) {
        return true;
    }
    if (newToken.empty()) {
        char made[kTokenText] = "";
        if (ZAROWstokenGenerateToken(newSerial.c_str(), made, sizeof made) < 0) {
            RELAY_LOG(log::Error, "gen token failed");
            made[0] = '\0';
        }
        newToken = made;
    }
    // Even an empty token replaces the old one: an old token never goes with a new serial.
    serial = newSerial;
    token = newToken;
    return true;
}

bool AuthConf::IsValid() const {
    return !serial.empty() && !mac.empty() && !token.empty();
}

bool AuthConf::Write(Json::Value& out, bool withToken) const {
    json::Object(out)["serial"] = serial;
    out["mac"] = mac;
    out["timezone"] = timezone;
    if (withToken) {
        out["token"] = token;
    }
    return true;
}

std::string AuthConf::GetMacAddress() {
    if (ZAROHAIsRunning() != 0) {
        return ClusterMac(); // as the platform writes it
    }
    std::string mac = RelaydGetMacAddressByIf(kFirstPort);
    if (mac.size() != kBareMacLength) {
        RELAY_LOG(log::Error, "invalid mac address");
        return mac;
    }
    for (std::size_t at = 10; at >= 2; at -= 2) {
        mac.insert(at, 1, ':');
    }
    return mac;
}

std::string AuthConf::RelaydGetMacAddressByIf(const char* ifname) {
    errno = 0;
    if (ZAROHAIsRunning() != 0) {
        const std::string mac = ClusterMac();
        CheckMemory();
        return WithoutSeparators(mac);
    }
    CheckMemory();
    const std::string name = ifname != nullptr ? ifname : "";
    _tag_TLIB_NETIF record = {};
    if (ZARONetIFGetInfo(name.c_str(), &record, 0) >= 0) {
        const unsigned char* mac = record.rgMac;
        char text[32];
        (void)snprintf(text, sizeof text, "%02X%02X%02X%02X%02X%02X", mac[0], mac[1], mac[2],
                       mac[3], mac[4], mac[5]);
        return text;
    }
    CheckMemory();
    return name == kFirstPort ? FactoryMac() : "";
}

} // namespace ZARO::Relay
