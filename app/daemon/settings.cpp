#include "app/daemon/settings.h"

#include "base/paths.h"

namespace ZARO::Relay::app {

RelaydConf SettingsFrom(const Json::Value& document) {
    // For an empty name the library looks at no file and logs that there is none.
    RelaydConf conf(document.isNull() ? "" : nullptr);
    (void)conf.Overwrite(document); // changes nothing if there is none
    conf.path = paths::ConfigFile();
    return conf;
}

RelaydConf SettingsAfter(const RelaydConf& current, const Json::Value& document) {
    RelaydConf fresh = SettingsFrom(document);
    const ServerConf named = fresh.waitcmd;
    fresh.TakeOver(current);
    fresh.network = current.network;
    if (fresh.control != current.control) {
        fresh.waitcmd = named;
    }
    return fresh;
}

} // namespace ZARO::Relay::app
