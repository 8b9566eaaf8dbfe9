#include "app/ctl/service_list.h"

#include <filesystem>

#include "app/ctl/report.h"
#include "base/folder.h"
#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/service_names.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

ServiceEntries ReadDefinitions() {
    ServiceEntries entries;
    (void)ForEachEntry(paths::ServicesDir(), [&](const std::filesystem::path& file) {
        const std::string id = services::IdOf(file.stem());
        if (file.extension() == ".conf" && IsServiceId(id)) {
            entries.insert({id, {ServiceConf(id.c_str())}});
        }
    });
    return entries;
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

} // namespace

ServiceEntries ReadPublished(const Json::Value& config) {
    ServiceEntries entries;
    const Json::Value* list = json::Find(config, "service");
    for (Json::ArrayIndex i = 0; list != nullptr && list->isArray() && i < list->size(); ++i) {
        const Json::Value& item = (*list)[i];
        const std::string id = json::TextOf(item, "id");
        if (!id.empty()) {
            entries.insert_or_assign(id, ServiceEntry{ServiceConf(item, IsServiceId(id)), true});
        }
    }
    return entries;
}

ServiceEntries ReadServices(const Json::Value& config) {
    ServiceEntries entries = ReadPublished(config);
    entries.merge(ReadDefinitions());
    return entries;
}

std::string ServiceWithPort(const ServiceEntries& entries, int port) {
    std::string found;
    for (const auto& [id, entry] : entries) {
        if (entry.conf.port == port && entry.published) {
            return id;
        }
        if (entry.conf.port == port && found.empty()) {
            found = id;
        }
    }
    return found;
}

int ChangeServiceList(const ConfigChange& change, const std::string& id, bool publish,
                      bool& changed) {
    const int code = change.CheckChangeable();
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
    changed = (rest.size() < list.size()) != publish;
    if (!changed) {
        return kSuccess;
    }
    if (publish) {
        list.append(Json::Value())["id"] = id;
    } else {
        list = rest;
    }
    return change.Write(config);
}

int TellNoService(const std::string& id) {
    std::string ids;
    for (const auto& [known, entry] : ReadDefinitions()) {
        if (IsPort(entry.conf.port)) {
            ids += (ids.empty() ? "expected one of: " : ", ") + known;
        }
    }
    return Fail(kNoAnswer, "no service \"" + Clean(id) + "\" with one port is defined",
                ids.empty() ? "define one in " + paths::ServicesDir() : ids);
}

} // namespace ZARO::Relay::ctl
