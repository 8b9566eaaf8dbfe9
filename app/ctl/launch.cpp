#include "app/ctl/launch.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "app/common/pid_file.h"
#include "app/ctl/control.h"
#include "app/ctl/report.h"
#include "base/json.h"
#include "base/paths.h"

namespace ZARO::Relay::ctl {

namespace {

constexpr app::milliseconds kPause{100};

/// How a child is started: with no signal blocked, in a process group that Ctrl-C does not reach,
/// and silent.
class QuietStart {
public:
    QuietStart() {
        sigset_t none;
        sigemptyset(&none);
        good_ =
            posix_spawnattr_init(&how_) == 0 && posix_spawn_file_actions_init(&files_) == 0 &&
            posix_spawnattr_setflags(&how_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK) == 0 &&
            posix_spawnattr_setpgroup(&how_, 0) == 0 &&
            posix_spawnattr_setsigmask(&how_, &none) == 0;
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            good_ =
                good_ && posix_spawn_file_actions_addopen(&files_, fd, "/dev/null", O_RDWR, 0) == 0;
        }
    }
    QuietStart(const QuietStart&) = delete;
    QuietStart& operator=(const QuietStart&) = delete;
    ~QuietStart() {
        (void)posix_spawnattr_destroy(&how_);
        (void)posix_spawn_file_actions_destroy(&files_);
    }

    bool Run(const std::string& program, char** arguments, pid_t& child) const {
        return good_ &&
               posix_spawn(&child, program.c_str(), &files_, &how_, arguments, environ) == 0;
    }

private:
    posix_spawnattr_t how_{};
    posix_spawn_file_actions_t files_{};
    bool good_ = false;
};

} // namespace

int LaunchDaemon() {
    std::string name = app::kDaemonName;
    std::string option = "--root";
    std::string root = paths::Root();
    char* arguments[] = {name.data(), root.empty() ? nullptr : option.data(), root.data(), nullptr};
    pid_t child = -1;
    if (!QuietStart().Run(DaemonProgram(), arguments, child)) {
        return -1;
    }
    int status = 0;
    pid_t ended = waitpid(child, &status, 0);
    while (ended < 0 && errno == EINTR) {
        ended = waitpid(child, &status, 0);
    }
    return ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool AwaitReload(const std::function<bool(const Json::Value&)>& isTaken, app::Time deadline,
                 Interrupts& interrupts) {
    int seen = 0;
    while (seen < 2 && app::Clock::now() < deadline && !interrupts.Wait(kPause)) {
        Json::Value dump;
        const bool answers = FetchDump(dump) == kSuccess;
        const Json::Value* config = answers ? json::Find(dump, "config") : nullptr;
        seen = config != nullptr && isTaken(*config) ? seen + 1 : 0;
    }
    return seen == 2;
}

Status AwaitStatus(const std::string& service, const std::function<bool(const Status&)>& isGood,
                   app::Time deadline, Interrupts& interrupts) {
    Status status = ReadStatus(service);
    while (!isGood(status) && app::Clock::now() < deadline && !interrupts.Wait(kPause)) {
        status = ReadStatus(service);
    }
    return status;
}

} // namespace ZARO::Relay::ctl
