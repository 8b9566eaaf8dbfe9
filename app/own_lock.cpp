#include "app/own_lock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace ZARO::Relay::app {

namespace {

constexpr int kPauseMs = 5;
constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

} // namespace

OwnLock::OwnLock(std::string path) : path_(std::move(path)) {
}

OwnLock::~OwnLock() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool OwnLock::TryOnce() {
    if (fd_ < 0) {
        fd_ = open(path_.c_str(), kFlags | O_CREAT, 0600);
    }
    return fd_ >= 0 && flock(fd_, LOCK_EX | LOCK_NB) == 0;
}

bool OwnLock::Take(milliseconds patience) {
    const Time deadline = Clock::now() + patience;
    bool locked = TryOnce();
    while (!locked && errno == EWOULDBLOCK && Clock::now() < deadline) {
        (void)poll(nullptr, 0, kPauseMs);
        locked = TryOnce();
    }
    return locked;
}

bool MayBeLocked(const std::string& path) {
    const int fd = open(path.c_str(), kFlags);
    if (fd < 0) {
        return errno != ENOENT;
    }
    // Shared and for this instant, so that others who ask at the same time do not see it.
    const bool locked = flock(fd, LOCK_SH | LOCK_NB) != 0;
    close(fd);
    return locked;
}

} // namespace ZARO::Relay::app
