#include "app/common/pid_file.h"

#include <limits.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <zarorelayd/daemon.h>

#include "base/paths.h"

namespace ZARO::Relay::app {

namespace {

constexpr const char* kDaemon = "zarorelayd";
/// Behind the PID file's name, whose own ending is ".pid".
constexpr const char* kLockEnding = ".lock";
constexpr std::size_t kShortName = 15; // bytes

/// The first 15 bytes of a process's name.
std::string ShortName(const std::string& process) {
    std::ifstream file("/proc/" + process + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

/// The lock file that a process has open, as a daemon does for its life; empty for none, and when
/// this user may not look.
std::string LockHeldBy(const std::string& process) {
    std::error_code error; // the process may end meanwhile
    const std::string ending = std::string(".pid") + kLockEnding;
    std::filesystem::directory_iterator entry("/proc/" + process + "/fd", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        std::error_code closed;
        std::string path = std::filesystem::read_symlink(*entry, closed);
        if (path.size() > ending.size() &&
            path.compare(path.size() - ending.size(), ending.size(), ending) == 0) {
            return path;
        }
    }
    return "";
}

bool IsSameFile(const std::string& one, const std::string& other) {
    std::error_code missing;
    return std::filesystem::equivalent(one, other, missing);
}

/// Whether a process was told another root than ours on its command line. It tells no root that was
/// given in another way.
bool WasToldAnotherRoot(const std::string& process) {
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
    const std::string own = paths::Root().empty() ? "/" : paths::Root();
    return !root.empty() && root[0] == '/' && !IsSameFile(root, own);
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
    return std::string(Daemon::GetPidFile()) + kLockEnding;
}

bool IsDaemonOfThisRoot(pid_t process) {
    const std::string name = std::to_string(process);
    if (process <= 0 || process == getpid() || access(("/proc/" + name).c_str(), F_OK) != 0 ||
        !RunsProgram(name, kDaemon)) {
        return false;
    }
    const std::string lock = LockHeldBy(name);
    return lock.empty() ? !WasToldAnotherRoot(name) : IsSameFile(lock, InstanceLockFile());
}

} // namespace ZARO::Relay::app
