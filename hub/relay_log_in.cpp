#include "hub/relay_log_in.h"

#include <chrono>
#include <utility>

#include <libssh/server.h>

namespace ZARO::RelayHub {

namespace {

constexpr int kMaxTries = 3;                            // wrong passwords
constexpr auto kRefusalDelay = std::chrono::seconds(1); // from the question to the refusal

/// The library wants passwords to be read in a callback that has to answer at once. Ours can't.
const char* PasswordOf(ssh_message message) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return ssh_message_auth_password(message);
#pragma GCC diagnostic pop
}

} // namespace

RelayLogIn::RelayLogIn(RelayHost& host, RelayLane& lane, ssh_session session, Check check)
    : host_(host), session_(session), check_(std::move(check)), delay_(lane.loop.get_executor()) {
}

void RelayLogIn::Cancel() {
    (void)delay_.cancel();
    pending_.reset();
    state_ = State::Over;
}

void RelayLogIn::Read() {
    while (state_ == State::Open && !IsBusy()) {
        Message message(ssh_message_get(session_));
        if (message == nullptr) {
            return;
        }
        Handle(std::move(message));
    }
}

void RelayLogIn::Handle(Message message) {
    const bool isPassword = ssh_message_type(message.get()) == SSH_REQUEST_AUTH &&
                            ssh_message_subtype(message.get()) == SSH_AUTH_METHOD_PASSWORD;
    const char* user = isPassword ? ssh_message_auth_user(message.get()) : nullptr;
    const char* password = isPassword ? PasswordOf(message.get()) : nullptr;
    if (user == nullptr || password == nullptr) {
        (void)ssh_message_reply_default(message.get()); // grants the service, refuses the rest
        return;
    }
    pending_ = std::move(message);
    askedAt_ = Clock::now();
    check_(user, password);
}

void RelayLogIn::Answer(bool granted) {
    if (!IsBusy()) {
        return;
    }
    if (granted) {
        (void)ssh_message_auth_reply_success(pending_.get(), 0);
        pending_.reset();
        state_ = State::Granted;
        host_.Wake();
        return;
    }
    delay_.expires_at(askedAt_ + kRefusalDelay);
    delay_.async_wait(
        [this, alive = host_.shared_from_this()](const boost::system::error_code& failed) {
            if (!failed && IsBusy()) {
                Refuse();
            }
        });
}

void RelayLogIn::Refuse() {
    (void)ssh_message_reply_default(pending_.get());
    pending_.reset();
    state_ = ++tries_ >= kMaxTries ? State::Over : state_;
    host_.Wake();
}

} // namespace ZARO::RelayHub
