#include "app/daemon/child_watch.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include <zarorelayd/daemon.h>

#include "base/folder.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "base/replace_file.h"

namespace ZARO::Relay::app {

namespace {

constexpr milliseconds kGrace{1000};
constexpr milliseconds kBetweenReaps{100};
constexpr milliseconds kBetweenChecks{1000}; // of a process without a pidfd
constexpr int kEndPollMs = 10;

UniqueFd OpenPidfd(pid_t pid) {
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

void Signal(pid_t pid, int pidfd, int signal) {
    if (pidfd >= 0) {
        (void)syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0); // else it has gone
    } else {
        (void)kill(pid, signal);
    }
}

/// For a process without a pidfd: whether it is a child of ours that waits to be reaped, or no
/// process has that number.
bool HasEnded(pid_t pid) {
    siginfo_t info = {};
    const bool child =
        waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
    return child ? info.si_pid == pid : kill(pid, 0) != 0 && errno == ESRCH;
}

bool HasEnded(pid_t pid, int pidfd, milliseconds patience) {
    if (pidfd >= 0) {
        pollfd entry = {pidfd, POLLIN, 0};
        return poll(&entry, 1, static_cast<int>(patience.count())) == 1;
    }
    const Time end = Clock::now() + patience;
    bool ended = HasEnded(pid);
    while (!ended && Clock::now() < end) {
        (void)poll(nullptr, 0, kEndPollMs);
        ended = HasEnded(pid);
    }
    return ended;
}

/// Time that is left until `end`, at least 0.
milliseconds Until(Time end) {
    return std::max(milliseconds(0), std::chrono::duration_cast<milliseconds>(end - Clock::now()));
}

bool IsOwn(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0 && info.st_uid == geteuid();
}

/// The command line of a process, its arguments joined by blanks; empty when it has ended.
std::string CommandLine(const std::string& pid) {
    FileText file;
    (void)ReadFile("/proc/" + pid + "/cmdline", file, Trust::Anybodys); // else it has just ended
    std::replace(file.text.begin(), file.text.end(), '\0', ' ');
    return file.text;
}

/// What follows the common part of every password file's path.
std::string FileEnding(const std::string& commandLine, const std::string& prefix) {
    const std::string pattern = "ssh -d " + prefix;
    const std::size_t at = commandLine.find(pattern);
    if (at == std::string::npos) {
        return "";
    }
    const std::size_t begin = at + pattern.size();
    return commandLine.substr(begin, commandLine.find(' ', begin) - begin);
}

} // namespace

bool ChildWatch::Add(pid_t pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
        return false;
    }
    UniqueFd pidfd = OpenPidfd(pid);
    if (pidfd.Get() >= FD_SETSIZE) { // the loop could not wait for it
        (void)pidfd.Close();
    }
    if (!pidfd.IsOpen()) { // an old kernel, or too few descriptors; the tunnel works all the same
        RELAY_LOG(log::Info, "process %d is looked at every second", pid);
    }
    return children_.emplace(pid, Child{std::move(pidfd), Time::max(), Time::max()}).second;
}

void ChildWatch::AddTo(fd_set& read, int& maxfd) const {
    for (const auto& [pid, child] : children_) {
        if (child.reapAt == Time::max() && child.pidfd.IsOpen()) {
            FD_SET(child.pidfd.Get(), &read);
            maxfd = std::max(maxfd, child.pidfd.Get());
        }
    }
}

void ChildWatch::Reap(Time now) {
    // A client that ended before it was watched was left to us all the same. Nothing else is ever
    // waited for here: the library collects its own children before it returns.
    for (pid_t pid = waitpid(-1, nullptr, WNOHANG); pid > 0; pid = waitpid(-1, nullptr, WNOHANG)) {
        children_.erase(pid);
    }
    for (auto child = children_.begin(); child != children_.end();) {
        const pid_t pid = child->first;
        if (!HasEnded(pid, child->second.pidfd.Get(), milliseconds(0))) {
            ++child;
        } else if (waitpid(pid, nullptr, WNOHANG) == pid || kill(pid, 0) != 0) {
            child = children_.erase(child);
        } else { // its own parent has not reaped it yet, nor left it to us
            child->second.reapAt = now + kBetweenReaps;
            ++child;
        }
    }
}

void ChildWatch::EndUnowned(const std::set<pid_t>& owned, Time now) {
    for (auto& [pid, child] : children_) {
        if (owned.count(pid) != 0) {
            continue;
        }
        if (child.killAt == Time::max()) {
            Signal(pid, child.pidfd.Get(), SIGTERM);
            child.killAt = now + kGrace;
        } else if (now >= child.killAt) {
            Signal(pid, child.pidfd.Get(), SIGKILL);
            child.killAt = now + kGrace;
        }
    }
}

Time ChildWatch::NextDue() const {
    Time due = Time::max();
    for (const auto& [pid, child] : children_) {
        const Time check = child.pidfd.IsOpen() ? Time::max() : Clock::now() + kBetweenChecks;
        due = std::min({due, child.killAt, child.reapAt, check});
    }
    return due;
}

void ChildWatch::EndAll(milliseconds patience) {
    for (const auto& [pid, child] : children_) {
        Signal(pid, child.pidfd.Get(), SIGTERM);
    }
    const Time end = Clock::now() + patience;
    for (const auto& [pid, child] : children_) {
        if (!HasEnded(pid, child.pidfd.Get(), Until(end))) {
            Signal(pid, child.pidfd.Get(), SIGKILL);
            (void)HasEnded(pid, child.pidfd.Get(), kGrace);
        }
    }
    Reap(Clock::now());
}

bool ServesPasswordFile(pid_t pid, const std::string& ending) {
    const std::string process = std::to_string(pid);
    return IsOwn("/proc/" + process) &&
           FileEnding(CommandLine(process), paths::PasswordFiles()) == ending;
}

void EndStrays(const std::function<bool(const std::string&)>& isStray) {
    const std::string prefix = paths::PasswordFiles();
    ChildWatch strays;
    (void)ForEachEntry("/proc", [&](const std::filesystem::path& process) {
        const std::string pid = process.filename();
        if (pid.find_first_not_of("0123456789") != std::string::npos || !IsOwn("/proc/" + pid)) {
            return;
        }
        const std::string ending = FileEnding(CommandLine(pid), prefix);
        if (!ending.empty() && isStray(ending) && strays.Add(atoi(pid.c_str()))) {
            RELAY_LOG(log::Notice, "ending left-over ssh %s", pid.c_str());
        }
    });
    strays.EndAll(kGrace);
    (void)ForEachEntry(FolderOf(prefix), [&](const std::filesystem::path& file) {
        const std::string path = file;
        if (path.compare(0, prefix.size(), prefix) == 0 && isStray(path.substr(prefix.size())) &&
            IsOwn(path)) {
            (void)unlink(path.c_str()); // a password file that a killed daemon left
        }
    });
}

} // namespace ZARO::Relay::app
