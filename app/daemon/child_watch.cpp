#include "app/daemon/child_watch.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>

#include <zarorelayd/daemon.h>

#include "base/log.h"
#include "base/paths.h"

namespace ZARO::Relay::app {

namespace {

constexpr milliseconds kGrace{1000};
constexpr milliseconds kBetweenReaps{100};
constexpr milliseconds kBetweenLooks{1000};
constexpr int kLookMs = 10;
constexpr const char* kPasswordFiles = "/tmp/.tunnel."; // the common beginning of their names

int OpenPidfd(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

void Signal(pid_t pid, int pidfd, int signal) {
    if (pidfd >= 0) {
        (void)syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0); // a gone one needs none
    } else {
        (void)kill(pid, signal);
    }
}

/// Without a descriptor: an own child that waits to be reaped, or nobody of that number.
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
        (void)poll(nullptr, 0, kLookMs);
        ended = HasEnded(pid);
    }
    return ended;
}

void Close(int pidfd) {
    if (pidfd >= 0) {
        close(pidfd);
    }
}

/// Time that is left until `end`, at least 0.
milliseconds Until(Time end) {
    return std::max(milliseconds(0), std::chrono::duration_cast<milliseconds>(end - Clock::now()));
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

/// Calls `see` with the name of each entry of a folder.
void ForEachEntry(const std::string& folder, const std::function<void(const std::string&)>& see) {
    const Directory directory(opendir(folder.c_str()), closedir);
    while (directory != nullptr) {
        const dirent* entry = readdir(directory.get());
        if (entry == nullptr) {
            return;
        }
        see(entry->d_name);
    }
}

bool IsOwn(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0 && info.st_uid == geteuid();
}

/// The command line of a process, its arguments joined by blanks.
std::string CommandLine(const std::string& pid) {
    // The process may end at any moment; a stream's iterators would throw then.
    const int fd = open(("/proc/" + pid + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[4096];
    const ssize_t length = fd >= 0 ? read(fd, buffer, sizeof buffer) : -1;
    if (fd >= 0) {
        close(fd);
    }
    std::string line(buffer, length > 0 ? static_cast<std::size_t>(length) : 0);
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line;
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

ChildWatch::~ChildWatch() {
    for (const auto& [pid, child] : children_) {
        Close(child.pidfd);
    }
}

bool ChildWatch::Add(pid_t pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH)) {
        return false;
    }
    int pidfd = OpenPidfd(pid);
    if (pidfd >= FD_SETSIZE) { // the loop could not wait for it
        close(pidfd);
        pidfd = -1;
    }
    if (pidfd < 0) { // an old kernel, or too few descriptors: a tunnel is a tunnel all the same
        RELAY_LOG(log::Info, "process %d is looked at every second", pid);
    }
    const bool fresh = children_.emplace(pid, Child{pidfd, Time::max(), Time::max()}).second;
    if (!fresh) {
        Close(pidfd);
    }
    return fresh;
}

void ChildWatch::AddTo(fd_set& read, int& maxfd) const {
    for (const auto& [pid, child] : children_) {
        if (child.reapAt == Time::max() && child.pidfd >= 0) {
            FD_SET(child.pidfd, &read);
            maxfd = std::max(maxfd, child.pidfd);
        }
    }
}

void ChildWatch::Reap(Time now) {
    // A client that ended before it was watched was left to us all the same. Nothing else is ever
    // waited for here: the library collects its own children before it returns.
    for (pid_t pid = waitpid(-1, nullptr, WNOHANG); pid > 0; pid = waitpid(-1, nullptr, WNOHANG)) {
        const auto child = children_.find(pid);
        if (child != children_.end()) {
            Close(child->second.pidfd);
            children_.erase(child);
        }
    }
    for (auto child = children_.begin(); child != children_.end();) {
        const auto [pid, entry] = *child;
        if (!HasEnded(pid, entry.pidfd, milliseconds(0))) {
            ++child;
        } else if (waitpid(pid, nullptr, WNOHANG) == pid || kill(pid, 0) != 0) {
            Close(entry.pidfd);
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
            Signal(pid, child.pidfd, SIGTERM);
            child.killAt = now + kGrace;
        } else if (now >= child.killAt) {
            Signal(pid, child.pidfd, SIGKILL);
            child.killAt = now + kGrace;
        }
    }
}

Time ChildWatch::NextDue() const {
    Time due = Time::max();
    for (const auto& [pid, child] : children_) {
        const Time look = child.pidfd >= 0 ? Time::max() : Clock::now() + kBetweenLooks;
        due = std::min({due, child.killAt, child.reapAt, look});
    }
    return due;
}

void ChildWatch::EndAll(milliseconds patience) {
    for (const auto& [pid, child] : children_) {
        Signal(pid, child.pidfd, SIGTERM);
    }
    const Time end = Clock::now() + patience;
    for (const auto& [pid, child] : children_) {
        if (!HasEnded(pid, child.pidfd, Until(end))) {
            Signal(pid, child.pidfd, SIGKILL);
            (void)HasEnded(pid, child.pidfd, kGrace);
        }
    }
    Reap(Clock::now());
}

bool ServesPasswordFile(pid_t pid, const std::string& ending) {
    const std::string process = std::to_string(pid);
    return IsOwn("/proc/" + process) &&
           FileEnding(CommandLine(process), paths::Below(kPasswordFiles)) == ending;
}

void EndStrays(const std::function<bool(const std::string&)>& isStray) {
    const std::string prefix = paths::Below(kPasswordFiles);
    const std::string folder = paths::Below("/tmp");
    ChildWatch strays;
    ForEachEntry("/proc", [&](const std::string& pid) {
        if (pid.find_first_not_of("0123456789") != std::string::npos || !IsOwn("/proc/" + pid)) {
            return;
        }
        const std::string ending = FileEnding(CommandLine(pid), prefix);
        if (!ending.empty() && isStray(ending) && strays.Add(atoi(pid.c_str()))) {
            RELAY_LOG(log::Notice, "ending left-over ssh %s", pid.c_str());
        }
    });
    strays.EndAll(kGrace);
    ForEachEntry(folder, [&](const std::string& name) {
        const std::string path = folder + "/" + name;
        const std::string common = ".tunnel.";
        if (name.compare(0, common.size(), common) == 0 && isStray(name.substr(common.size())) &&
            IsOwn(path)) {
            (void)unlink(path.c_str()); // a password file that a killed daemon left
        }
    });
}

} // namespace ZARO::Relay::app
