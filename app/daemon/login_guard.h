/// A stop request must not wait for a relay that does not answer.
#pragma once

namespace ZARO::Relay::app {

/// Makes SIGTERM, SIGINT and SIGQUIT also end the SSH client that is logging in while there is
/// a LoginGuard. To be called once, after those signals were routed.
void EndLoginsOnStopSignals();

/// To be held while a log-in blocks the loop.
class LoginGuard {
public:
    LoginGuard();
    LoginGuard(const LoginGuard&) = delete;
    LoginGuard& operator=(const LoginGuard&) = delete;
    ~LoginGuard();
};

} // namespace ZARO::Relay::app
