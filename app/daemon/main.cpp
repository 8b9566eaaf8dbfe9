// zarorelayd: keeps the services of this device reachable from the internet.
#include <fcntl.h>
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
#include <vector>

#include <libdaemon/dfork.h>
#include <libdaemon/dpid.h>
#include <libdaemon/dsignal.h>

#include <zarorelayd/config.h>
#include <zarorelayd/daemon.h>

#include "base/own_lock.h"
#include "app/daemon/child_watch.h"
#include "app/common/config_check.h"
#include "app/daemon/log_target.h"
#include "app/daemon/login_guard.h"
#include "app/daemon/options.h"
#include "app/common/pid_file.h"
#include "app/daemon/instance.h"
#include "app/daemon/privileges.h"
#include "app/daemon/relay_daemon.h"
#include "base/log.h"
#include "base/paths.h"

namespace {

using ZARO::Relay::Daemon;
using ZARO::Relay::RelaydConf;
namespace app = ZARO::Relay::app;
namespace log = ZARO::log;
namespace paths = ZARO::paths;

constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr const char* kName = "zarorelayd";

int Check(const std::string& file) {
    const std::string path = file.empty() ? paths::ConfigFile() : file;
    bool unusable = false;
    const auto faults = app::CheckConfigFile(path, false, unusable);
    for (const std::string& fault : faults) {
        std::cerr << kName << ": " << fault << std::endl;
    }
    if (faults.empty()) {
        std::cout << path << ": good" << std::endl;
    }
    return faults.empty() ? 0 : kUsage;
}

/// A process started without standard descriptors must not get a socket in their place, which log
/// lines would then be written into.
void FillStandardDescriptors() {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd >= 0) {
        close(fd);
    }
}

/// What a daemon of this kind needs from the kernel, and what it must not leave behind.
void PrepareProcess() {
    const rlimit noCore = {0, 0};
    (void)setrlimit(RLIMIT_CORE, &noCore);  // memory holds tokens and passwords
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1); // ended background ssh processes become our children
    (void)signal(SIGPIPE, SIG_IGN);         // the write that fails tells enough
    umask(077);
    const char* path = getenv("PATH");
    const std::string others = path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin";
    (void)setenv("PATH", (paths::ProgramDir() + ":" + others).c_str(), 1);
}

/// Tells the waiting command in the foreground, if there is one, how the start went.
void TellStarter(int code) {
    (void)daemon_retval_send(code);
}

/// The daemon's whole life, after the fork.
int Serve(const RelaydConf& conf) {
    if (!Daemon::Init(false)) {
        TellStarter(kFailure); // unless Init has told more exactly
        return kFailure;
    }
    app::ApplyLogSettings(conf); // in the background for appending: a rotation may cut the file
    PrepareProcess();
    app::DropPrivileges();
    app::EndLoginsOnStopSignals();
    app::EndStrays([](const std::string&) { return true; });
    gblRun = 1;
    bool good = false;
    {
        app::RelayDaemon daemon(conf);
        TellStarter(0); // only now, when the status is there to be read
        good = daemon.Run();
    }
    daemon_signal_done();
    (void)daemon_pid_file_remove(); // one that cannot be removed is found stale at the next start
    return good ? 0 : kFailure;
}

int RunDaemon(bool foreground) {
    (void)daemon_close_all(-1); // what was inherited would be held for years
    const std::string path = paths::ConfigFile();
    bool unusable = false;
    const auto faults = app::CheckConfigFile(path, true, unusable);
    if (unusable) {
        std::cerr << kName << ": " << faults.front() << std::endl;
        return kUsage;
    }
    Daemon::SetName(kName);
    ZARO::OwnLock instance(app::InstanceLockFile());
    if (!app::BecomeTheOnlyOne(instance)) {
        return kFailure;
    }
    RelaydConf conf(path.c_str()); // before the fork, which logs where the configuration says
    // Where the fork goes: a relative log file must not mean one here and another there.
    if (!foreground && chdir("/") != 0) {
        std::cerr << kName << ": /: " << strerror(errno) << std::endl;
        return kFailure;
    }
    // In the background the fork opens the log file; in the foreground whoever typed the command
    // still sees why it does not start.
    Daemon::SetLogFile(foreground ? "" : app::UsableLogFile(conf), conf.log_level);
    for (const std::string& fault : faults) {
        RELAY_LOG(log::Warning, "%s", fault.c_str());
    }
    // Not by Init, which would tell the starter too soon.
    return foreground || Daemon::Fork() ? Serve(conf) : kFailure;
}

} // namespace

int main(int argc, char** argv) {
    FillStandardDescriptors();
    try {
        app::Options options;
        const int code = app::ReadOptions(argc, argv, options);
        if (code >= 0) {
            return code;
        }
        // From the environment as well: what is relative holds for the folder that this begins in.
        const std::string root = options.root.empty() ? paths::Root() : options.root;
        if (!root.empty() && !paths::SetRoot(root)) {
            std::cerr << kName << ": --root: expected an existing folder" << std::endl;
            return kUsage;
        }
        return options.check ? Check(options.checkFile) : RunDaemon(options.foreground);
    } catch (const std::exception& fault) {
        RELAY_LOG(log::Error, "out of resources: %s", fault.what());
        TellStarter(kFailure);
        return kFailure;
    }
}
