/// One visitor's connection and the SSH channel that carries it to the device.
#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <string>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include "base/unique_fd.h"
#include "hub/relay_lane.h"
#include "hub/watch.h"

namespace ZARO::RelayHub {

class RelayVisitor;
class RelayVisitors;
using Visitors = std::list<std::shared_ptr<RelayVisitor>>;

/// Owns the connection and the channel. For the thread of its session's loop. Memory is bounded:
/// what the visitor sends is read only while the device's window has room, and what the device
/// sends waits in the channel, whose window closes then. A channel that ended here stays until the
/// device has ended it too: the library would go on to gather what comes for it.
class RelayVisitor : public std::enable_shared_from_this<RelayVisitor> {
public:
    using Clock = std::chrono::steady_clock;

    /// `all` outlives the connection, `session` the channel.
    RelayVisitor(RelayLane& lane, RelayVisitors& all, ssh_session session, UniqueFd fd);
    RelayVisitor(const RelayVisitor&) = delete;
    RelayVisitor& operator=(const RelayVisitor&) = delete;
    ~RelayVisitor() { Abandon(); }

    /// Asks the device to open the channel; `address` and `port` are those of its forward request.
    void Open(const std::string& address, int port);
    /// Checks whether it did. To be called when something came from the device.
    void AwaitOpening();
    bool IsOpening() const { return state_ == State::Opening; }
    /// Moves what can be moved, reads from the visitor only if `mayRead`, and sees to it that it is
    /// told of what comes next. Returns how many bytes went to the device.
    std::size_t Move(bool mayRead);
    /// Whether the visitor has more for the device.
    bool HasMore() const { return readable_ && WantsRead(); }
    /// Whether the device has to do something before more can go to it.
    bool IsHeldUp() const {
        return state_ == State::Open && !IsGone() && (!unsent_.empty() || windowShut_);
    }
    /// Whether it may have done so.
    bool CanResume() const;
    /// Ends the visitor's connection at once, and the channel with it.
    void End();
    /// Lets go of the connection and the channel, before the session does.
    void Abandon();
    /// Whether the visitor's connection has ended.
    bool IsGone() const { return !fd_.IsOpen(); }
    /// Whether it has not taken what waits for it for too long.
    bool IsStuck() const;
    /// Whether both sides are through with it.
    bool IsDone() const { return state_ == State::Done; }
    /// Whether the device sent more than it was allowed to.
    bool IsOverrun() const { return overrun_; }

private:
    friend class RelayVisitors;
    enum class State { Opening, Open, Leaving, Done };

    static int OnData(ssh_session session, ssh_channel channel, void* data, std::uint32_t size,
                      int isError, void* self);
    static void OnEof(ssh_session session, ssh_channel channel, void* self);
    static void OnClose(ssh_session session, ssh_channel channel, void* self);

    /// Sets `flag` and has the visitor served when its connection is ready.
    void Await(Watch::Kind kind, bool& flag);
    bool WantsRead() const;
    std::size_t MoveOpen(bool mayRead);
    std::size_t ToDevice();
    void ToVisitor();
    /// Sends to the visitor what it takes at once, and returns how much. A broken connection takes
    /// everything.
    std::size_t Send(const char* data, std::size_t size);
    void Moved();
    void Touch() noexcept;
    bool IsDrained() const { return pending_.empty() && !backlog_; }

    RelayLane& lane_;
    RelayVisitors& all_;
    Visitors::iterator place_; ///< for `all_`, as are the next four: where it is listed
    bool listed_ = true;
    bool leaving_ = false; ///< in the list of those
    bool inQueue_ = false; ///< of those to be served
    bool heldUp_ = false;  ///< in the list of those
    ssh_channel channel_;
    ssh_channel_callbacks_struct callbacks_{};
    UniqueFd fd_; ///< gone as soon as the visitor is
    Watch watch_;
    State state_ = State::Opening;
    std::string forwardAddress_; ///< as the device asked for it
    int forwardPort_ = 0;
    std::string peerAddress_; ///< of the visitor
    int peerPort_ = 0;
    Clock::time_point movedAt_; ///< when a byte went to or came from the visitor last
    std::string unsent_;        ///< read from the visitor, not yet taken by the channel
    std::string pending_;       ///< read from the channel, not yet taken by the visitor
    bool backlog_ = false;      ///< the channel has data that waits for the visitor
    bool readable_ = false;     ///< the connection has something to read, as far as is known
    bool writable_ = false;     ///< it takes something
    bool hungUp_ = false;       ///< it is lost, though what came before may be unread
    bool windowShut_ = false;   ///< the device takes no more for the moment
    bool visitorEnded_ = false; ///< the visitor sends no more, and the device knows
    bool deviceEnded_ = false;  ///< the device sends no more
    bool deviceClosed_ = false;
    bool toldVisitor_ = false; ///< the visitor knows that the device sends no more
    bool broken_ = false;      ///< the visitor is gone
    bool overrun_ = false;
};

} // namespace ZARO::RelayHub
