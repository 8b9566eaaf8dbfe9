#include <zarorelayd/config.h>

// The assertion in this file stays on in every build.
#undef NDEBUG
#include <cassert>

#include <cstdlib>
#include <limits>
#include <memory>
#include <ostream>
#include <utility>

#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/log.h"
#include "base/service_names.h"
#include "platform/include/zaro/platform.h"

namespace ZARO::Relay {

namespace {

constexpr int kShortText = 8; // bytes for the router file's section names, keys and ports

struct FreeServiceList {
    void operator()(ZARO_FW_SERVICE_LIST* list) const { ZAROFwServiceFree(list); }
};
using ServiceList = std::unique_ptr<ZARO_FW_SERVICE_LIST, FreeServiceList>;

/// A port in decimal; -1 for a number that does not fit.
std::int32_t ToPort(const char* text) {
    const long value = strtol(text, nullptr, 10);
    return value <= std::numeric_limits<std::int32_t>::max() &&
                   value >= std::numeric_limits<std::int32_t>::min()
               ? static_cast<std::int32_t>(value)
               : -1;
}

/// The port that the router forwards to a service; -1 when it forwards none.
std::int32_t RouterPort(const char* service) {
    const char* file = TLIBServiceRouterBasepathGet();
    if (file == nullptr) {
        return -1;
    }
    char section[kShortText] = "";
    char key[kShortText] = "";
    char port[kShortText] = "";
    if (TLIBCFileGetSectionByValue(file, service, section, sizeof section, key, sizeof key) < 0 ||
        TLIBCFileGetSectionValue(file, section, "r_port", port, sizeof port) < 0) {
        return -1;
    }
    return ToPort(port);
}

} // namespace

std::ostream& operator<<(std::ostream& out, const Config& config) {
    Json::Value value;
    config.Write(value, kFullForm);
    return out << json::OneLine(value);
}

// --- ServerConf

ServerConf::ServerConf(const char* hostName, const char* pagePath)
    : protocol("http"), port(80), page("Serv.php") {
    if (hostName != nullptr) {
        host = hostName;
    }
    if (pagePath != nullptr) {
        page = pagePath;
    }
}

ServerConf::ServerConf(const Json::Value& v) : ServerConf(nullptr, nullptr) {
    ServerConf::Overwrite(v);
}

ServerConf::~ServerConf() = default;

bool ServerConf::Overwrite(const Json::Value& v) {
    json::Get(v, "protocol", protocol);
    json::Get(v, "host", host);
    json::Get(v, "ip", ip);
    json::Get(v, "port", port);
    json::Get(v, "page", page);
    return true;
}

bool ServerConf::IsValid() const {
    return !protocol.empty() && port >= 0 && !(host.empty() && ip.empty()) &&
           (protocol == "http" || protocol == "https");
}

bool ServerConf::Write(Json::Value& v, bool full) const {
    json::Object(v)["host"] = host;
    if (full || host.empty()) {
        v["ip"] = ip;
    }
    if (full) {
        v["protocol"] = protocol;
        v["port"] = port;
        v["page"] = page;
    }
    return true;
}

bool ServerConf::operator==(const ServerConf& other) const {
    return host == other.host && port == other.port && protocol == other.protocol;
}

bool ServerConf::operator!=(const ServerConf& other) const {
    return !(*this == other);
}

std::string ServerConf::GetUrl(const char* path) const {
    if (!IsValid()) {
        return "";
    }
    // The port is written out even where it is the scheme's default.
    return protocol + "://" + (host.empty() ? ip : host) + ":" + std::to_string(port) + "/" +
           (path != nullptr ? path : page);
}

// --- ServiceConf

ServiceConf::ServiceConf(const char* serviceId) : port(-1), ext_port(-1) {
    if (serviceId != nullptr) {
        ReadConf(serviceId);
    }
}

ServiceConf::ServiceConf(const Json::Value& v, bool readConf) : port(-1), ext_port(-1) {
    json::Get(v, "id", id);
    if (readConf) {
        ReadConf(std::string(id));
    }
    ServiceConf::Overwrite(v);
}

ServiceConf::~ServiceConf() = default;

bool ServiceConf::Overwrite(const Json::Value& v) {
    json::Get(v, "id", id);
    json::Get(v, "name", name);
    json::Get(v, "port", port);
    json::Get(v, "ext_port", ext_port);
    return true;
}

bool ServiceConf::IsValid() const {
    return !id.empty() && port >= 0;
}

bool ServiceConf::Write(Json::Value& v, bool full) const {
    json::Object(v)["id"] = id;
    if (full) {
        v["name"] = name;
        if (port >= 0) {
            v["port"] = port;
        }
        if (ext_port >= 0) {
            v["ext_port"] = ext_port;
        }
    }
    return true;
}

bool ServiceConf::operator==(const ServiceConf& other) const {
    return id == other.id && port == other.port && ext_port == other.ext_port;
}

bool ServiceConf::operator!=(const ServiceConf& other) const {
    return !(*this == other);
}

bool ServiceConf::ReadConf(const std::string& serviceId) {
    id = serviceId;
    ZARO_FW_SERVICE_LIST* found = nullptr;
    const int count = ZAROFwServiceEnum(&found);
    const ServiceList list(count >= 0 ? found : nullptr); // a failure leaves nothing to free
    if (count <= 0) {
        RELAY_LOG(log::Error, "enum fw service failed [0x%04X]", TLIBCErrGet());
        return false;
    }
    const ZARO_FW_SERVICE* pService =
        ZAROFWServiceFind(list.get(), services::DefinitionOf(id).c_str());
    if (pService == nullptr) {
        return false;
    }
    assert('\0' != *(pService->szName));
    if (pService->nTcp == 0 && pService->nUdp == 0) {
        return false;
    }
    if (pService->szSection[0] != '\0' && pService->szKey[0] != '\0') {
        name = std::string(pService->szSection) + ":" + pService->szKey;
    } else if (pService->szTitle[0] != '\0') {
        name = pService->szTitle;
    }
    // With several ports the configuration has to say which one to publish.
    if (pService->pPorts != nullptr && pService->pPorts->nItem == 1) {
        if (const char* only = TLIBCSzListGet(pService->pPorts, 0)) {
            port = ToPort(only);
        }
    }
    ext_port = RouterPort(pService->szName);
    return true;
}

// --- CmprServiceId

CmprServiceId::CmprServiceId(std::string id) : id_(std::move(id)) {
}

bool CmprServiceId::operator()(const ServiceConf& service) const {
    return service.id == id_;
}

} // namespace ZARO::Relay
