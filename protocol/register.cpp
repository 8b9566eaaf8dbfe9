#include <zarorelayd/register.h>

#include <algorithm>
#include <iostream>

#include <zarorelayd/daemon.h>
#include <zarorelayd/result.h>

#include "base/json.h"
#include "base/log.h"

namespace ZARO::Relay {

namespace {

constexpr int kProtocolVersion = 1;

Json::Value NewCommand(const char* name) {
    Json::Value command;
    command["version"] = kProtocolVersion;
    command["command"] = name;
    return command;
}

/// Stops and drops the tunnel of a service that changed or is gone; the servers assign a new one.
void RemoveTunnel(std::list<Tunnel>& tunnels, std::list<Tunnel>::iterator tunnel) {
    if (tunnel == tunnels.end()) {
        return;
    }
    RELAY_LOG(log::Debug, "remove tunnel: %s", tunnel->GetServiceId().c_str());
    tunnel->Destroy();
    tunnels.erase(tunnel);
}

void RemoveServices(std::list<ServiceConf>& services, const std::string& id) {
    services.remove_if(CmprServiceId(id));
}

const Json::Value& ArrayMember(const Json::Value& object, const char* key) {
    static const Json::Value kNone(Json::arrayValue);
    const Json::Value* member = json::Find(object, key);
    return member != nullptr && member->isArray() ? *member : kNone;
}

} // namespace

Register::Register() : registered_(false), previous_(nullptr) {
}

Register::~Register() = default;

bool Register::GetReigsterCommand(const RelaydConf& conf, Json::Value& out) {
    out = NewCommand("register");
    Json::Value& auth = out["auth"];
    if (!conf.auth.Write(auth, AuthConf::kWithToken)) {
        RELAY_LOG(log::Error, "get auth token failed");
        return true;
    }
    if (!conf.serverID.empty()) {
        auth["serverID"] = conf.serverID;
    }
    return true;
}

bool Register::GetNetworkChanges(const RelaydConf& old, const RelaydConf& cur, Json::Value& out) {
    out = Json::Value();
    if (old.network == cur.network) {
        return false;
    }
    out = NewCommand("update_network");
    if (!cur.network.Write(out, kFullForm)) {
        RELAY_LOG(log::Error, "get network info failed");
    }
    return true;
}

bool Register::GetServiceChanges(const RelaydConf& old, const RelaydConf& cur,
                                 std::list<Tunnel>& tunnels, Json::Value& out) {
    Json::Value added(Json::arrayValue);
    Json::Value removed(Json::arrayValue);
    Json::Value updated(Json::arrayValue);
    out = NewCommand("update_service");
    for (const ServiceConf& service : cur.services) {
        const auto known = old.GetServiceById(service.id);
        RELAY_LOG(log::Debug, "check: %s", service.id.c_str());
        if (known != old.services.end() && *known == service) {
            continue;
        }
        Json::Value entry;
        if (!service.Write(entry, kFullForm)) {
            RELAY_LOG(log::Error, "service to json failed");
            continue;
        }
        entry.removeMember("name");
        if (known == old.services.end()) {
            added.append(entry);
        } else {
            updated.append(entry);
            RemoveTunnel(tunnels, GetTunnelByServiceId(tunnels, service.id));
        }
    }
    for (const ServiceConf& service : old.services) {
        const auto current = cur.GetServiceById(service.id);
        RELAY_LOG(log::Debug, "check: %s", service.id.c_str());
        if (current != cur.services.end()) {
            continue;
        }
        Json::Value entry;
        entry["id"] = service.id;
        removed.append(entry);
        RemoveTunnel(tunnels, GetTunnelByServiceId(tunnels, service.id));
    }
    out["service_update"] = updated;
    out["service_rm"] = removed;
    out["service_add"] = added;
    return !added.empty() || !removed.empty() || !updated.empty();
}

std::list<Tunnel>::iterator Register::GetTunnelByServiceId(std::list<Tunnel>& tunnels,
                                                           const std::string& id) {
    return std::find_if(tunnels.begin(), tunnels.end(),
                        [&](const Tunnel& tunnel) { return tunnel.GetServiceId() == id; });
}

bool Register::GetChanges(const RelaydConf& conf, std::list<Tunnel>& tunnels, Json::Value& out) {
    out = Json::Value(Json::arrayValue);
    if (IsCtrlServerChanged(conf)) {
        registered_ = false;
        SetOldServerUrl(conf);
    }
    Json::Value command;
    if (!registered_) {
        GetReigsterCommand(conf, command);
        out.append(command);
        RELAY_LOG(log::Debug, "register clear previous data");
        previous_.network = NetworkConf(false);
        previous_.services.clear();
    }
    if (GetNetworkChanges(previous_, conf, command)) {
        out.append(command);
    }
    if (GetServiceChanges(previous_, conf, tunnels, command)) {
        out.append(command);
    }
    return true;
}

bool Register::GetDirConnRequest(const RelaydConf& conf, std::list<Tunnel>& tunnels,
                                 Json::Value& out) {
    out = Json::Value(Json::arrayValue);
    const RelaydConf nothing(nullptr);
    Json::Value command;
    GetReigsterCommand(conf, command);
    out.append(command);
    if (GetNetworkChanges(nothing, conf, command)) {
        out.append(command);
    }
    if (GetServiceChanges(nothing, conf, tunnels, command)) {
        out.append(command);
    }
    return true;
}

bool Register::ParseResponse(RelaydConf& conf, const Json::Value& request,
                             const Json::Value& response) {
    if (!request.isArray() || !response.isArray()) {
        RELAY_LOG(log::Error, "register request/response parse failed");
        return false;
    }
    bool result = request.size() <= response.size();
    for (Json::ArrayIndex i = 0; i < std::min(request.size(), response.size()); ++i) {
        std::string command;
        json::Get(request[i], "command", command);
        const RELAYSERVER_ERR err = ParseServerError(response[i]);
        if (err != RELAYSERVER_ERR_SUCCESS) {
            RELAY_LOG(log::Error, "%s failed: %d", command.c_str(), static_cast<int>(err));
            result = false;
        } else if (command == "register") {
            ParseRegisterResponse(conf, request[i], response[i]);
        } else if (command == "update_network") {
            ParseNetworkResponse(conf, request[i], response[i]);
        } else if (command == "update_service") {
            ParseServiceResponse(conf, request[i], response[i]);
        }
    }
    if (Daemon::IsLogEnable(log::Debug)) {
        std::cerr << "\033[34mprev register config:\033[0m " << previous_;
    }
    return result;
}

bool Register::ParseRegisterResponse(RelaydConf& conf, const Json::Value&,
                                     const Json::Value& reply) {
    RELAY_LOG(log::Debug, "register success");
    registered_ = true;
    if (json::Get(reply, "serverID", conf.serverID)) {
        // A failure is logged; the id holds for this run, and the next one gets it again.
        (void)conf.WriteServerId("");
    }
    const Json::Value* waitcmd = json::Find(reply, "server_wait_cmd");
    if (waitcmd != nullptr && waitcmd->isObject()) {
        conf.waitcmd.Overwrite(*waitcmd);
        RELAY_LOG(log::Debug, "change waitcmd server to: %s", conf.waitcmd.GetUrl(nullptr).c_str());
    }
    return true;
}

bool Register::ParseNetworkResponse(RelaydConf& conf, const Json::Value& cmd,
                                    const Json::Value& reply) {
    RELAY_LOG(log::Debug, "update_network success");
    if (!cmd.isObject()) {
        RELAY_LOG(log::Error, "network response parse failed");
        return false;
    }
    previous_.network.Overwrite(cmd);
    json::Get(reply, "mode", conf.network.mode);
    previous_.network.mode = conf.network.mode;
    return true;
}

bool Register::ParseServiceResponse(const RelaydConf&, const Json::Value& cmd, const Json::Value&) {
    RELAY_LOG(log::Debug, "update_service success");
    for (const Json::Value& entry : ArrayMember(cmd, "service_rm")) {
        std::string id;
        if (json::Get(entry, "id", id)) {
            RemoveServices(previous_.services, id);
        }
    }
    for (const Json::Value& entry : ArrayMember(cmd, "service_add")) {
        const ServiceConf service(entry, false);
        if (service.IsValid()) {
            previous_.services.push_back(service);
        }
    }
    for (const Json::Value& entry : ArrayMember(cmd, "service_update")) {
        const ServiceConf service(entry, false);
        if (service.IsValid()) {
            RemoveServices(previous_.services, service.id);
            previous_.services.push_back(service);
        }
    }
    return true;
}

bool Register::IsCtrlServerChanged(const RelaydConf& conf) const {
    return previous_.control != conf.control;
}

std::string Register::GetOldServerUrl() const {
    return previous_.control.GetUrl(nullptr);
}

bool Register::SetOldServerUrl(const RelaydConf& conf) {
    previous_.control = conf.control;
    return true;
}

bool Register::SetAuthExpired() {
    registered_ = false;
    return true;
}

bool Register::CheckServiceConf(const ServiceConf&) {
    return true;
}

} // namespace ZARO::Relay
