/// One SSH session of a device: the log-in, the one forward it may have, and its visitors.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include <boost/asio/basic_waitable_timer.hpp>
#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include "hub/net.h"
#include "hub/relay_lane.h"
#include "hub/relay_line.h"
#include "hub/relay_log_in.h"
#include "hub/relay_port.h"
#include "hub/relay_visitors.h"
#include "hub/watch.h"

namespace ZARO::RelayHub {

class RelaySession;
using SessionPtr = std::shared_ptr<RelaySession>;

/// What a session needs of the relay. Called on the session's loop; nothing blocks.
class RelayDesk {
public:
    /// The session has something to read and has not logged in. False = not now: the desk calls its
    /// Resume() when it has its turn.
    virtual bool MayProceed(RelaySession& session) = 0;
    /// The session came a step further in its log-in.
    virtual void Advance(RelaySession& session) = 0;
    /// Finds out whether `password` is that of the tunnel with the session's user, then calls the
    /// session's Answer(), now or later. If it is, the tunnel belongs to this session by then, and
    /// its former session ends.
    virtual void LogIn(const SessionPtr& session, const std::string& password) = 0;
    /// The tunnel's port, open from now on; null when `port` is not the one assigned to it.
    virtual std::shared_ptr<RelayPort> OpenPort(RelaySession& session, int port) = 0;
    /// The session is over; it makes no call from now on.
    virtual void Leave(RelaySession& session) = 0;

protected:
    ~RelayDesk() = default;
};

/// Lives on the loop of its lane, for whose thread all methods are, unless they say otherwise.
/// Nothing blocks.
class RelaySession : public RelayHost {
public:
    using Clock = std::chrono::steady_clock;

    /// `fd` is a fresh connection. `desk` and `lane` outlive the session's last call. Any thread.
    RelaySession(RelayDesk& desk, RelayLane& lane, UniqueFd fd);
    RelaySession(const RelaySession&) = delete;
    RelaySession& operator=(const RelaySession&) = delete;
    ~RelaySession() override { Release(); }

    /// Serves the device from now on until it leaves, is silent for too long or End() is called.
    /// Any thread; called once.
    void Start();
    /// It has its turn. Any thread.
    void Resume();
    /// Ends it soon. Any thread.
    void End();
    bool IsEnded() const { return ended_; }
    /// Whether its connection is gone.
    bool IsOver() const { return released_; }
    /// Whether the password that it asked for is the right one.
    void Answer(bool granted);
    void Wake() override;

    /// The user that it wants to log in as, or has.
    const std::string& User() const { return user_; }
    RelayLane& Lane() { return lane_; }
    /// The device's address. Not to be called when it is over.
    std::string Peer() const {
        int port = 0;
        return PeerOf(line_.Get(), port);
    }

private:
    enum class State { KeyExchange, LogIn, LoggedIn, Serving, Over };
    using Timer = asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, Loop::executor_type>;

    static void OnGlobalRequest(ssh_session session, ssh_message message, void* self);
    static int OnMessage(ssh_session session, ssh_message message, void* self);

    SessionPtr Self() { return std::static_pointer_cast<RelaySession>(shared_from_this()); }
    void Greet();
    bool Prepare();
    /// Serves the session unless it is over. A failure ends it.
    void Pass();
    /// Handles what is ready, up to a bound, and sees to it that it is told of what comes next.
    void Serve();
    void MoveData();
    void PollLine();
    void HandleInput();
    void AwaitMore();
    Clock::time_point NextDue() const;
    void SetTimer();
    void OnTimer();
    bool IsListening() const;
    void CheckClock();
    void KeepAlive();
    void Over(const char* why);
    void Finish();
    /// Lets go of everything but this object's memory.
    void Release();
    /// Opens the device's port. False when it is not the device's, or open already.
    bool Forward(ssh_message message);

    RelayDesk& desk_;
    RelayLane& lane_;
    ssh_callbacks_struct callbacks_{};
    RelayLine line_;
    std::uint64_t seenTraffic_ = 0; ///< bytes from the device that were handled
    std::atomic<bool> ended_{false};
    Watch watch_;
    Timer timer_;
    Clock::time_point timerDue_ = Clock::time_point::max();

    State state_ = State::KeyExchange;
    bool lineReady_ = false; ///< the connection is worth a look
    bool lineFull_ = false;  ///< it takes no data at the moment
    bool waits_ = false;     ///< for its turn
    bool posted_ = false;    ///< a pass is under way or comes soon
    bool released_ = false;
    Clock::time_point waitsSince_; ///< while it waits for its turn
    Clock::time_point deadline_;   ///< by which it must be served
    Clock::time_point heard_;      ///< when the device last sent something
    Clock::time_point clear_;      ///< when the line to the device was last free of waiting data
    Clock::time_point probe_;      ///< when to send the next keep-alive

    std::string user_;
    int port_ = 0;                            ///< of the tunnel
    std::unique_ptr<RelayLogIn> logIn_;       ///< gone when it is through
    std::unique_ptr<RelayVisitors> visitors_; ///< from the forward on
};

} // namespace ZARO::RelayHub
