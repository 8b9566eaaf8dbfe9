#include "app/pid_file.h"

#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include <libdaemon/dpid.h>

#include <zarorelayd/daemon.h>

#include "daemon/log.h"

namespace ZARO::Relay::app {

namespace {

/// A command line that asks holds the lock for an instant, and another start writes its process id
/// within that time.
constexpr milliseconds kPatience{100};
constexpr std::size_t kShortName = 15; // bytes

/// The first 15 bytes of a process's name.
std::string ShortName(const std::string& process) {
    std::ifstream file("/proc/" + process + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

/// The process id in the PID file; 0 when it has none.
long ReadPid() {
    std::ifstream file(Daemon::GetPidFile());
    long pid = 0;
    return file >> pid ? pid : 0;
}

} // namespace

std::string ProgramOf(const std::string& process) {
    char target[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/" + process + "/exe").c_str(), target, sizeof target - 1);
    if (length <= 0) {
        return "";
    }
    std::string path(target, static_cast<std::size_t>(length));
    const std::string deleted = " (deleted)"; // the program was upgraded while it runs
    if (path.size() > deleted.size() &&
        path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0) {
        path.resize(path.size() - deleted.size());
    }
    return path.substr(path.rfind('/') + 1);
}

bool RunsProgram(const std::string& process, const std::string& program) {
    const std::string path = ProgramOf(process);
    // An upgrade may have renamed the file; the process keeps the name that it was started with.
    return path == program || ShortName(process) == program.substr(0, kShortName);
}

std::string InstanceLockFile() {
    return std::string(Daemon::GetPidFile()) + ".lock";
}

bool BecomeTheOnlyOne(OwnLock& lock) {
    if (lock.Take(kPatience)) {
        if (unlink(Daemon::GetPidFile()) == 0) {
            RELAY_LOG(5, "removed the stale PID file [%s]", Daemon::GetPidFile());
        }
        return true;
    }
    // Where no file can be locked, which is no reason not to run, the PID file has to do.
    const long other = errno == EWOULDBLOCK ? ReadPid() : daemon_pid_file_is_running();
    if (other >= 0) {
        RELAY_LOG(3, "Daemon already running on PID file %ld", other);
    }
    return other < 0;
}

} // namespace ZARO::Relay::app
