#include "common.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>

#include "base/unique_fd.h"

namespace ZARO::Platform {
namespace {

constexpr size_t kMaxArguments = 63; // with the program's own name
constexpr int kPatienceMs = 10000;

/// A program started by a daemon begins like one started by a shell: what the daemon blocks or
/// ignores is the daemon's own affair.
class CleanSignals {
public:
    CleanSignals() {
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        error_ = posix_spawnattr_init(&attributes_);
        if (error_ == 0) {
            posix_spawnattr_setsigdefault(&attributes_, &all);
            posix_spawnattr_setsigmask(&attributes_, &none);
            posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        }
    }
    ~CleanSignals() {
        if (error_ == 0) {
            posix_spawnattr_destroy(&attributes_);
        }
    }
    CleanSignals(const CleanSignals&) = delete;
    CleanSignals& operator=(const CleanSignals&) = delete;

    int Error() const { return error_; }
    const posix_spawnattr_t* Get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_{};
    int error_ = 0;
};

/// Waits for a program's end and kills it when that takes too long: the caller may be a daemon with
/// other things to do. On kernels without process descriptors there is no limit.
void EndAfter(pid_t pid, int milliseconds) {
    const UniqueFd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd.IsOpen()) {
        return;
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    int ready = -1;
    int left = milliseconds;
    do {
        pollfd entry = {pidfd.Get(), POLLIN, 0};
        ready = poll(&entry, 1, left);
        left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    end - std::chrono::steady_clock::now())
                                    .count());
    } while (ready < 0 && errno == EINTR && left > 0);
    if (ready != 1) {
        kill(pid, SIGKILL);
    }
}

int Run(char* const* argv) {
    const CleanSignals signals;
    pid_t pid = -1;
    int error = signals.Error();
    if (error == 0) {
        // Unlike fork and exec by hand this reports a failed exec by itself, with no child left.
        error = posix_spawn(&pid, argv[0], nullptr, signals.Get(), argv, environ);
    }
    if (error != 0) {
        return Fail(error);
    }
    EndAfter(pid, kPatienceMs);
    int status = 0;
    while (waitpid(pid, &status, 0) != pid) {
        if (errno != EINTR) {
            return Fail(errno);
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : Fail(EINTR);
}

} // namespace
} // namespace ZARO::Platform

using namespace ZARO::Platform;

int TLIBCExec(const char* program, ...) {
    std::array<char*, kMaxArguments + 1> argv{const_cast<char*>(program)}; // exec won't write there
    if (program == nullptr) {
        return Fail(EINVAL);
    }
    va_list arguments;
    va_start(arguments, program);
    size_t last = 0;
    while (argv[last] != nullptr && last < kMaxArguments) {
        argv[++last] = va_arg(arguments, char*);
    }
    va_end(arguments);
    return argv[last] == nullptr ? Run(argv.data()) : Fail(E2BIG);
}
