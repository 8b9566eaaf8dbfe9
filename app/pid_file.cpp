#include "app/pid_file.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <zarorelayd/daemon.h>

#include "daemon/log.h"

namespace ZARO::Relay::app {

namespace {

constexpr int kAttempts = 10;
constexpr int kBetweenAttemptsMs = 10;

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

void RemoveStalePidFile() {
    const long pid = ReadPid();
    if (pid < 0) {
        return;
    }
    const std::string process = std::to_string(pid);
    if (pid > 0 && access(("/proc/" + process).c_str(), F_OK) == 0) {
        // Another user's program can't be read, but its short name can.
        const std::string program = ProgramOf(process);
        if (program.empty() ? ShortName(process) == ShortName("self")
                            : program == ProgramOf("self")) {
            return; // Daemon::Init tells of it
        }
    }
    RELAY_LOG(5, "removing the stale PID file [%s]", Daemon::GetPidFile());
    (void)unlink(Daemon::GetPidFile());
}

} // namespace ZARO::Relay::app
