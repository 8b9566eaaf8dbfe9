// zarorelayd: keeps the services of this device reachable from the internet.
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include <libdaemon/dfork.h>
#include <libdaemon/dpid.h>
#include <libdaemon/dsignal.h>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "app/common/config_check.h"
#include "app/common/pid_file.h"
#include "app/daemon/child_watch.h"
#include "app/daemon/instance.h"
#include "app/daemon/log_target.h"
#include "app/daemon/login_guard.h"
#include "app/daemon/options.h"
#include "app/daemon/privileges.h"
#include "app/daemon/relay_daemon.h"
#include "app/daemon/settings.h"
#include "base/log.h"
#include "base/own_lock.h"
#include "base/paths.h"
#include "base/standard_descriptors.h"

namespace {

using ZARO::Relay::Daemon;
using ZARO::Relay::RelaydConf;
namespace app = ZARO::Relay::app;
namespace log = ZARO::log;
namespace paths = ZARO::paths;

constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr const char* kName = app::kDaemonName;

int TellConfigFaults(const std::string& file) {
    const std::string path = file.empty() ? paths::ConfigFile() : file;
    const auto faults = app::CheckConfigFile(path, false).faults;
    for (const std::string& fault : faults) {
        std::cerr << kName << ": " << fault << std::endl;
    }
    if (faults.empty()) {
        std::cout << path << ": good" << std::endl;
    }
    return faults.empty() ? 0 : kUsage;
}

/// Sets up the process: what the kernel shall do for it, and what it must not leave behind.
void PrepareProcess() {
    const rlimit noCore = {0, 0};
    (void)setrlimit(RLIMIT_CORE, &noCore);  // memory holds tokens and passwords
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1); // ended background ssh processes become our children
    (void)signal(SIGPIPE, SIG_IGN);         // the failed write is enough
    umask(077);
    const char* path = getenv("PATH");
    const std::string others = path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin";
    (void)setenv("PATH", (paths::ProgramDir() + ":" + others).c_str(), 1);
}

/// Reports to the command that waits in the foreground, if there is one, how the start went.
void TellStarter(int code) {
    (void)daemon_retval_send(code);
}

/// The daemon's whole life, after the fork.
int Serve(const RelaydConf& conf) {
    if (!Daemon::Init(false)) {
        TellStarter(kFailure); // unless Init has reported a more exact code
        return kFailure;
    }
    app::ApplyLogSettings(conf); // appends in the background, since a rotation may cut the file
    PrepareProcess();
    app::DropPrivileges();
    app::EndLoginsOnStopSignals();
    app::EndStrays([](const std::string&) { return true; });
    gblRun = 1;
    bool good = false;
    {
        app::RelayDaemon daemon(conf);
        TellStarter(0); // only now can the status be read
        good = daemon.Run();
    }
    daemon_signal_done();
    (void)daemon_pid_file_remove(); // if it stays, the next start finds it stale
    return good ? 0 : kFailure;
}

int RunDaemon(bool foreground) {
    (void)daemon_close_all(-1); // inherited ones would stay open for years
    const app::CheckedConfig checked = app::CheckConfigFile(paths::ConfigFile(), true);
    if (checked.unusable) {
        std::cerr << kName << ": " << checked.faults.front() << std::endl;
        return kUsage;
    }
    Daemon::SetName(kName);
    ZARO::OwnLock instance(app::InstanceLockFile());
    if (!app::BecomeTheOnlyOne(instance)) {
        return kFailure;
    }
    const RelaydConf conf = app::SettingsFrom(checked.document);
    // As the fork will do: else a relative log file would mean one before it and another after.
    if (!foreground && chdir("/") != 0) {
        std::cerr << kName << ": /: " << strerror(errno) << std::endl;
        return kFailure;
    }
    // In the background the fork opens the log file. In the foreground the user still has to see
    // why the daemon does not start.
    Daemon::SetLogFile(foreground ? "" : app::UsableLogFile(conf), conf.log_level);
    for (const std::string& fault : checked.faults) {
        RELAY_LOG(log::Warning, "%s", fault.c_str());
    }
    // Not in Init, which would report success too early.
    return foreground || Daemon::Fork() ? Serve(conf) : kFailure;
}

} // namespace

int main(int argc, char** argv) {
    ZARO::FillStandardDescriptors();
    try {
        app::Options options;
        const int code = app::ReadOptions(argc, argv, options);
        if (code >= 0) {
            return code;
        }
        // Also one from the environment: a relative root counts from the folder of the start.
        const std::string root = options.root.empty() ? paths::Root() : options.root;
        if (!root.empty() && !paths::SetRoot(root)) {
            std::cerr << kName << ": --root: expected an existing folder" << std::endl;
            return kUsage;
        }
        return options.check ? TellConfigFaults(options.checkFile) : RunDaemon(options.foreground);
    } catch (const std::exception& fault) {
        RELAY_LOG(log::Error, "out of resources: %s", fault.what());
        TellStarter(kFailure);
        return kFailure;
    }
}
