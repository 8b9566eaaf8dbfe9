#include "app/ctl/device_state.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "app/common/clock.h"
#include "app/common/config_check.h"
#include "app/common/config_lock.h"
#include "app/ctl/control.h"
#include "app/ctl/launch.h"
#include "app/ctl/report.h"
#include "app/ctl/ssh_port.h"
#include "base/json.h"
#include "base/own_lock.h"
#include "base/paths.h"
#include "base/replace_file.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr app::seconds kLockPatience{5};
constexpr app::seconds kManagerPatience{5};
constexpr int kPauseMs = 100;
constexpr const char* kSwitch = "runrelayd";

/// The file that a name leads to; the name itself when there is none.
std::string TargetOf(const std::string& path) {
    const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
    return real ? real.get() : path;
}

std::string InfoFile() {
    return TargetOf(paths::InfoFile());
}

int TellNotPutBack(const std::string& file) {
    return Fail(kNoAnswer, file + " can't be put back: " + strerror(errno),
                RootOr("see whether the disk is full or read-only, then: zarorelayctl leave"));
}

int TellLocked(const std::string& file) {
    return Fail(kLocked, file + " is held by another program",
                "when that has ended: zarorelayctl leave");
}

/// Starts a daemon that was stopped here, unless a service manager does that within 5 s. Beside one
/// that is not under it, the manager's own daemon would fail again and again.
void StartAgain() {
    const auto deadline = app::Clock::now() + kManagerPatience;
    while (FindDaemon() != Presence::Running && app::Clock::now() < deadline) {
        (void)poll(nullptr, 0, kPauseMs);
    }
    if (FindDaemon() != Presence::Running) {
        (void)LaunchDaemon(); // it ran with these files before
    }
}

void CopyMember(const Json::Value& from, Json::Value& to, const char* key) {
    const Json::Value* member = json::Find(from, key);
    if (member != nullptr) {
        json::Object(to)[key] = *member;
    } else if (to.isObject()) {
        to.removeMember(key);
    }
}

/// The configuration with the parts of a join taken from `before`. The server id counts as one: the
/// daemon writes what the hub gives it.
Json::Value WithPartsOf(const Json::Value& before, Json::Value config) {
    CopyMember(before, config, "server_control");
    CopyMember(before, config, "serverID");
    const Json::Value* former = json::Find(before, "server_alias");
    Json::Value alias = config["server_alias"];
    CopyMember(former != nullptr ? *former : Json::Value(), alias, "url");
    if (former != nullptr && !former->isObject()) {
        config["server_alias"] = *former;
    } else if (alias.isNull() || (former == nullptr && alias.empty())) {
        config.removeMember("server_alias");
    } else {
        config["server_alias"] = alias;
    }
    return config;
}

/// A settings file without the lines that set the switch.
std::string WithoutSwitch(const std::string& text) {
    std::string rest;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        const std::size_t key = line.find_first_not_of(" \t");
        if (key == std::string::npos ||
            line.substr(key, line.find_first_of(" \t=", key) - key) != kSwitch) {
            rest += line + "\n";
        }
        begin = end + 1;
    }
    return rest;
}

} // namespace

std::string SshConfigFile() {
    return TargetOf(paths::SshDir() + "/config");
}

int CheckMayChange() {
    const std::string ssh = FolderOf(SshConfigFile());
    const bool hasSsh = access(ssh.c_str(), F_OK) == 0;
    for (const std::string& folder : {FolderOf(paths::ConfigFile()), FolderOf(InfoFile()),
                                      hasSsh ? ssh : FolderOf(paths::SshDir())}) {
        if (access(folder.c_str(), W_OK) != 0) {
            return Fail(kNoAnswer, folder + " can't be written to: " + strerror(errno),
                        RootOr("see whether it is there and can be written"));
        }
    }
    return FindDaemon() == Presence::NotPermitted ? TellAbsent(Presence::NotPermitted, kNoAnswer)
                                                  : kSuccess;
}

std::string LockOf(const std::string& file) {
    return FolderOf(file) + "." + file.substr(file.rfind('/') + 1) + ".lock";
}

bool WriteSshPort(int port) {
    const std::string path = SshConfigFile();
    KeptFile former;
    if ((mkdir(paths::SshDir().c_str(), S_IRWXU) != 0 && errno != EEXIST) || !former.Take(path)) {
        return false;
    }
    KeptFile changed = former;
    changed.text = WithPortLine(former.text, "Port " + std::to_string(port));
    if (!former.there) {
        changed.there = true;
        changed.mode = 0644;
        changed.owner = geteuid();
        changed.group = getegid();
    }
    return changed.PutBack(path);
}

