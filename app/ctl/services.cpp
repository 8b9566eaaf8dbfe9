#include "app/ctl/services.h"

#include <iostream>
#include <vector>

#include <zarorelayd/config.h>
#include <zarorelayd/tunnel.h>

#include "app/common/local_service.h"
#include "app/ctl/config_change.h"
#include "app/ctl/control.h"
#include "app/ctl/report.h"
#include "app/ctl/service_list.h"
#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

Json::Value Describe(const ServiceEntries& entries) {
    Json::Value document;
    document["service"] = Json::Value(Json::arrayValue);
    for (const auto& [id, entry] : entries) {
        Json::Value& item = document["service"].append(Json::Value());
        item["id"] = id;
        item["name"] = entry.conf.name;
        item["port"] = IsPort(entry.conf.port) ? Json::Value(entry.conf.port) : Json::Value();
        item["published"] = entry.published;
        item["local"] = app::ReachabilityWord(app::ProbeLocalPort(LocalPort(entry.conf)));
    }
    return document;
}

std::string Render(const Json::Value& document) {
    if (document["service"].empty()) {
        return "no service is defined; define one in " + paths::ServicesDir() + "\n";
    }
    std::vector<std::vector<Cell>> rows = {{{"SERVICE", Tone::Faint},
                                            {"NAME", Tone::Faint},
                                            {"PORT", Tone::Faint},
                                            {"PUBLISHED", Tone::Faint},
                                            {"RUNNING HERE", Tone::Faint}}};
    for (const Json::Value& item : document["service"]) {
        const std::string local = item["local"].asString();
        const bool runs = local == "reachable";
        const bool port = item["port"].isInt();
        const bool published = item["published"].asBool();
        const Tone fault = published ? Tone::Bad : Tone::Faint;
        rows.push_back(
            {{Clean(item["id"].asString())},
             {Clean(item["name"].asString(), 40)},
             {port ? item["port"].asString() : "none", port ? Tone::Plain : fault},
             {published ? "yes" : "no", published ? Tone::Good : Tone::Faint},
             {runs ? "yes" : (local == "refused" ? "no" : "?"), runs ? Tone::Good : fault}});
    }
    return Layout(rows, WantsColour());
}

/// Publishes or withdraws it, and says so.
int Change(const ConfigChange& change, const std::string& id, bool publish) {
    bool changed = false;
    const int code = ChangeServiceList(change, id, publish, changed);
    if (code != kSuccess) {
        return code;
    }
    if (changed) {
        return Apply(Clean(id) + (publish ? " is published" : " is withdrawn"));
    }
    std::cout << Clean(id) << (publish ? " is published already" : " is not published")
              << std::endl;
    return kSuccess;
}

} // namespace

int ListServices(bool json) {
    Json::Value config;
    const int code = ReadConfig(config);
    if (code != kSuccess) {
        return code;
    }
    const Json::Value document = Describe(ReadServices(config));
    std::cout << (json ? json::Pretty(document) : Render(document));
    return kSuccess;
}

int AddService(const std::string& id) {
    const ConfigChange change;
    const int code = change.CheckReadable();
    if (code != kSuccess) {
        return code;
    }
    const ServiceEntries published = ReadPublished(change.Found().document);
    const auto own = published.find(id);
    const bool hasPort = own != published.end() && IsPort(own->second.conf.port);
    if (!hasPort && (!IsServiceId(id) || !IsPort(ServiceConf(id.c_str()).port))) {
        return TellNoService(id);
    }
    return Change(change, id, true);
}

int RemoveService(const std::string& id) {
    const ConfigChange change;
    const int code = change.CheckReadable();
    if (code != kSuccess) {
        return code;
    }
    const bool defined = IsServiceId(id) && ServiceConf("").ReadConf(id);
    if (!defined && ReadPublished(change.Found().document).count(id) == 0) {
        return Fail(kNoAnswer, "no service \"" + Clean(id) + "\" is defined or published",
                    "see: zarorelayctl service list");
    }
    return Change(change, id, false);
}

} // namespace ZARO::Relay::ctl
