#include "common.h"

#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <sys/wait.h>

#include <array>

namespace ZARO::Platform {
namespace {

constexpr size_t kMaxArguments = 63; // with the program's own name

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
