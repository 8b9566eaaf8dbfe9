#define RELAY_LOG_UNIT "config.cpp"
#include <zarorelayd/config.h>

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <zarorelayd/daemon.h>
#include <zarorelayd/zarorelayd.h>

#include "base/json.h"
#include "base/log.h"
#include "base/paths.h"
#include "config/json_file.h"
#include "platform/include/zaro/platform.h"

namespace ZARO::Relay {

namespace {

constexpr int kDefaultLogLevel = 4;

void ReadServices(const Json::Value& list, std::list<ServiceConf>& services) {
    services.clear();
    if (!list.isArray()) {
        return;
    }
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const ServiceConf service(list[i], true);
        if (!service.IsValid()) {
            RELAY_LOG(log::Error, "invalid service config: %d", static_cast<int>(i));
        } else if (std::none_of(services.begin(), services.end(), CmprServiceId(service.id))) {
            services.push_back(service);
        }
    }
}

} // namespace

RelaydConf::RelaydConf(const char* file)
    : enable(false), control(nullptr, nullptr), waitcmd(nullptr, nullptr), network(false),
      auth(false), log_level(kDefaultLogLevel), sync(false), debug(false), serverIdCleared(false) {
    enable = GetEnableConf();
    const std::string host = GetServerHost(auth.timezone.c_str());
    control.host = host;
    control.protocol = "https";
    control.port = 443;
    waitcmd.host = host;
    if (file != nullptr) {
        (void)RelaydConf::ReadConfigFile(file); // logged; the caller asks IsValid()
    }
}

RelaydConf::~RelaydConf() = default;

bool RelaydConf::Overwrite(const Json::Value& v) {
    if (!v.isObject()) {
        return false;
    }
    json::Get(v, "serverID", serverID);
    json::Get(v, "log_level", log_level);
    json::Get(v, "log_file", log_file);
    if (const Json::Value* member = json::Find(v, "server_control")) {
        control.Overwrite(*member);
    }
    if (const Json::Value* member = json::Find(v, "server_waitcmd")) {
        waitcmd.Overwrite(*member);
    }
    if (const Json::Value* member = json::Find(v, "server_alias")) {
        alias.Overwrite(*member);
    }
    if (const Json::Value* member = json::Find(v, "service")) {
        ReadServices(*member, services);
    }
    errno = 0;
    const bool foreign = TLIBRelaydVerifyServerId(serverID.c_str()) == 0;
    if (foreign && errno != ENOMEM) { // out of memory, the verification says nothing about the id
        serverID.clear();
        serverIdCleared = true;
    }
    return true;
}

bool RelaydConf::IsValid() const {
    if (!control.IsValid()) {
        RELAY_LOG(log::Error, "wrong control server config");
        return false;
    }
    if (!waitcmd.IsValid()) {
        RELAY_LOG(log::Error, "wrong wait cmd server config");
        return false;
    }
    if (!alias.IsValid()) {
        RELAY_LOG(log::Error, "wrong alias cmd server config");
        return false;
    }
    for (const ServiceConf& service : services) {
        if (!service.IsValid()) {
            RELAY_LOG(log::Error, "wrong service [%s] config", service.id.c_str());
            return false;
        }
    }
    return true;
}

bool RelaydConf::Write(Json::Value& v, bool full) const {
    json::Object(v);
    control.Write(v["server_control"], full);
    waitcmd.Write(v["server_waitcmd"], full);
    alias.Write(v["server_alias"], AliasConf::kCompact);
    if (!serverID.empty()) {
        v["serverID"] = serverID;
    }
    Json::Value& list = v["service"];
    list = Json::Value(Json::arrayValue);
    for (const ServiceConf& service : services) {
        service.Write(list.append(Json::Value()), full);
    }
    v["log_level"] = log_level;
    v["log_file"] = log_file;
    if (full) {
        v["enable"] = enable;
        v["mode"] = sync ? "sync" : "async";
        v["debug"] = debug;
        v["pid"] = getpid();
        network.Write(v["network"], kFullForm);
    }
    return true;
}

bool RelaydConf::ReadConfigFile(const std::string& file) {
    Json::Value v;
    if (!ReadJsonFile(file, v)) { // it never fails now; handled in case it ever does
        RELAY_LOG(log::Error, "invalid config: %s", file.c_str());
        return false;
    }
    path = file;
    if (!Overwrite(v)) {
        RELAY_LOG(log::Error, "invalid relayd config: can not overwrite default");
        return false;
    }
    if (!IsValid()) {
        RELAY_LOG(log::Error, "invalid relayd config");
        return false;
    }
    return true;
}

