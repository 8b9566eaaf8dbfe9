/// All visitors of one session.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <string>

#include <boost/asio/basic_waitable_timer.hpp>

#include "hub/relay_port.h"
#include "hub/relay_visitor.h"

namespace ZARO::RelayHub {

/// Accepts them at the tunnel's port and serves them in turn. For the thread of the session's loop.
class RelayVisitors {
public:
    using Clock = std::chrono::steady_clock;

    /// `host` is the session that this object is part of. It is woken when there is something to
    /// do.
    RelayVisitors(RelayHost& host, RelayLane& lane, ssh_session session);
    ~RelayVisitors() { Clear(); }

    /// Accepts visitors at `port` from now on. The device called it `address` and `number`.
    void Use(std::shared_ptr<RelayPort> port, std::string address, int number);
    /// Something came from the device.
    void Hear();
    /// Moves what can be moved, at most about `most` bytes to the device; reads nothing for it
    /// unless `mayRead`. Returns how many bytes went to the device.
    std::size_t Serve(bool mayRead, std::size_t most);
    /// Whether Serve() has something to do at once, if it may read.
    bool HasWork() const { return !queue_.empty(); }
    /// Ends those that have been stuck for too long. To be called now and then.
    void EndStuckOnes();
    /// Whether the device sent more than its windows allow.
    bool IsOverrun() const { return overrun_; }
    /// Ends all of them and closes the port's watch. To be called before the session goes.
    void Clear();

private:
    friend class RelayVisitor;

    /// Has it served in its turn.
    void Touch(RelayVisitor& visitor);
    /// It is the one that moved last.
    void Moved(RelayVisitor& visitor);
    /// Keeps the lists in order after it was served.
    void Settle(const std::shared_ptr<RelayVisitor>& visitor);
    void Accept();
    void AwaitVisitors();
    void Rest(const char* why);
    /// Ends the visitor that has been idle longest if there is no room for another.
    void MakeRoom();
    bool HasRoom() const;

    RelayHost& host_;
    RelayLane& lane_;
    const ssh_session session_;
    std::shared_ptr<RelayPort> port_;
    Watch watch_;
    asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, Loop::executor_type> rest_;
    bool knocked_ = false;    ///< somebody waits at the port
    bool resting_ = false;    ///< no visitor is accepted, after a shortage
    bool inShortage_ = false; ///< and it was logged
    std::string address_;     ///< as the device sent it; every channel names it again
    int number_ = 0;

    Visitors present_; ///< the one that has been idle longest comes first
    Visitors leaving_; ///< gone, but the device has not let them go
    Visitors opening_; ///< those whose channel is not open yet
    Visitors heldUp_;  ///< who have more for the device than it takes at the moment
    std::deque<std::shared_ptr<RelayVisitor>> queue_; ///< those to be served
    bool overrun_ = false;
};

} // namespace ZARO::RelayHub
