#include "app/pid_file.h"

#include <limits.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <zarorelayd/daemon.h>

#include "daemon/log.h"

namespace ZARO::Relay::app {

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
    std::ifstream file(Daemon::GetPidFile());
    if (!file) {
        return;
    }
    long pid = 0;
    file >> pid;
    const bool alive = pid > 0 && access(("/proc/" + std::to_string(pid)).c_str(), F_OK) == 0;
    const std::string program = pid > 0 ? ProgramOf(std::to_string(pid)) : "";
    if (alive && (program.empty() || program == ProgramOf("self"))) {
        return; // Daemon::Init tells of it
    }
    RELAY_LOG(5, "removing the stale PID file [%s]", Daemon::GetPidFile());
    (void)unlink(Daemon::GetPidFile());
}

} // namespace ZARO::Relay::app
