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

bool OwnLock::TryOnce() {
    if (!fd_.IsOpen()) {
        fd_ = UniqueFd(open(path_.c_str(), kFlags | O_CREAT, 0600));
    }
    return fd_.IsOpen() && flock(fd_.Get(), LOCK_EX | LOCK_NB) == 0;
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
    const UniqueFd fd(open(path.c_str(), kFlags));
    if (!fd.IsOpen()) {
        return errno != ENOENT;
    }
    // Shared and for this instant, so that others who ask at the same time do not see it.
    return flock(fd.Get(), LOCK_SH | LOCK_NB) != 0;
}

} // namespace ZARO::Relay::app
