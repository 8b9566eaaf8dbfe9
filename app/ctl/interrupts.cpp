#include "app/ctl/interrupts.h"

#include <time.h>

#include <algorithm>
#include <cerrno>

namespace ZARO::Relay::ctl {

Interrupts::Interrupts() {
    sigemptyset(&wanted_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaddset(&wanted_, number);
    }
    sigset_t blocked = wanted_;
    sigaddset(&blocked, SIGPIPE);
    (void)sigprocmask(SIG_BLOCK, &blocked, &before_); // can't fail with a set of real signals
}

Interrupts::~Interrupts() {
    (void)sigprocmask(SIG_SETMASK, &before_, nullptr);
}

bool Interrupts::Wait(app::milliseconds time) {
    const auto deadline = app::Clock::now() + time;
    while (!came_) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::max(app::Clock::duration::zero(), deadline - app::Clock::now()));
        const timespec wait = {static_cast<time_t>(left.count() / 1000000000),
                               static_cast<long>(left.count() % 1000000000)};
        if (sigtimedwait(&wanted_, nullptr, &wait) > 0) {
            came_ = true;
        } else if (errno != EINTR) { // the time is over
            break;
        }
    }
    return came_;
}

} // namespace ZARO::Relay::ctl
