#include "app/ctl/services.h"

#include <filesystem>
#include <iostream>
#include <map>
#include <vector>

#include <zarorelayd/config.h>

#include "app/common/checks.h"
#include "app/common/local_service.h"
#include "app/ctl/config_change.h"
#include "app/ctl/control.h"
#include "app/ctl/report.h"
#include "app/ctl/text.h"
#include "base/json.h"
#include "base/paths.h"

namespace ZARO::Relay::ctl {

namespace {

using app::IsPort;

struct Entry {
    explicit Entry(const ServiceConf& service) : conf(service) {}

    ServiceConf conf;
    bool published = false;
};

using Entries = std::map<std::string, Entry>;

/// Some definitions are published under an id that is not their name.
std::string IdOfDefinition(const std::string& name) {
    static constexpr const char* kOthers[][2] = {{"http", "gallery_http"},
                                                 {"https", "gallery_https"},
                                                 {"panel", "music_http"},
                                                 {"panel_https", "music_https"}};
    for (const auto& [definition, id] : kOthers) {
        if (name == definition) {
            return id;
        }
    }
    return name;
}

/// Everything that the device defines.
Entries ReadDefinitions() {
    Entries entries;
    std::error_code fault;
    for (std::filesystem::directory_iterator file(paths::ServicesDir(), fault), end;
         !fault && file != end; file.increment(fault)) {
        const std::string id = IdOfDefinition(file->path().stem().string());
        if (file->path().extension() == ".conf" && app::IsServiceId(id)) {
            entries.emplace(id, ServiceConf(id.c_str()));
        }
    }
    return entries;
}

/// Adds what the configuration publishes, whose own settings win over a definition's. False, with
/// the fault told and its code, for a broken file.
bool ReadPublished(Entries& entries, int& code) {
    Json::Value config;
    std::string fault;
    if (!LookAtConfig(config, fault)) {
        code = Fail(kUnusable, fault, "correct the file");
        return false;
    }
    const Json::Value* list = json::Find(config, "service");
    if (list == nullptr || !list->isArray()) {
        return true;
    }
    for (const Json::Value& item : *list) {
        const std::string id = json::TextOf(item, "id");
        if (!id.empty()) {
            Entry entry(ServiceConf(item, app::IsServiceId(id)));
            entry.published = true;
            entries.insert_or_assign(id, entry);
        }
    }
    return true;
}

/// What a wrong id could have been.
std::string Expected() {
    std::string ids;
    for (const auto& [id, entry] : ReadDefinitions()) {
        if (IsPort(entry.conf.port)) {
            ids += (ids.empty() ? "expected one of: " : ", ") + id;
        }
    }
    return ids.empty() ? "define one in " + paths::ServicesDir() : ids;
}

const char* LocalText(int port) {
    switch (IsPort(port) ? app::ProbeLocalPort(port) : app::Reachable::Unknown) {
    case app::Reachable::Yes:
        return "reachable";
    case app::Reachable::Refuses:
        return "refused";
    case app::Reachable::Unknown:
        break;
    }
    return "unknown";
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
        item["local"] = LocalText(app::LocalPort(entry.conf));
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

/// The list without the entries of that id; empty for what is no list.
Json::Value Without(const std::string& id, const Json::Value& list) {
    Json::Value rest(Json::arrayValue);
    for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
        if (json::TextOf(list[i], "id") != id) {
            rest.append(list[i]);
        }
    }
    return rest;
}

/// Changes the list of the file and nothing else of it. Success, without a write, when it is as
/// wanted already.
int ChangeList(const std::string& id, bool publish) {
    ConfigChange change;
    int code = change.Begin();
    if (code != kSuccess) {
        return code;
    }
    Json::Value config = change.Read();
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
    Entries entries = ReadDefinitions();
    int code = kSuccess;
    if (!ReadPublished(entries, code)) {
        return code;
    }
    const Json::Value document = Describe(entries);
    std::cout << (json ? json::Pretty(document) : Render(document));
    return kSuccess;
}

int AddService(const std::string& id) {
    Entries published;
    int code = kSuccess;
    if (!ReadPublished(published, code)) {
        return code;
    }
    const auto own = published.find(id);
    const bool hasPort = own != published.end() && IsPort(own->second.conf.port);
    if (!hasPort && (!app::IsServiceId(id) || !IsPort(ServiceConf(id.c_str()).port))) {
        return Fail(kNoAnswer, "no service \"" + Clean(id) + "\" with one port is defined",
                    Expected());
    }
    return ChangeList(id, true);
}

int RemoveService(const std::string& id) {
    Entries published;
    int code = kSuccess;
    if (!ReadPublished(published, code)) {
        return code;
    }
    const bool defined = app::IsServiceId(id) && ServiceConf("").ReadConf(id);
    if (!defined && published.count(id) == 0) {
        return Fail(kNoAnswer, "no service \"" + Clean(id) + "\" is defined or published",
                    "see: zarorelayctl service list");
    }
    return ChangeList(id, false);
}

} // namespace ZARO::Relay::ctl
