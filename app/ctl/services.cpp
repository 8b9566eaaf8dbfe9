#include "app/ctl/services.h"

#include <filesystem>
#include <iostream>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include <zarorelayd/config.h>
#include <zarorelayd/tunnel.h>

#include "app/common/local_service.h"
#include "app/ctl/config_change.h"
#include "app/ctl/control.h"
#include "app/ctl/report.h"
#include "base/folder.h"
#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/service_names.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

struct Entry {
    explicit Entry(const ServiceConf& service) : conf(service) {}

    ServiceConf conf;
    bool published = false;
};

using Entries = std::map<std::string, Entry>;

/// All services that the device defines.
Entries ReadDefinitions() {
    Entries entries;
    (void)ForEachEntry(paths::ServicesDir(), [&](const std::filesystem::path& file) {
        const std::string id = services::IdOf(file.stem());
        if (file.extension() == ".conf" && IsServiceId(id)) {
            entries.emplace(id, ServiceConf(id.c_str()));
        }
    });
    return entries;
}

/// Adds the published services. Settings in the configuration win over those of the definition.
void AddPublished(const Json::Value& config, Entries& entries) {
    const Json::Value* list = json::Find(config, "service");
    if (list == nullptr || !list->isArray()) {
        return;
    }
    for (const Json::Value& item : *list) {
        const std::string id = json::TextOf(item, "id");
        if (!id.empty()) {
            Entry entry(ServiceConf(item, IsServiceId(id)));
            entry.published = true;
            entries.insert_or_assign(id, entry);
        }
    }
}

Entries ReadPublished(const ConfigChange& change) {
    Entries entries;
    AddPublished(change.Found().document, entries);
    return entries;
}

/// A remedy for a wrong id: the ids that would be right.
std::string Expected() {
    std::string ids;
    for (const auto& [id, entry] : ReadDefinitions()) {
        if (IsPort(entry.conf.port)) {
            ids += (ids.empty() ? "expected one of: " : ", ") + id;
        }
    }
    return ids.empty() ? "define one in " + paths::ServicesDir() : ids;
}

Json::Value Describe(const Entries& entries) {
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

/// The list without the entries that have the id; empty when `list` is not a list.
Json::Value Without(const std::string& id, const Json::Value& list) {
    Json::Value rest(Json::arrayValue);
    for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
        if (json::TextOf(list[i], "id") != id) {
            rest.append(list[i]);
        }
    }
    return rest;
}

/// Changes only the list of services in the file. Writes nothing when there is nothing to change.
int ChangeList(const ConfigChange& change, const std::string& id, bool publish) {
    int code = change.CheckChangeable();
    if (code != kSuccess) {
        return code;
    }
    Json::Value config = change.Found().document;
    Json::Value& list = config["service"];
    if (!list.isNull() && !list.isArray()) {
        return Fail(kUnusable, paths::ConfigFile() + ": \"service\": expected a list",
                    "correct the file first");
    }
    const Json::Value rest = Without(id, list);
    if ((rest.size() < list.size()) == publish) {
        std::cout << Clean(id) << (publish ? " is published already" : " is not published")
                  << std::endl;
        return kSuccess;
    }
    if (publish) {
        list.append(Json::Value())["id"] = id;
    } else {
        list = rest;
    }
    code = change.Write(config);
    return code != kSuccess ? code
                            : Apply(Clean(id) + (publish ? " is published" : " is withdrawn"));
}

} // namespace

int ListServices(bool json) {
    Json::Value config;
    const int code = ReadConfig(config);
    if (code != kSuccess) {
        return code;
    }
    Entries entries = ReadDefinitions();
    AddPublished(config, entries);
    const Json::Value document = Describe(entries);
    std::cout << (json ? json::Pretty(document) : Render(document));
    return kSuccess;
}

int AddService(const std::string& id) {
    const ConfigChange change;
    const int code = change.CheckReadable();
    if (code != kSuccess) {
        return code;
    }
    const Entries published = ReadPublished(change);
    const auto own = published.find(id);
    const bool hasPort = own != published.end() && IsPort(own->second.conf.port);
    if (!hasPort && (!IsServiceId(id) || !IsPort(ServiceConf(id.c_str()).port))) {
        return Fail(kNoAnswer, "no service \"" + Clean(id) + "\" with one port is defined",
                    Expected());
    }
    return ChangeList(change, id, true);
}

int RemoveService(const std::string& id) {
    const ConfigChange change;
    const int code = change.CheckReadable();
    if (code != kSuccess) {
        return code;
    }
    const bool defined = IsServiceId(id) && ServiceConf("").ReadConf(id);
    if (!defined && ReadPublished(change).count(id) == 0) {
        return Fail(kNoAnswer, "no service \"" + Clean(id) + "\" is defined or published",
                    "see: zarorelayctl service list");
    }
    return ChangeList(change, id, false);
}

} // namespace ZARO::Relay::ctl
