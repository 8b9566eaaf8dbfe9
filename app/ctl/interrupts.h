/// Ctrl-C and its like, taken in order.
#pragma once

#include <signal.h>

#include "app/common/clock.h"

namespace ZARO::Relay::ctl {

/// While it exists, SIGINT, SIGTERM, SIGHUP and SIGQUIT end nothing by themselves, and a closed
/// pipe makes writing fail instead. For the one thread of the program.
class Interrupts {
public:
    Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;
    ~Interrupts();

    /// Waits that long. True, and at once, when such a signal has come, now or before.
    bool Wait(app::milliseconds time);

private:
    sigset_t wanted_{};
    sigset_t before_{};
    bool came_ = false;
};

} // namespace ZARO::Relay::ctl
