/// Every fixed path of the system, named once. All but one lie below one root directory, which is
/// empty on an appliance; a device that lives in a directory has its own.
///
/// The root is kept in the environment variable ZARO_ROOT, so that the library, whichever platform
/// is linked to it, and the programs that they start (the SSH client, the notifier) agree on it.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace ZARO::paths {

/// The root without a trailing slash; empty on an appliance.
inline std::string Root() {
    const char* root = secure_getenv("ZARO_ROOT");
    return root != nullptr ? root : "";
}

/// Makes `dir` the root of this process and of the programs it starts. False, with nothing
/// changed, when `dir` is not an existing folder. "/" is the appliance's own, empty root.
inline bool SetRoot(const std::string& dir) {
    char* real = realpath(dir.c_str(), nullptr);
    if (real == nullptr) {
        return false;
    }
    const std::string root = real;
    free(real);
    struct stat info = {};
    return stat(root.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
           setenv("ZARO_ROOT", root == "/" ? "" : root.c_str(), 1) == 0;
}

inline std::string Below(const char* path) {
    return Root() + path;
}

// clang-format off
// The library's files.
inline std::string ConfigFile() { return Below("/usr/zaro/etc/zarorelayd.conf"); }
inline std::string JoinFile() { return Below("/usr/zaro/etc/zarorelayd.joined"); }
inline std::string InfoFile() { return Below("/etc/zaroinfo.conf"); }
inline std::string StatusFile() { return Below("/tmp/.zarorelayd.status"); }
inline std::string AliasStatusFile() { return Below("/tmp/farlink_alias.status"); }
inline std::string PidFile(const std::string& name) { return Below("/var/run/") + name + ".pid"; }
inline std::string ProgramDir() { return Below("/usr/zaro/bin"); }
inline std::string SshProgram() { return Below("/usr/zaro/bin/ssh"); }
inline std::string NotifyProgram() { return Below("/usr/zaro/bin/zarowosnotify"); }
inline std::string MacFile() { return Below("/proc/sys/kernel/zaro_mac_address1"); }
// clang-format on

/// Where the daemon with that process id writes its dump.
inline std::string DebugFile(pid_t daemon) {
    char path[1024];
    (void)snprintf(path, sizeof path, "%s/tmp/.zarorelayd.%d.debug", Root().c_str(), daemon);
    return path;
}

/// What every password file's path begins with; the daemon's process id and the service follow.
inline std::string PasswordFiles() {
    return Below("/tmp/.tunnel.");
}

/// Where the daemon with that process id keeps a tunnel's password during the log-in.
inline std::string PasswordFile(pid_t daemon, const std::string& service) {
    char path[1024];
    (void)snprintf(path, sizeof path, "%s%d.%s", PasswordFiles().c_str(), daemon, service.c_str());
    return path;
}

/// The stock SSH client, which the device's own runs. It belongs to the system, whatever the root.
constexpr const char* kStockSsh = "/usr/bin/ssh";

// clang-format off
// The stock-Linux platform's files.
inline std::string ServicesDir() { return Below("/usr/zaro/etc/services.d"); }
inline std::string PortForwardFile() { return Below("/usr/zaro/etc/portforward.conf"); }
inline std::string DdnsFile() { return Below("/usr/zaro/etc/ddns.conf"); }
inline std::string DeviceKeyFile() { return Below("/usr/zaro/etc/device.key"); }
inline std::string ClusterFile() { return Below("/usr/zaro/etc/ha.conf"); }
inline std::string SshDir() { return Below("/usr/zaro/etc/ssh"); }
inline std::string NetClassDir() { return Below("/sys/class/net"); }
inline std::string RouteFile() { return Below("/proc/net/route"); }
// clang-format on

} // namespace ZARO::paths
