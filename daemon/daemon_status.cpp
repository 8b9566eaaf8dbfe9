#include <zarorelayd/daemon.h>

#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include <libdaemon/dpid.h>

#include <zarorelayd/file_lock.h>
#include <zarorelayd/result.h>

#include "base/json.h"
#include "base/paths.h"
#include "base/read_file.h"
#include "base/replace_file.h"
#include "base/text.h"

// These functions run in other programs and report to the system log themselves: the settings of
// the logging facility are the daemon's.

namespace ZARO::Relay {

namespace {

constexpr const char* kUnit = "daemon.cpp"; // the whole facade logs under it
constexpr int kRunning = 0;
constexpr int kNotRunning = 1;
constexpr int kNoStatus = 2;
constexpr int kDumpAttempts = 30;
constexpr useconds_t kBeforeFirstAttempt = 50; // microseconds
constexpr useconds_t kBetweenAttempts = 100;   // microseconds

bool PublishesService(const Json::Value& status, const char* serviceId) {
    const Json::Value* services = json::Find(status, "service");
    if (services == nullptr || !services->isArray()) {
        return false;
    }
    for (const Json::Value& service : *services) {
        std::string id;
        if (json::Get(service, "id", id) && id == serviceId) {
            return true;
        }
    }
    return false;
}

/// Removes a link, a folder or a FIFO that has the dump file's name: it would keep every caller out
/// for ever. A regular file stays, since another caller may be using it.
void DropPlanted(const std::string& path) {
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0 || S_ISREG(info.st_mode)) {
        return;
    }
    FreeName(path);
}

/// The user that a process runs as; false when there is no such process.
bool UserOf(pid_t process, uid_t& user) {
    FileText file;
    const std::string key = "\nUid:"; // then the real user and the effective one
    (void)ReadFile("/proc/" + std::to_string(process) + "/status", file, Trust::Anybodys);
    const std::size_t at = file.text.find(key);
    return at != std::string::npos &&
           sscanf(file.text.c_str() + at + key.size(), "%*u %u", &user) == 1;
}

/// Whether to believe a status file, which anybody could have made: its owner must be root, the
/// caller, the folder's owner, or the user of the process that the file names.
bool IsDaemons(const std::string& path, const FileText& file, const Json::Value& status) {
    uid_t user = 0;
    int pid = -1;
    return IsTrustedOwner(path, file.owner) ||
           (json::Get(status, "pid", pid) && UserOf(pid, user) && user == file.owner);
}

/// Reads the dump that the daemon is writing into `path` and removes the file.
int CollectDump(const std::string& path, Json::Value& out) {
    usleep(kBeforeFirstAttempt);
    int result = RELAYD_RET_LOCK;
    for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
        FileText file;
        (void)ReadFile(path, file, Trust::NoLink);
        if (!file.opened) {
            syslog(LOG_ERR, "%s:%d zarorelayd status file is not ready", kUnit, __LINE__);
            result = RELAYD_RET_UNKNOWN;
            break;
        }
        if (json::Parse(file.text, out)) {
            result = kRunning;
            break;
        }
        if (attempt == kDumpAttempts - 1) {
            syslog(LOG_DEBUG, "%s:%d zarorelayd status parse failed", kUnit, __LINE__);
            break;
        }
        usleep(kBetweenAttempts);
    }
    unlink(path.c_str());
    return result;
}

} // namespace

int Daemon::GetStatus(Json::Value& out) {
    out = Json::Value();
    LibInit();
    FileText file;
    const std::string path = paths::StatusFile();
    const Reading reading = ReadFile(path, file, Trust::NoLink);
    if (!file.opened) {
        return kNotRunning;
    }
    const bool parsed = reading == Reading::Done && json::Parse(file.text, out);
    if (!IsDaemons(path, file, out)) {
        out = Json::Value();
        return kNotRunning;
    }
    if (!parsed) {
        syslog(LOG_ERR, "%s:%d bad zarorelayd status file", kUnit, __LINE__);
        return RELAYD_RET_UNKNOWN;
    }
    int pid = -1;
    if (!json::Get(out, "pid", pid) || pid == -1) {
        syslog(LOG_ERR, "%s:%d bad zarorelayd status pid", kUnit, __LINE__);
        return RELAYD_RET_UNKNOWN;
    }
    return kill(pid, 0) == 0 ? kRunning : kNotRunning;
}

bool Daemon::GetStatus(std::string& serverId, std::string& state, std::string& error,
                       const char* serviceId) {
    serverId.clear();
    state.clear();
    error.clear();
    Json::Value status;
    const int running = GetStatus(status);
    if (running == RELAYD_RET_UNKNOWN) {
        return false;
    }
    int stateValue = RELAYD_STATE_NOT_RUNNING;
    int errorValue = RELAYD_RET_SUCCESS;
    const bool wanted =
        serviceId == nullptr || (running == kRunning && PublishesService(status, serviceId));
    if (wanted) {
        (void)json::Get(status, "serverID", serverId); // what is missing keeps its default
        (void)json::Get(status, "error", errorValue);
        // Of a stale file only id and error count: its daemon does not run.
        if (running == kRunning) {
            (void)json::Get(status, "state", stateValue);
        }
    } else {
        serverId = "--";
    }
    state = GetStateStr(static_cast<RELAYD_STATE>(stateValue));
    error = GetErrorStr(static_cast<RELAYD_RET>(errorValue));
    return true;
}

int Daemon::DebugStatus(Json::Value& out) {
    LibInit();
    out = Json::Value();
    const pid_t pid = daemon_pid_file_is_running();
    if (pid <= 0) { // 0: an empty PID file
        return kNotRunning;
    }
    const std::string path = paths::DebugFile(pid);
    FileLock lock(path.c_str());
    if (!lock.Lock(LOCK_EX)) {
        syslog(LOG_NOTICE, "%s:%d lock failed", kUnit, __LINE__);
        DropPlanted(path);
        return RELAYD_RET_LOCK;
    }
    if (daemon_pid_file_kill(SIGUSR1) < 0) {
        syslog(LOG_ERR, "%s:%d daemon is not running", kUnit, __LINE__);
        return kNotRunning;
    }
    return CollectDump(path, out);
}

int Daemon::Status(bool debug) {
    if (debug) {
        Json::Value dump;
        const int result = DebugStatus(dump);
        if (result != kRunning) {
            std::cout << "get status failed" << std::endl;
            return result;
        }
        std::cout << json::OneLine(dump) << std::flush;
        return kRunning;
    }
    std::string serverId;
    std::string state;
    std::string error;
    if (!GetStatus(serverId, state, error, nullptr)) {
        std::cout << "get status failed" << std::endl;
        return kNoStatus;
    }
    const Harmless harmless(serverId.c_str());
    const char* shown = isatty(STDOUT_FILENO) != 0 ? harmless.Value() : serverId.c_str();
    std::cout << "serverID: " << shown << std::endl << "state: " << state << std::endl;
    if (error != "success") {
        std::cout << "error: " << error << std::endl;
    }
    return state == GetStateStr(RELAYD_STATE_NOT_RUNNING) ? kNotRunning : kRunning;
}

} // namespace ZARO::Relay
