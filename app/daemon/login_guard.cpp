#include "app/daemon/login_guard.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "base/unique_fd.h"

namespace ZARO::Relay::app {

namespace {

volatile sig_atomic_t gLoginRuns = 0;
volatile sig_atomic_t gStopRequested = 0;
pid_t gDaemon = -1;
struct sigaction gFormer[NSIG];

/// The decimal number at the beginning of a text; 0 when there is none.
pid_t NumberAt(const char* text) {
    pid_t number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        number = number * 10 + (*text - '0');
    }
    return number;
}

/// The parent of the process with that folder in /proc; 0 when it has gone.
pid_t ParentOf(int proc, const char* process) {
    const UniqueFd folder(openat(proc, process, O_PATH | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd file(openat(folder.Get(), "stat", O_RDONLY | O_CLOEXEC));
    char text[512];
    const ssize_t length = read(file.Get(), text, sizeof text - 1);
    text[length > 0 ? length : 0] = '\0';
    // "PID (NAME) STATE PARENT ...": the name may hold anything, but only numbers come after it.
    const char* name = strrchr(text, ')');
    return name != nullptr && strlen(name) > 4 ? NumberAt(name + 4) : 0;
}

/// Signals every child; a stop ends them all in any case. A signal handler may not use readdir,
/// which allocates, and not every kernel has a list of children in /proc.
void SignalChildren(int signal) {
    const UniqueFd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    alignas(dirent64) char entries[4096];
    for (long size = 1; size > 0;) {
        size = syscall(SYS_getdents64, proc.Get(), entries, sizeof entries);
        for (long at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(entries + at);
            const pid_t process = NumberAt(entry->d_name);
            if (process > 0 && ParentOf(proc.Get(), entry->d_name) == gDaemon) {
                (void)kill(process, signal);
            }
            at += entry->d_reclen;
        }
    }
}

/// A client that is being started has these handlers until it is executed. In that process a stop
/// signal must end the client alone: it must not reach the daemon's children or its signal pipe.
void EndIfClient() {
    if (getpid() != gDaemon) {
        _exit(127);
    }
}

void OnStopSignal(int signal) {
    EndIfClient();
    const int saved = errno;
    gFormer[signal].sa_handler(signal);
    gStopRequested = 1;
    if (gLoginRuns != 0) {
        SignalChildren(SIGTERM);
        alarm(1);
    }
    errno = saved;
}

/// A client that was only being started when the stop came has missed the first signal, and one
/// that hangs or was stopped does not act on it.
void OnAlarm(int) {
    EndIfClient();
    const int saved = errno;
    if (gLoginRuns != 0) {
        SignalChildren(SIGKILL);
        alarm(1);
    }
    errno = saved;
}

} // namespace

void EndLoginsOnStopSignals() {
    gDaemon = getpid();
    struct sigaction onAlarm = {};
    onAlarm.sa_handler = OnAlarm;
    (void)sigaction(SIGALRM, &onAlarm, nullptr);
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
        if (sigaction(signal, nullptr, &gFormer[signal]) != 0 ||
            (gFormer[signal].sa_flags & SA_SIGINFO) != 0 || gFormer[signal].sa_handler == SIG_DFL ||
            gFormer[signal].sa_handler == SIG_IGN) {
            continue; // it was not routed, and keeps its effect
        }
        struct sigaction action = gFormer[signal];
        action.sa_handler = OnStopSignal;
        (void)sigaction(signal, &action, nullptr);
    }
}

LoginGuard::LoginGuard() {
    gLoginRuns = 1;
    if (gStopRequested != 0) {
        alarm(1);
    }
}

LoginGuard::~LoginGuard() {
    gLoginRuns = 0;
}

} // namespace ZARO::Relay::app