int DeviceState::Take() {
    const struct {
        KeptFile& kept;
        std::string path;
    } files[] = {{config_, paths::ConfigFile()}, {info_, InfoFile()}, {ssh_, SshConfigFile()}};
    for (const auto& file : files) {
        if (!file.kept.Take(file.path)) {
            return Fail(kNoAnswer, file.path + " can't be read: " + strerror(errno),
                        RootOr("see what it is"));
        }
    }
    enabled_ = RelaydConf(nullptr).GetEnableConf();
    ran_ = FindDaemon() == Presence::Running;
    return kSuccess;
}

Json::Value DeviceState::Config() const {
    Json::Value config;
    (void)json::Parse(config_.text, config); // else it stays null
    return config.isObject() ? config : Json::Value(Json::objectValue);
}

int DeviceState::PutBackConfig() const {
    const std::string path = paths::ConfigFile();
    app::ConfigLock lock;
    if (!lock.Take(kLockPatience)) {
        return TellLocked(path);
    }
    Json::Value now;
    std::string fault;
    if (!app::ReadConfigFile(path, true, now, fault)) {
        return Fail(kUnusable, fault, "correct the file, then: zarorelayctl leave");
    }
    const Json::Value restored = WithPartsOf(Config(), json::Object(now));
    const bool good =
        restored == Config() ? config_.PutBack(path) : RelaydConf::WriteJsonFile(path, restored);
    return good ? kSuccess : TellNotPutBack(path);
}

int DeviceState::PutBackSwitch() const {
    const std::string path = InfoFile();
    OwnLock lock(LockOf(path));
    KeptFile now;
    if (!lock.Take(kLockPatience)) {
        return TellLocked(path);
    }
    if (now.Take(path) && WithoutSwitch(now.text) == WithoutSwitch(info_.text)) {
        return info_.PutBack(path) ? kSuccess : TellNotPutBack(path);
    }
    lock = OwnLock(LockOf(path)); // the platform takes it for itself
    return RelaydConf(nullptr).SetEnableConf(enabled_) ? kSuccess : TellNotPutBack(path);
}

int DeviceState::PutBackSshPort() const {
    const std::string path = SshConfigFile();
    KeptFile now;
    if (!now.Take(path)) {
        return TellNotPutBack(path);
    }
    const auto without = [](const KeptFile& file) { return WithPortLine(file.text, std::nullopt); };
    KeptFile restored = ssh_;
    if (without(now) != without(ssh_)) {
        restored = now;
        restored.text = WithPortLine(now.text, PortLine(ssh_.text));
    }
    return restored.PutBack(path) ? kSuccess : TellNotPutBack(path);
}

int DeviceState::PutBackFiles() const {
    int code = kSuccess;
    for (const auto part :
         {&DeviceState::PutBackConfig, &DeviceState::PutBackSwitch, &DeviceState::PutBackSshPort}) {
        const int result = (this->*part)();
        code = code == kSuccess ? result : code;
    }
    return code;
}

int DeviceState::PutBack() const {
    // A daemon that ran without a file would keep its settings when the file goes.
    const bool runs = FindDaemon() == Presence::Running;
    const bool stops = runs && (!ran_ || !config_.there);
    if (stops) {
        (void)Daemon::Kill(); // if it stays, it finds the former files all the same
    }
    const int code = PutBackFiles();
    if (runs && !stops) {
        (void)Daemon::Hup(); // it has just been there
    } else if (ran_) {
        StartAgain();
    }
    return code;
}

Json::Value DeviceState::Write() const {
    Json::Value value;
    value["config"] = config_.Write();
    value["settings"] = info_.Write();
    value["ssh"] = ssh_.Write();
    value["enabled"] = enabled_;
    value["ran"] = ran_;
    return value;
}

bool DeviceState::Read(const Json::Value& value) {
    const auto file = [&](const char* key, KeptFile& kept) {
        const Json::Value* found = json::Find(value, key);
        return found != nullptr && kept.Read(*found);
    };
    const auto flag = [&](const char* key, bool& out) {
        const Json::Value* found = json::Find(value, key);
        const bool good = found != nullptr && found->isBool();
        out = good && found->asBool();
        return good;
    };
    return file("config", config_) && file("settings", info_) && file("ssh", ssh_) &&
           flag("enabled", enabled_) && flag("ran", ran_);
}

} // namespace ZARO::Relay::ctl
