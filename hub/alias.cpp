#include "hub/alias.h"

#include <exception>
#include <map>
#include <vector>

#include "base/json.h"
#include "base/names.h"
#include "hub/http_form.h"
#include "hub/log.h"
#include "hub/names.h"

namespace ZARO::RelayHub {

namespace {

// The words of the alias protocol.
constexpr char kGood[] = "good";
constexpr char kBadAuth[] = "badauth";
constexpr char kBadParam[] = "badparam";
constexpr char kInUse[] = "alias_inused";
constexpr char kNotFound[] = "alias_not_found";
constexpr char kBadSystem[] = "badsys"; // out of room
constexpr char kInternal[] = "911";

std::string WordFor(StoreResult result) {
    switch (result) {
    case StoreResult::Done:
        return kGood;
    case StoreResult::Refused:
        return kBadAuth;
    case StoreResult::NotFound:
        return kNotFound;
    case StoreResult::Taken:
        return kInUse;
    case StoreResult::Full:
        return kBadSystem;
    case StoreResult::Fault:
        break;
    }
    return kInternal;
}

} // namespace

std::string Alias::Update(const std::string& form) {
    try {
        std::map<std::string, std::string> fields = ParseForm(form);
        const std::string& action = fields["action"];
        const std::string& name = fields["alias"];
        if ((action != "map_alias" && action != "delete_alias" && action != "keep_alive_alias") ||
            !IsPlainAliasName(name) || !IsSerial(fields["serial"]) || !IsToken(fields["token"]) ||
            fields["id"].empty()) {
            return kBadParam;
        }
        Device device;
        StoreResult result =
            store_.devices.Authenticate(fields["serial"], fields["token"], fields["id"], device);
        if (result == StoreResult::Done) {
            result = action == "map_alias"      ? store_.aliases.Map(name, device.key, ttl_)
                     : action == "delete_alias" ? store_.aliases.Delete(name, device.key)
                                                : store_.aliases.Keep(name, device.key, ttl_);
        }
        std::string word = WordFor(result);
        Log(Level::Debug, "alias", "%s %s of %s: %s", action.c_str(), name.c_str(),
            fields["serial"].c_str(), word.c_str());
        return word;
    } catch (const std::exception& fault) {
        Log(Level::Error, "alias", "an update failed: %s", fault.what());
        return kInternal;
    }
}

std::string Alias::Query(const std::string& form, const Origin& origin) {
    try {
        std::map<std::string, std::string> fields = ParseForm(form);
        if (fields["action"] != "query_alias" || !IsPlainAliasName(fields["alias"])) {
            return kBadParam;
        }
        return Describe(fields["alias"], origin);
    } catch (const std::exception& fault) {
        Log(Level::Error, "alias", "a query failed: %s", fault.what());
        return kInternal;
    }
}

std::string Alias::Describe(const std::string& name, const Origin& origin) {
    Device device;
    std::vector<TunnelRecord> tunnels;
    StoreResult result = store_.aliases.Find(name, device);
    if (result == StoreResult::Done) {
        result = store_.services.ListTunnels(device.key, tunnels);
    }
    if (result != StoreResult::Done) {
        return WordFor(result);
    }
    const std::string host = visitorHost_.empty() ? origin.host : ForUrl(visitorHost_);
    Json::Value reply(Json::objectValue);
    reply["alias"] = name;
    reply["id"] = device.serverId;
    Json::Value& services = reply["services"] = Json::Value(Json::arrayValue);
    for (const TunnelRecord& tunnel : tunnels) {
        Json::Value service(Json::objectValue);
        service["id"] = tunnel.id;
        service["name"] = tunnel.name;
        service["address"] = (tunnel.relayHost.empty() ? host : ForUrl(tunnel.relayHost)) + ":" +
                             std::to_string(tunnel.relayPort);
        service["relay_up"] = isUp_(tunnel);
        services.append(service);
    }
    return json::Compact(reply);
}

} // namespace ZARO::RelayHub
