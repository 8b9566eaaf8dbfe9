#include "app/common/own_lock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace ZARO::Relay::app {

namespace {

constexpr int kPauseMs = 5;
constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

} // namespace

OwnLock::OwnLock(std::string path) : path_(std::move(path)) {
}

bool OwnLock::TryOnce() {
    if (!fd_.IsOpen()) {
        fd_ = UniqueFd(open(path_.c_str(), kFlags, 0600));
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

} // namespace ZARO::Relay::app
