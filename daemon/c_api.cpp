#include <zarorelayd/zarorelayd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"

using ZARO::Relay::AuthConf;
using ZARO::Relay::Daemon;
using ZARO::Relay::RelaydConf;
namespace json = ZARO::json;
namespace paths = ZARO::paths;

namespace {

/// Runs the body of a C entry point and lets no exception out. errno becomes ENOMEM when memory ran
/// out; otherwise it stays as it was.
template <typename Body> int Guarded(int onException, Body body) noexcept {
    int error = errno;
    int result = onException;
    try {
        Daemon::LibInit();
        result = body();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    } catch (...) {
    }
    errno = error;
    return result;
}

bool ReadConfig(Json::Value& config) {
    return RelaydConf::ReadJsonFile(paths::ConfigFile(), config) && config.isObject();
}

/// Writes the configuration and makes a running daemon reload. It is no failure if none runs.
int WriteConfigAndReload(const Json::Value& config) {
    if (!RelaydConf::WriteJsonFile(paths::ConfigFile(), config)) {
        return -1;
    }
    (void)Daemon::Hup();
    return 0;
}

/// A malformed entry counts as one with the empty id, which an empty `serviceId` then matches.
bool HasService(const Json::Value& config, const char* serviceId) {
    const Json::Value* services = json::Find(config, "service");
    if (services == nullptr || !services->isArray()) {
        return false;
    }
    for (const Json::Value& service : *services) {
        std::string id;
        (void)json::Get(service, "id", id);
        if (id == serviceId) {
            return true;
        }
    }
    return false;
}

/// The id of the device with this MAC address, without separators.
std::string ComputeServerId(const std::string& mac) {
    const long bits = strtol(mac.substr(6).c_str(), nullptr, 16) & 0xffffff;
    return ZARO::ServerIdOf(static_cast<std::uint32_t>(bits));
}

int GetServerId(const char* serviceId, char* buffer, size_t size) {
    const bool wanted = buffer != nullptr && size != 0;
    if (wanted) {
        buffer[0] = '\0';
    }
    Json::Value config;
    if (!ReadConfig(config)) {
        return -1;
    }
    std::string id;
    (void)json::Get(config, "serverID", id);
    if (id.empty()) {
        return 0;
    }
    if (wanted) {
        (void)snprintf(buffer, size, "%s", id.c_str()); // cut on purpose when it is too long
    }
    return serviceId == nullptr || HasService(config, serviceId) ? 1 : 0;
}

int VerifyServerId(const char* serverId) {
    std::string id;
    if (serverId != nullptr) {
        id = serverId;
    } else {
        Json::Value config;
        if (!ReadConfig(config)) {
            return 0;
        }
        (void)json::Get(config, "serverID", id);
    }
    if (id.empty()) {
        return 1; // no need to ask the hardware
    }
    const std::string mac = AuthConf::RelaydGetMacAddressByIf("eth0");
    return !mac.empty() && ComputeServerId(mac) == id.c_str() ? 1 : 0; // up to its first zero byte
}

int LogStart(const char* logFile) {
    Json::Value config;
    if (logFile == nullptr || !ReadConfig(config)) {
        return -1;
    }
    config["log_level"] = 7;
    config["log_file"] = logFile;
    return WriteConfigAndReload(config);
}

int LogStop() {
    Json::Value config;
    if (!ReadConfig(config)) {
        return -1;
    }
    config.removeMember("log_level");
    config.removeMember("log_file");
    return WriteConfigAndReload(config);
}

} // namespace

extern "C" {

int TLIBRelaydGetServerId(const char* serviceId, char* buffer, size_t size) noexcept {
    return Guarded(-1, [=] { return GetServerId(serviceId, buffer, size); });
}

int TLIBRelaydVerifyServerId(const char* serverId) noexcept {
    return Guarded(0, [=] { return VerifyServerId(serverId); });
}

int TLIBRelaydLogStart(const char* logFile) noexcept {
    return Guarded(-1, [=] { return LogStart(logFile); });
}

int TLIBRelaydLogStop(void) noexcept {
    return Guarded(-1, [] { return LogStop(); });
}

} // extern "C"
