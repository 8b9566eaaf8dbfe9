#include "hub/relay_line.h"

#include <fcntl.h>

namespace ZARO::RelayHub {

bool RelayLine::Start(ssh_bind bind, ssh_callbacks callbacks) {
    session_.reset(ssh_new());
    event_.reset(ssh_event_new());
    UniqueFd given(fcntl(fd_.Get(), F_DUPFD_CLOEXEC, 0));
    if (session_ == nullptr || event_ == nullptr || !given.IsOpen()) {
        return false;
    }
    const int result = ssh_bind_accept_fd(bind, session_.get(), given.Get());
    if (ssh_get_fd(session_.get()) == given.Get()) {
        (void)given.Release(); // it closes with the session
    }
    ssh_set_blocking(session_.get(), 0);
    ssh_set_counters(session_.get(), &traffic_, nullptr);
    ssh_set_auth_methods(session_.get(), SSH_AUTH_METHOD_PASSWORD);
    return result == SSH_OK && ssh_set_callbacks(session_.get(), callbacks) == SSH_OK;
}

bool RelayLine::Poll() {
    return !inEvent_ || ssh_event_dopoll(event_.get(), 0) != SSH_ERROR;
}

RelayLine::Exchange RelayLine::ExchangeKeys() {
    const int result = ssh_handle_key_exchange(session_.get());
    if (result == SSH_ERROR) {
        return Exchange::Failed;
    }
    if (!inEvent_) {
        inEvent_ = ssh_event_add_session(event_.get(), session_.get()) == SSH_OK;
    }
    return result == SSH_OK ? Exchange::Done : Exchange::UnderWay;
}

void RelayLine::Close() {
    if (inEvent_) {
        (void)ssh_event_remove_session(event_.get(), session_.get());
    }
    inEvent_ = false;
    if (session_ != nullptr) {
        ssh_silent_disconnect(session_.get());
    }
    event_.reset();
    session_.reset();
    (void)fd_.Close();
}

} // namespace ZARO::RelayHub
