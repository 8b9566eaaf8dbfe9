/// A stop request must not wait for a relay that does not answer.
#pragma once

namespace ZARO::Relay::app {

/// Makes SIGTERM, SIGINT and SIGQUIT end the SSH client that is logging in while a LoginGuard
/// stands, on top of what they did before. To be called once, after those signals were routed.
void EndLoginsOnStopSignals();

/// Stands while a log-in blocks the loop.
class LoginGuard {
public:
    LoginGuard();
    LoginGuard(const LoginGuard&) = delete;
    LoginGuard& operator=(const LoginGuard&) = delete;
    ~LoginGuard();
};

} // namespace ZARO::Relay::app
