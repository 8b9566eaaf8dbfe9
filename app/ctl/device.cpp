#include "app/ctl/device.h"

#include "app/ctl/control.h"
#include "app/ctl/report.h"
#include "base/json.h"
#include "base/paths.h"

namespace ZARO::Relay::ctl {

namespace {

/// The wait-command server is named by the file or, to a running daemon, by the control server.
ServerConf FindWaitServer(const Device& device) {
    Json::Value dump;
    if (FindDaemon() == Presence::Running && FetchDump(dump) == kSuccess) {
        const Json::Value* config = json::Find(dump, "config");
        const Json::Value* server =
            config != nullptr ? json::Find(*config, "server_waitcmd") : nullptr;
        if (server != nullptr && device.status.document["state"] == "connected") {
            return ServerConf(*server);
        }
    }
    const bool named = json::Find(device.config.document, "server_waitcmd") != nullptr;
    return named ? device.config.conf.waitcmd : ServerConf(nullptr, nullptr);
}

} // namespace

Device ReadDevice() {
    Device device;
    device.config = app::CheckConfigFile(paths::ConfigFile(), true);
    device.status = ReadStatus("");
    device.waitServer = FindWaitServer(device);
    return device;
}

} // namespace ZARO::Relay::ctl
