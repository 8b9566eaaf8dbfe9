/// A simulated device's tunnel: one SSH session with its remote forward.
#pragma once

#include <functional>
#include <list>
#include <memory>

#include <boost/asio/steady_timer.hpp>
#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include "app/daemon/pace.h"
#include "bench/fleet_poll.h"
#include "bench/fleet_visitor.h"

namespace ZARO::Fleet {

/// Keeps the tunnel that the control server assigned, at the pace of the real device. For the
/// loop's thread.
class FleetTunnel {
public:
    /// `changed` is called when IsUp() may differ, `spread` tells over how long the
    /// devices come back when they have lost a relay.
    FleetTunnel(World& world, unsigned device, std::function<void()> changed,
                std::function<milliseconds()> spread);

    /// What the control server says. A tunnel that stands elsewhere moves at once.
    void Assign(const TunnelAddress& address);
    /// Logs in within `spread`, and again after each loss.
    void Start(milliseconds spread);
    /// Leaves without a word.
    void Stop();
    /// Loses a tunnel that is up, alone: it comes back at once.
    void Drop();
    /// The control server is back: a log-in that waits for longer than 2 s does so no more.
    void RetrySoon();

    bool IsUp() const { return step_ == Step::Up; }
    const TunnelAddress& Address() const { return address_; }

    unsigned tries = 0;    ///< log-ins begun
    unsigned failures = 0; ///< log-ins that came to nothing
    unsigned refusals = 0; ///< wrong passwords and refused forwards

private:
    enum class Step { Idle, Waiting, Connecting, KeyExchange, LogIn, Forward, Up };

    struct SessionFree {
        void operator()(ssh_session session) const { ssh_free(session); }
    };
    struct EventFree {
        void operator()(ssh_event event) const { ssh_event_free(event); }
    };
    using Error = boost::system::error_code;

    static int OnMessage(ssh_session session, ssh_message message, void* self);

    void Wait();
    void LogIn();
    bool Connected();
    void Watch(tcp::socket::wait_type what, bool& watched);
    /// Goes as far as what has arrived allows.
    void Advance();
    /// Takes the step that is under way. SSH_OK = done, SSH_AGAIN = later, else it failed.
    int TakeStep();
    int Pump();
    void BecomeUp();
    void Failed();
    void End();
    void SetLimit(milliseconds limit);
    void LimitReached();
    void KeepAlive();

    World& world_;
    const unsigned device_;
    const std::function<void()> changed_;
    const std::function<milliseconds()> spread_;
    TunnelAddress address_;
    bool wanted_ = false;
    Step step_ = Step::Idle;
    Relay::app::Pace pace_;
    Time begun_{};
    asio::steady_timer timer_;               ///< the next log-in, its end, or the next keep-alive
    std::shared_ptr<tcp::socket> socket_;    ///< watches the session's descriptor; libssh closes it
    bool reading_ = false, writing_ = false; ///< which events are waited for
    std::list<FleetVisitor> visitors_;
    std::unique_ptr<ssh_session_struct, SessionFree> session_;
    std::unique_ptr<ssh_event_struct, EventFree> event_;
    ssh_counter_struct traffic_{};
    std::uint64_t seen_ = 0; ///< bytes that had arrived at the last keep-alive
    int silent_ = 0;         ///< keep-alives in a row that got no answer
};

} // namespace ZARO::Fleet
