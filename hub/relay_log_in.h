/// The log-in of one SSH session: reads its requests and answers them when the answer is known.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/basic_waitable_timer.hpp>
#include <libssh/libssh.h>

#include "hub/relay_lane.h"

namespace ZARO::RelayHub {

/// Takes passwords only. A wrong one is refused after a second, which costs nobody else anything,
/// and the third one is the last. For the thread of the session's loop.
class RelayLogIn {
public:
    /// Asks whether the password is right; Answer() is to be called then or later.
    using Check = std::function<void(const std::string& user, const std::string& password)>;
    enum class State { Open, Granted, Over };

    /// `host` is the session that this object is part of; it is woken when the state changes.
    RelayLogIn(RelayHost& host, RelayLane& lane, ssh_session session, Check check);
    ~RelayLogIn() { Cancel(); }

    /// Handles the requests that came.
    void Read();
    /// Whether an answer is due, so that nothing should be read from the device.
    bool IsBusy() const { return pending_ != nullptr; }
    void Answer(bool granted);
    State Result() const { return state_; }
    /// Drops the request that waits for its answer. To be called before the session goes.
    void Cancel();

private:
    using Clock = std::chrono::steady_clock;
    struct MessageFree {
        void operator()(ssh_message message) const { ssh_message_free(message); }
    };
    using Message = std::unique_ptr<ssh_message_struct, MessageFree>;

    void Handle(Message message);
    void Refuse();

    RelayHost& host_;
    const ssh_session session_;
    const Check check_;
    Message pending_;
    Clock::time_point askedAt_{}; ///< when `pending_` came
    asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, Loop::executor_type> delay_;
    int tries_ = 0;
    State state_ = State::Open;
};

} // namespace ZARO::RelayHub
