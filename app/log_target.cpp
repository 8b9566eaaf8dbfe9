#include "app/log_target.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <zarorelayd/daemon.h>

#include "daemon/log.h"

namespace ZARO::Relay::app {

std::string UsableLogFile(const RelaydConf& conf) {
    if (conf.log_file.empty()) {
        return "";
    }
    const int fd = open(conf.log_file.c_str(),
                        O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
    if (fd < 0) {
        RELAY_LOG(3, "log file [%s] can't be opened, %s", conf.log_file.c_str(), strerror(errno));
        return "";
    }
    close(fd);
    return conf.log_file;
}

void ApplyLogSettings(const RelaydConf& conf) {
    static const int original = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const bool hadFile = !Daemon::_strLogFile.empty();
    const std::string file = UsableLogFile(conf);
    Daemon::SetLogFile(file, conf.log_level);
    if (Daemon::IsForked()) {
        return;
    }
    if (!file.empty()) {
        (void)Daemon::OpenLogFile(file, STDERR_FILENO, O_CREAT | O_APPEND); // it could be opened
    } else if (hadFile && original >= 0) {
        (void)dup2(original, STDERR_FILENO);
    }
}

} // namespace ZARO::Relay::app