bool RelaydConf::WriteConfigFile(const std::string& file) {
    if (!IsValid()) {
        RELAY_LOG(log::Error, "invalid relayd config");
        return false;
    }
    Json::Value old;
    bool readable = false;
    if (!Relay::ReadJsonFile(file, old, readable)) {
        RELAY_LOG(log::Warning, "drop crrupted config: [%s]", file.c_str());
        old = Json::Value(Json::objectValue);
    }
    if (!readable) {
        return false;
    }
    Json::Value fresh;
    Write(fresh, kFileForm);
    // These stay in the file only where somebody put them; defaults are never written out.
    for (const char* key : {"log_level", "log_file", "server_control", "server_waitcmd"}) {
        if (json::Find(old, key) == nullptr) {
            fresh.removeMember(key);
        }
    }
    return WriteJsonFileWithNotification(file, fresh);
}

bool RelaydConf::WriteConfigFile() {
    return WriteConfigFile(std::string(path));
}

bool RelaydConf::Reload() {
    // Always the default file, whichever this record was read from.
    RelaydConf fresh(paths::ConfigFile().c_str());
    if (!fresh.IsValid()) {
        RELAY_LOG(log::Error, "reload config failed");
        return false;
    }
    fresh.TakeOver(*this);
    fresh.network.ReadConf();
    fresh.network.mode = network.mode;
    *this = fresh;
    return true;
}

bool RelaydConf::AddServiceById(const std::string& id) {
    const ServiceConf service(id.c_str());
    if (!service.IsValid()) {
        RELAY_LOG(log::Error, "invalid service config: %d", 0); // an index, which is missing here
        return false;
    }
    if (GetServiceById(service.id) == services.end()) {
        services.push_back(service);
    }
    return true;
}

bool RelaydConf::RemoveServiceById(const std::string& id) {
    const auto service = GetServiceById(id);
    if (service == services.end()) {
        return false;
    }
    services.erase(service);
    return true;
}

std::list<ServiceConf>::const_iterator RelaydConf::GetServiceById(const std::string& id) const {
    return std::find_if(services.begin(), services.end(), CmprServiceId(id));
}

bool RelaydConf::ReadForRewrite(const std::string& file, Json::Value& v) const {
    if (!IsValid()) {
        RELAY_LOG(log::Error, "invalid relayd config");
        return false;
    }
    bool readable = false;
    return Relay::ReadJsonFile(file, v, readable) && readable;
}

bool RelaydConf::WriteServerId(const std::string& file) {
    const std::string target = file.empty() ? path : file;
    Json::Value v;
    if (!ReadForRewrite(target, v)) {
        return false;
    }
    json::Object(v)["serverID"] = serverID;
    return WriteJsonFileWithNotification(target, v);
}

bool RelaydConf::WriteAliasName(const std::string& file, const std::string& aliasName) {
    const std::string target = file.empty() ? path : file;
    Json::Value v;
    if (!ReadForRewrite(target, v)) {
        return false;
    }
    alias.SetAliasName(aliasName);
    alias.Write(json::Object(v)["server_alias"], AliasConf::kCompact);
    return WriteJsonFileWithNotification(target, v);
}

bool RelaydConf::WriteJsonFileWithNotification(const std::string& file, const Json::Value& value) {
    const bool written = WriteJsonFile(file, value);
    if (written && serverIdCleared) {
        // One attempt per dropped id, whether or not the notifier succeeds.
        (void)TLIBCExec(paths::NotifyProgram().c_str(), "@administrators",
                        "relayservice:relayservice_serverid_change_title",
                        "relayservice:relayservice_serverid_change_msg", nullptr);
        serverIdCleared = false;
    }
    return written;
}

bool RelaydConf::SetEnableConf(bool on) const {
    const char* value = on ? "yes" : "no";
    if (TLIBCINFOSetKeyValue("runrelayd", value) < 0) {
        RELAY_LOG(log::Error, "write zaroinfo [runrelayd=%s] failed", value);
        return false;
    }
    return true;
}

bool RelaydConf::GetEnableConf() const {
    char value[8] = "";
    const std::string settings = paths::InfoFile();
    if (TLIBCFileGetKeyValue(settings.c_str(), "runrelayd", value, sizeof value, 0) < 1) {
        return false;
    }
    return strcasecmp(value, "yes") == 0;
}

void RelaydConf::DumpDataForAliasReq(Json::Value& v) {
    alias.Write(v, AliasConf::kEverySetting);
    if (auth.serial.empty() || auth.token.empty()) {
        (void)auth.ReadConf(); // logged; a request without credentials is refused later
    }
    auth.Write(v, AuthConf::kWithToken);
    v["id"] = serverID;
}

} // namespace ZARO::Relay
