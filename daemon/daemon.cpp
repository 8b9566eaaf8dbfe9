#include <zarorelayd/daemon.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>

#include <libdaemon/dfork.h>
#include <libdaemon/dlog.h>
#include <libdaemon/dpid.h>
#include <libdaemon/dsignal.h>

#include "base/log.h"
#include "base/paths.h"
#include "base/unique_fd.h"

int gblRun = 0;
int gblShowDebug = 0;

namespace ZARO::Relay {

int Daemon::_logLevel = 4;
std::string Daemon::_strLogFile;
bool Daemon::_isForked = false;
std::string Daemon::_strPidFile;
bool Daemon::_isCreated = false;

namespace {

constexpr const char* kDefaultName = "zarorelayd";
constexpr int kStartTimeoutSeconds = 20;
constexpr int kStopTimeoutSeconds = 10;
constexpr int kStartFailed = 4;

/// libdaemon and the system log keep pointers to the daemon's name, even while the process exits.
std::string& Identity() {
    static std::string& name = *new std::string;
    return name;
}

/// libdaemon accepts every level but logs that most of them are invalid, so its log is off
/// meanwhile.
void SetLibdaemonVerbosity(int level) {
    const auto use = daemon_log_use;
    daemon_log_use = static_cast<enum daemon_log_flags>(0);
    daemon_set_verbosity(level);
    daemon_log_use = use;
}

void PrintTimeStamp() {
    const time_t now = time(nullptr);
    char stamp[64];
    if (ctime_r(&now, stamp) == nullptr) {
        return;
    }
    const size_t length = strlen(stamp);
    if (length > 0 && stamp[length - 1] == '\n') {
        stamp[length - 1] = '\0';
    }
    (void)fprintf(stderr, "%s ", stamp); // a failure can't be reported
}

/// Whether the PID file names a process. An empty file (after a power cut, or while a daemon
/// starts) reads as process 0; a signal to that would hit our own process group.
bool HasRunningInstance() {
    const pid_t pid = daemon_pid_file_is_running();
    if (pid == 0) {
        errno = ESRCH;
    }
    return pid > 0;
}

/// Keeps both ends of libdaemon's signal pipe from the programs that the daemon starts. libdaemon
/// does not tell the end for writing: it is the other descriptor of the same pipe.
void CloseSignalPipeOnExec() {
    struct stat pipe = {};
    if (fstat(daemon_signal_fd(), &pipe) != 0) {
        return;
    }
    for (int fd = STDERR_FILENO + 1; fd < FD_SETSIZE; ++fd) {
        struct stat info = {};
        if (fstat(fd, &info) == 0 && info.st_dev == pipe.st_dev && info.st_ino == pipe.st_ino) {
            (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
}

/// Blocks the signals that other programs may send as soon as they see the PID file, until the
/// daemon can handle them.
class HoldRequests {
public:
    HoldRequests() {
        sigset_t requests;
        sigemptyset(&requests);
        sigaddset(&requests, SIGHUP);
        sigaddset(&requests, SIGUSR1);
        (void)sigprocmask(SIG_BLOCK, &requests, &former_);
    }
    HoldRequests(const HoldRequests&) = delete;
    HoldRequests& operator=(const HoldRequests&) = delete;
    ~HoldRequests() { (void)sigprocmask(SIG_SETMASK, &former_, nullptr); }

private:
    sigset_t former_;
};

/// The parent's part of Fork: its exit code is the child's start-up result.
[[noreturn]] void ExitWithChildsResult() {
    const int value = daemon_retval_wait(kStartTimeoutSeconds);
    if (value < 0) {
        RELAY_LOG(log::Error, "Could not recieve return value from daemon process: %s",
                  strerror(errno));
    }
    RELAY_LOG(value == 0 ? log::Info : log::Error, "%s returned %i",
              daemon_log_ident != nullptr ? daemon_log_ident : "", value);
    exit(value);
}

} // namespace

bool Daemon::IsLogEnable(int level) {
    return level <= _logLevel && (!_isForked || !_strLogFile.empty());
}

int Daemon::LogV(int level, const char* format, va_list ap) {
    const int saved = errno;
    int result = 0;
    if (IsLogEnable(level)) {
        PrintTimeStamp();
        errno = saved;
        (void)vfprintf(stderr, format, ap);
        result = fputc('\n', stderr);
    } else if (level <= _logLevel) {
        daemon_logv(level, format, ap);
    }
    errno = saved;
    return result;
}

int Daemon::Log(int level, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    const int result = LogV(level, format, ap);
    va_end(ap);
    return result;
}

bool Daemon::OpenLogFile(const std::string& path, int targetFd, int openFlags) {
    // Non-blocking, so that a FIFO given as the log file can't hang the daemon.
    UniqueFd file(open(
        path.c_str(), openFlags | O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW, 0600));
    const int fd = file.Get();
    if (fd < 0) {
        RELAY_LOG(log::Error, "open log file [%s] failed", path.c_str());
        return false;
    }
    struct stat info = {};
    if (fstat(fd, &info) == 0 && !S_ISFIFO(info.st_mode)) {
        (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK); // a full FIFO loses lines
    }
    if (fd == targetFd) {
        (void)fcntl(fd, F_SETFD, 0); // children inherit the target, as they do after dup2
        (void)file.Release();
        return true;
    }
    const bool moved = dup2(fd, targetFd) >= 0;
    if (!moved) {
        RELAY_LOG(log::Error, "dup fd failed");
    }
    return moved;
}

bool Daemon::SetLogFile(const std::string& path, int level) {
    if (level >= 0) {
        _logLevel = level;
        SetLibdaemonVerbosity(level);
    }
    _strLogFile = path;
    if (!_isForked) {
        return true;
    }
    // A failure leaves standard error where it was and has been logged; the settings hold.
    if (path.empty()) {
        (void)OpenLogFile("/dev/null", STDERR_FILENO, O_APPEND);
    } else {
        (void)OpenLogFile(path, STDERR_FILENO, O_CREAT | O_APPEND);
    }
    return true;
}

bool Daemon::LibInit() {
    if (_strPidFile.empty()) {
        SetName(kDefaultName);
    }
    return true;
}

bool Daemon::SetName(const char* name) {
    if (name == nullptr) {
        return false;
    }
    std::string path = name;
    Identity() = daemon_ident_from_argv0(path.data());
    daemon_log_ident = Identity().c_str();
    daemon_pid_file_ident = Identity().c_str();
    daemon_pid_file_proc = &Daemon::GetPidFile;
    _strPidFile = paths::PidFile(Identity());
    return true;
}

bool Daemon::SetPidFile(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    if (path[0] != '/') {
        RELAY_LOG(log::Error, "pid file must be absolute path");
        return false;
    }
    // Leaves libdaemon alone on purpose: whoever sets a PID file also calls SetName.
    _strPidFile = path;
    return true;
}

const char* Daemon::GetPidFile() {
    return _strPidFile.c_str();
}

bool Daemon::IsForked() {
    return _isForked;
}

bool Daemon::Fork() {
    if (daemon_retval_init() < 0) {
        RELAY_LOG(log::Error, "Failed to create pipe.");
        return false;
    }
    const pid_t pid = daemon_fork();
    if (pid < 0) {
        RELAY_LOG(log::Error, "fork failed: %s", strerror(errno));
        daemon_retval_done();
        return false;
    }
    if (pid > 0) {
        ExitWithChildsResult();
    }
    _isForked = true;
    if (!_strLogFile.empty()) {
        (void)OpenLogFile(_strLogFile, STDERR_FILENO, O_CREAT | O_TRUNC); // logged; start goes on
    }
    return true;
}

bool Daemon::Init(bool doFork) {
    if (daemon_reset_sigs(-1) < 0) {
        RELAY_LOG(log::Error, "Failed to reset all signal handlers: %s", strerror(errno));
        return false;
    }
    if (daemon_unblock_sigs(-1) < 0) {
        RELAY_LOG(log::Error, "Failed to unblock all signals: %s", strerror(errno));
        return false;
    }
    const pid_t other = daemon_pid_file_is_running();
    if (other >= 0) {
        RELAY_LOG(log::Error, "Daemon already running on PID file %u",
                  static_cast<unsigned>(other));
        return false;
    }
    if (doFork && !Fork()) {
        return false;
    }
    const HoldRequests hold;
    if (daemon_pid_file_create() < 0) {
        RELAY_LOG(log::Error, "Could not create PID file (%s).", strerror(errno));
        (void)daemon_retval_send(kStartFailed); // harmless without a fork, where there is no pipe
        return false;
    }
    RELAY_LOG(log::Info, "daemon start");
    if (daemon_signal_init(SIGINT, SIGTERM, SIGQUIT, SIGPIPE, SIGHUP, SIGUSR1, 0) < 0) {
        RELAY_LOG(log::Error, "Could not register signal handlers (%s).", strerror(errno));
        (void)daemon_retval_send(kStartFailed);
        (void)daemon_pid_file_remove(); // no daemon will run
        return false;
    }
    CloseSignalPipeOnExec();
    if (doFork) {
        (void)daemon_retval_send(0); // a parent that is gone does not stop the daemon
    }
    return true;
}

int Daemon::Kill() {
    if (!HasRunningInstance() || daemon_pid_file_kill_wait(SIGTERM, kStopTimeoutSeconds) < 0) {
        RELAY_LOG(log::Warning, "Failed to kill daemon: %m");
        return 2;
    }
    return 0;
}

int Daemon::Hup() {
    if (HasRunningInstance() && daemon_pid_file_kill(SIGHUP) >= 0) {
        return 0;
    }
    if (daemon_log_ident == nullptr) {
        std::cerr.setstate(std::ios_base::badbit);
        return 2;
    }
    std::cerr << daemon_log_ident << " not running" << std::endl;
    return 2;
}

} // namespace ZARO::Relay
