#include "app/daemon/settings.h"

#include "base/paths.h"

namespace ZARO::Relay::app {

namespace {

bool HaveSameSettings(const AliasConf& one, const AliasConf& other) {
    Json::Value settings;
    Json::Value others;
    (void)one.Write(settings, AliasConf::kEverySetting); // both always succeed
    (void)other.Write(others, AliasConf::kEverySetting);
    return settings == others;
}

} // namespace

RelaydConf SettingsFrom(const Json::Value& document) {
    // For an empty name the library looks at no file and logs that there is none.
    RelaydConf conf(document.isNull() ? "" : nullptr);
    (void)conf.Overwrite(document); // changes nothing if there is none
    conf.path = paths::ConfigFile();
    return conf;
}

RelaydConf SettingsAfter(const RelaydConf& current, const Json::Value& document) {
    RelaydConf fresh = SettingsFrom(document);
    fresh.auth = current.auth;
    fresh.network = current.network;
    fresh.debug = current.debug;
    if (fresh.control == current.control) {
        fresh.waitcmd = current.waitcmd;
    }
    if (current.alias.IsChanged() || !HaveSameSettings(current.alias, fresh.alias)) {
        fresh.alias.MarkChanged();
    }
    return fresh;
}

} // namespace ZARO::Relay::app
