#include "app/daemon/log_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <zarorelayd/daemon.h>

#include "app/common/strangers_file.h"
#include "base/log.h"
#include "base/unique_fd.h"

namespace ZARO::Relay::app {

std::string UsableLogFile(const RelaydConf& conf) {
    if (conf.log_file.empty()) {
        return "";
    }
    // Whoever planted the file could read a trace, or make us write over another file.
    if (IsStrangersFile(conf.log_file)) {
        RELAY_LOG(log::Error, "log file [%s] is a link or another user's", conf.log_file.c_str());
        return "";
    }
    const UniqueFd fd(
        open(conf.log_file.c_str(),
             O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.IsOpen()) {
        RELAY_LOG(log::Error, "log file [%s] can't be opened, %s", conf.log_file.c_str(),
                  strerror(errno));
        return "";
    }
    struct stat info = {};
    if (fstat(fd.Get(), &info) == 0 && S_ISREG(info.st_mode)) {
        (void)fchmod(fd.Get(), info.st_mode & 0700); // it may have been made under a lax umask
    }
    return conf.log_file;
}

void ApplyLogSettings(const RelaydConf& conf) {
    const bool hadFile = !Daemon::_strLogFile.empty();
    const std::string file = UsableLogFile(conf);
    Daemon::SetLogFile(file, conf.log_level);
    if (Daemon::IsForked()) {
        return;
    }
    // Only in the foreground: in the background it would keep a rotated log file open.
    static const int kOriginal = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (!file.empty()) {
        (void)Daemon::OpenLogFile(file, STDERR_FILENO, O_CREAT | O_APPEND); // it could be opened
    } else if (hadFile && kOriginal >= 0) {
        (void)dup2(kOriginal, STDERR_FILENO);
    }
}

} // namespace ZARO::Relay::app
