#include "app/log_target.h"

#include <fcntl.h>
#include <unistd.h>

#include <zarorelayd/daemon.h>

namespace ZARO::Relay::app {

void ApplyLogSettings(const RelaydConf& conf) {
    static const int original = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const bool hadFile = !Daemon::_strLogFile.empty();
    Daemon::SetLogFile(conf.log_file, conf.log_level);
    if (Daemon::IsForked()) {
        return;
    }
    if (!conf.log_file.empty()) {
        // Logged on failure; the lines then go where they went.
        (void)Daemon::OpenLogFile(conf.log_file, STDERR_FILENO, O_CREAT | O_APPEND);
    } else if (hadFile && original >= 0) {
        (void)dup2(original, STDERR_FILENO);
    }
}

} // namespace ZARO::Relay::app
