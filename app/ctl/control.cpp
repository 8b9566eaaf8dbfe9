#include "app/ctl/control.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "app/common/clock.h"
#include "app/common/config_check.h"
#include "app/common/pid_file.h"
#include "app/ctl/report.h"
#include "base/json.h"
#include "base/paths.h"

namespace ZARO::Relay::ctl {

namespace {

using app::Clock;
using app::milliseconds;

/// The daemon may be busy with something else; this is how long to retry for a dump.
constexpr milliseconds kDumpPatience{2000};
constexpr int kDumpPause = 20; // milliseconds

} // namespace

std::string DaemonProgram() {
    const std::string own = app::ProgramPathOf("self");
    std::string beside = own.substr(0, own.rfind('/') + 1) + app::kDaemonName;
    if (!own.empty() && access(beside.c_str(), X_OK) == 0) {
        return beside;
    }
    return paths::ProgramDir() + "/" + app::kDaemonName;
}

Presence FindDaemon() {
    const pid_t pid = app::ReadPidFile();
    if (pid <= 0) {
        return Presence::None;
    }
    const bool permitted = kill(pid, 0) == 0;
    if (!permitted && errno != EPERM) {
        return Presence::None;
    }
    const bool known = permitted || !app::ProgramOf(std::to_string(pid)).empty();
    if (known && !app::IsDaemonOfThisRoot(pid)) {
        return Presence::Foreign;
    }
    return permitted ? Presence::Running : Presence::NotPermitted;
}

int TellAbsent(Presence presence, int code) {
    if (presence == Presence::NotPermitted) {
        return Fail(kNoAnswer, "the daemon belongs to another user", "run this as root");
    }
    return Fail(code, "the daemon is not running", "start it with: zarorelayctl start");
}

int Start() {
    // The daemon replaces this process, so that its exit code becomes this program's.
    const std::string program = DaemonProgram();
    std::string name = app::kDaemonName;
    std::string option = "--root";
    std::string root = paths::Root();
    char* arguments[] = {name.data(), root.empty() ? nullptr : option.data(), root.data(), nullptr};
    std::cout << std::flush;
    execv(program.c_str(), arguments);
    return Fail(kNoAnswer, program + " can't be started: " + strerror(errno),
                "install zarorelayd there");
}

int Stop() {
    const Presence presence = FindDaemon();
    if (presence != Presence::Running) {
        return TellAbsent(presence, kNoAnswer);
    }
    if (Daemon::Kill() != 0 && FindDaemon() != Presence::None) { // else it had ended by itself
        return Fail(kNoAnswer, "the daemon did not end within 10 s",
                    "look at its log, or end the process in " + std::string(Daemon::GetPidFile()));
    }
    return 0;
}

int Restart() {
    const Presence presence = FindDaemon();
    if (presence == Presence::Running || presence == Presence::NotPermitted) {
        const int code = Stop();
        if (code != 0) {
            return code;
        }
    }
    return Start();
}

int Reload() {
    const Presence presence = FindDaemon();
    if (presence != Presence::Running) {
        return TellAbsent(presence, kNoAnswer);
    }
    const int code = Daemon::Hup();
    const app::CheckedConfig checked = app::CheckReload(paths::ConfigFile(), true);
    return checked.unusable
               ? Fail(kUnusable, checked.faults.front(), "the daemon keeps what it has")
               : code;
}

int FetchDump(Json::Value& dump) {
    const auto deadline = Clock::now() + kDumpPatience;
    int code = Daemon::DebugStatus(dump);
    while (code == kLocked && Clock::now() < deadline) {
        (void)poll(nullptr, 0, kDumpPause);
        code = Daemon::DebugStatus(dump);
    }
    return code;
}

int Debug() {
    const Presence presence = FindDaemon();
    if (presence != Presence::Running) {
        return TellAbsent(presence, kNotRunning);
    }
    Json::Value dump;
    const int code = FetchDump(dump);
    switch (code) {
    case kSuccess:
        std::cout << json::Pretty(dump);
        return 0;
    case kNotRunning:
        return TellAbsent(Presence::None, code);
    case kLocked:
        return Fail(code, "the daemon is busy, or somebody else asks",
                    "try again in a moment, as the daemon's own user");
    default:
        return Fail(code, "the dump file was taken away",
                    "see who else writes to " + paths::Root() + "/tmp");
    }
}

int Switch(bool on) {
    if (!RelaydConf(nullptr).SetEnableConf(on)) {
        return Fail(kNoAnswer, paths::InfoFile() + " can't be changed",
                    RootOr("see whether it is there and can be written"));
    }
    return Apply(on ? "switched on" : "switched off");
}

int Apply(const std::string& done) {
    const Presence presence = FindDaemon();
    if (presence == Presence::NotPermitted) {
        return Fail(kNoAnswer, done + ", but the daemon belongs to another user",
                    "run as root: zarorelayctl reload");
    }
    if (presence == Presence::Running) {
        std::cout << done << std::endl;
        return Daemon::Hup();
    }
    std::cout << done << "; this holds when the daemon starts" << std::endl;
    return 0;
}

} // namespace ZARO::Relay::ctl
