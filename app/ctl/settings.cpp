#include "app/ctl/settings.h"

#include <filesystem>
#include <functional>
#include <iostream>
#include <system_error>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>
#include <zarorelayd/zarorelayd.h>

#include "app/common/strangers_file.h"
#include "app/ctl/config_change.h"
#include "app/ctl/control.h"
#include "app/ctl/report.h"
#include "base/json.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/terminal.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr std::size_t kLongestId = 63; // columns

/// While it exists, drops what the library writes to standard error. That no daemon runs is no
/// fault here, or is reported in our own words.
class Silence {
public:
    Silence() : buffer_(std::cerr.rdbuf(nullptr)) {}
    ~Silence() { std::cerr.rdbuf(buffer_); }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    std::streambuf* buffer_;
};

/// Has the library change the log settings, which also makes a running daemon reload.
int SwitchLog(const std::function<int()>& change, const std::string& logFile,
              const std::string& done) {
    const Presence presence = FindDaemon();
    if (presence == Presence::Foreign) {
        return Fail(kNoAnswer,
                    "the process in " + std::string(Daemon::GetPidFile()) + " is not this daemon",
                    "start the daemon first, or remove that file");
    }
    ConfigChange file;
    const int code = file.CheckChangeable();
    if (code != kSuccess) {
        return code;
    }
    if (file.Found().document.empty()) {
        // The library can change a file, but does not make one.
        const int written = file.Write(Json::Value(Json::objectValue));
        if (written != kSuccess) {
            return written;
        }
    }
    {
        const Silence silence;
        if (change() != 0 || json::TextOf(file.ReadBack(), "log_file") != logFile) {
            return TellNotWritten();
        }
    }
    if (presence == Presence::NotPermitted) {
        return Apply(done); // prints what is left to do
    }
    std::cout << done
              << (presence == Presence::Running ? "" : "; this holds when the daemon starts")
              << std::endl;
    return kSuccess;
}

} // namespace

int ShowAlias(bool json) {
    Json::Value config;
    const int code = ReadConfig(config);
    if (code != kSuccess) {
        return code;
    }
    const Json::Value* settings = json::Find(config, "server_alias");
    const std::string name = settings != nullptr ? json::TextOf(*settings, "alias") : "";
    std::string status;
    std::string extra;
    if (!name.empty()) {
        (void)AliasStatus().GetStatus(name, status, extra); // else they stay empty
    }
    if (json) {
        Json::Value document;
        document["name"] = name;
        document["status"] = status;
        document["extra"] = extra;
        std::cout << json::Pretty(document);
    } else if (name.empty()) {
        std::cout << "no alias" << std::endl;
    } else {
        const std::string word = status.empty() ? "not known yet" : Clean(status);
        std::cout << Clean(name) << ": " << word << (extra.empty() ? "" : ", " + Clean(extra))
                  << std::endl;
    }
    return kSuccess;
}

int SetAlias(const std::string& name) {
    if (!name.empty() && !IsPlainAliasName(name)) {
        return Fail(kNoAnswer, "\"" + Clean(name) + "\" can't be an alias",
                    "expected 1 to 63 of a-z, 0-9 and \"-\"");
    }
    ConfigChange change;
    const int code = change.CheckChangeable();
    if (code != kSuccess) {
        return code;
    }
    RelaydConf conf = change.Found().conf;
    if (!conf.WriteAliasName(paths::ConfigFile(), name) ||
        json::TextOf(change.ReadBack()["server_alias"], "alias") != name) {
        return TellNotWritten();
    }
    return Apply(name.empty() ? "the alias is given up" : "the alias is " + name);
}

int StartLog(const std::string& file) {
    std::error_code fault;
    const std::filesystem::path path = std::filesystem::absolute(file, fault);
    if (file.empty() || fault || !std::filesystem::is_directory(path.parent_path(), fault) ||
        std::filesystem::is_directory(path, fault)) {
        return Fail(kNoAnswer, "\"" + Clean(file) + "\" can't be a log file",
                    "expected a file in an existing folder");
    }
    if (app::IsStrangersFile(path)) {
        return Fail(kNoAnswer, "\"" + Clean(file) + "\" is a link or another user's file",
                    "expected a new file or one of your own");
    }
    return SwitchLog([&] { return TLIBRelaydLogStart(path.c_str()); }, path.string(),
                     "debug log goes to " + Clean(path.string(), 300));
}

int StopLog() {
    return SwitchLog(TLIBRelaydLogStop, "", "debug log is off");
}

int ShowServerId() {
    Json::Value config;
    const int code = ReadConfig(config);
    if (code != kSuccess) {
        return code;
    }
    const std::string id = json::TextOf(config, "serverID").c_str(); // up to a zero byte
    if (id.empty()) {
        return Fail(kNotRunning, "this device has no server id yet",
                    "it gets one when the daemon registers; see: zarorelayctl status");
    }
    std::cout << Clean(id, kLongestId) << std::endl;
    return kSuccess;
}

int VerifyServerId(const std::string& id) {
    const bool valid = TLIBRelaydVerifyServerId(id.c_str()) == 1;
    std::cout << (valid ? "valid" : "not this device's") << std::endl;
    return valid ? kSuccess : kNotRunning;
}

} // namespace ZARO::Relay::ctl
