#include "app/common/pid_file.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>

#include <zarorelayd/daemon.h>

#include "base/folder.h"
#include "base/paths.h"
#include "base/read_file.h"

namespace ZARO::Relay::app {

namespace {

/// Follows the PID file's name, which itself ends in ".pid".
constexpr const char* kLockEnding = ".lock";
constexpr std::size_t kShortName = 15; // bytes

/// The text of a file; empty when it can't be read.
std::string TextOf(const std::string& path) {
    FileText file;
    (void)ReadFile(path, file, Trust::Anybodys);
    return file.text;
}

bool EndsWith(const std::string& text, const std::string& ending) {
    return text.size() > ending.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

/// The first 15 bytes of a process's name.
std::string ShortName(const std::string& process) {
    const std::string name = TextOf("/proc/" + process + "/comm");
    return name.substr(0, name.find('\n'));
}

/// The lock file that a process has open, as a daemon does all its life; empty when it has none or
/// this user may not look.
std::string LockHeldBy(const std::string& process) {
    std::string lock;
    const std::string ending = std::string(".pid") + kLockEnding;
    (void)ForEachEntry("/proc/" + process + "/fd", [&](const std::filesystem::path& descriptor) {
        std::error_code closed; // since it was listed
        const std::string path = std::filesystem::read_symlink(descriptor, closed);
        if (lock.empty() && EndsWith(path, ending)) {
            lock = path;
        }
    });
    return lock;
}

bool IsSameFile(const std::string& one, const std::string& other) {
    std::error_code missing;
    return std::filesystem::equivalent(one, other, missing);
}

/// Whether a process's command line names another root than ours. A root that came from the
/// environment does not show there.
bool WasToldAnotherRoot(const std::string& process) {
    std::istringstream words(TextOf("/proc/" + process + "/cmdline"));
    const std::string option = "--root";
    std::string root;
    for (std::string word; std::getline(words, word, '\0');) {
        if (word == option) {
            std::getline(words, root, '\0');
        } else if (word.compare(0, option.size() + 1, option + "=") == 0) {
            root = word.substr(option.size() + 1);
        }
    }
    const std::string own = paths::Root().empty() ? "/" : paths::Root();
    return !root.empty() && root[0] == '/' && !IsSameFile(root, own);
}

} // namespace

pid_t ReadPidFile() {
    const long pid = strtol(TextOf(Daemon::GetPidFile()).c_str(), nullptr, 10);
    return pid > 0 && pid <= INT_MAX ? static_cast<pid_t>(pid) : 0;
}

std::string ProgramPathOf(const std::string& process) {
    char target[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/" + process + "/exe").c_str(), target, sizeof target - 1);
    if (length <= 0) {
        return "";
    }
    std::string path(target, static_cast<std::size_t>(length));
    const std::string deleted = " (deleted)"; // of a program that was upgraded while it runs
    if (EndsWith(path, deleted)) {
        path.resize(path.size() - deleted.size());
    }
    return path;
}

std::string ProgramOf(const std::string& process) {
    const std::string path = ProgramPathOf(process);
    return path.substr(path.rfind('/') + 1);
}

bool RunsProgram(const std::string& process, const std::string& program) {
    // An upgrade may have renamed the file; the process keeps the name that it was started with.
    return ProgramOf(process) == program || ShortName(process) == program.substr(0, kShortName);
}

std::string InstanceLockFile() {
    return std::string(Daemon::GetPidFile()) + kLockEnding;
}

bool IsDaemonOfThisRoot(pid_t process) {
    const std::string name = std::to_string(process);
    if (process <= 0 || process == getpid() || access(("/proc/" + name).c_str(), F_OK) != 0 ||
        !RunsProgram(name, kDaemonName)) {
        return false;
    }
    const std::string lock = LockHeldBy(name);
    return lock.empty() ? !WasToldAnotherRoot(name) : IsSameFile(lock, InstanceLockFile());
}

} // namespace ZARO::Relay::app
