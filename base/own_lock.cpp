#include "base/own_lock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "base/unique_fd.h"

namespace ZARO {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPauseMs = 5;
constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

} // namespace

OwnLock::OwnLock(std::string path) : path_(std::move(path)) {
}

bool OwnLock::Open() {
    UniqueFd fd(open(path_.c_str(), kFlags, 0600));
    struct stat info = {};
    if (!fd.IsOpen() || fstat(fd.Get(), &info) != 0) {
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        errno = EPERM;
        return false;
    }
    (void)fchmod(fd.Get(), 0600); // one that was copied or restored may be open to others
    fd_ = std::move(fd);
    return true;
}

bool OwnLock::TryOnce() {
    return (fd_.IsOpen() || Open()) && flock(fd_.Get(), LOCK_EX | LOCK_NB) == 0;
}

bool OwnLock::Take(std::chrono::milliseconds patience) {
    const Clock::time_point deadline = Clock::now() + patience;
    bool locked = TryOnce();
    while (!locked && (errno == EWOULDBLOCK || errno == EINTR) && Clock::now() < deadline) {
        (void)poll(nullptr, 0, kPauseMs);
        locked = TryOnce();
    }
    return locked;
}

} // namespace ZARO
