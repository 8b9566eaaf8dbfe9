#include "app/login_guard.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <initializer_list>

namespace ZARO::Relay::app {

namespace {

volatile sig_atomic_t gLoginRuns = 0;
volatile sig_atomic_t gStopRequested = 0;
pid_t gDaemon = -1;
char gChildrenFile[64];
struct sigaction gFormer[NSIG];

/// Asks every child to end; a stop ends them all in any case. Async-signal-safe.
void EndChildren() {
    const int fd = open(gChildrenFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    char text[4096];
    const ssize_t length = read(fd, text, sizeof text);
    close(fd);
    pid_t pid = 0;
    for (ssize_t i = 0; i < length; ++i) {
        if (text[i] >= '0' && text[i] <= '9') {
            pid = pid * 10 + (text[i] - '0');
        } else if (pid > 0) {
            kill(pid, SIGTERM);
            pid = 0;
        }
    }
}

/// A client that is being started still has these handlers until it is executed: there a stop means
/// its own end, not that of the daemon's children, and not a byte in the daemon's signal pipe.
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
        EndChildren();
        alarm(1);
    }
    errno = saved;
}

/// A client that was only being started when the stop came has missed the first signal.
void OnAlarm(int) {
    EndIfClient();
    const int saved = errno;
    if (gLoginRuns != 0) {
        EndChildren();
        alarm(1);
    }
    errno = saved;
}

} // namespace

void EndLoginsOnStopSignals() {
    gDaemon = getpid();
    (void)snprintf(gChildrenFile, sizeof gChildrenFile, "/proc/%d/task/%d/children", gDaemon,
                   gDaemon);
    struct sigaction onAlarm = {};
    onAlarm.sa_handler = OnAlarm;
    (void)sigaction(SIGALRM, &onAlarm, nullptr);
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
        if (sigaction(signal, nullptr, &gFormer[signal]) != 0 ||
            (gFormer[signal].sa_flags & SA_SIGINFO) != 0 || gFormer[signal].sa_handler == SIG_DFL ||
            gFormer[signal].sa_handler == SIG_IGN) {
            continue; // nothing was routed: the signal does what it does
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
