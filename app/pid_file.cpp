#include "app/pid_file.h"

#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <zarorelayd/daemon.h>

#include "daemon/log.h"
#include "platform/paths.h"

namespace ZARO::Relay::app {

namespace {

constexpr int kAttempts = 10;
constexpr int kBetweenAttemptsMs = 10;
constexpr std::size_t kShortName = 15; // bytes

/// The first 15 bytes of a process's name.
std::string ShortName(const std::string& process) {
    std::ifstream file("/proc/" + process + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

/// The process id in the PID file; 0 when it has none, also after the time in which another
/// instance in the middle of its start would have filled it; -1 when there is no file.
long ReadPid() {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        std::ifstream file(Daemon::GetPidFile());
        if (!file) {
            return -1;
        }
        long pid = 0;
        if (file >> pid && pid > 0) {
            return pid;
        }
        (void)poll(nullptr, 0, kBetweenAttemptsMs);
    }
    return 0;
}

/// Whether a process was told another root than ours. One whose root can't be told, because it was
/// given from another folder or belongs to another user, may be ours.
bool HasOtherRoot(const std::string& process) {
    std::ifstream file("/proc/" + process + "/cmdline");
    const std::string option = "--root";
    std::string root;
    for (std::string word; std::getline(file, word, '\0');) {
        if (word == option) {
            std::getline(file, root, '\0');
        } else if (word.compare(0, option.size() + 1, option + "=") == 0) {
            root = word.substr(option.size() + 1);
        }
    }
    struct stat theirs = {};
    struct stat ours = {};
    const std::string own = paths::Root().empty() ? "/" : paths::Root();
    return !root.empty() && root[0] == '/' && stat(root.c_str(), &theirs) == 0 &&
           stat(own.c_str(), &ours) == 0 &&
           (theirs.st_ino != ours.st_ino || theirs.st_dev != ours.st_dev);
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

void RemoveStalePidFile() {
    const long pid = ReadPid();
    if (pid < 0) {
        return;
    }
    const std::string process = std::to_string(pid);
    // A process of this number may be us: in a container numbers come again.
    if (pid > 0 && pid != getpid() && access(("/proc/" + process).c_str(), F_OK) == 0) {
        if (RunsProgram(process, ProgramOf("self")) && !HasOtherRoot(process)) {
            return; // Daemon::Init tells of it
        }
    }
    RELAY_LOG(5, "removing the stale PID file [%s]", Daemon::GetPidFile());
    (void)unlink(Daemon::GetPidFile());
}

} // namespace ZARO::Relay::app
