/// One visitor's connection and the SSH channel that carries it to the device.
#pragma once

#include <poll.h>

#include <chrono>
#include <string>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include "base/unique_fd.h"

namespace ZARO::RelayHub {

/// Owns the connection and the channel. For its session's thread only. Memory is bounded: what the
/// visitor sends is read only while the device's window has room, and what the device sends waits
/// in the channel, whose window closes then. A channel that ended here stays until the device has
/// ended it too: the library would go on to gather what comes for it.
class RelayVisitor {
public:
    using Clock = std::chrono::steady_clock;

    /// How much is read from a visitor at once, so that it doesn't keep the others waiting.
    static constexpr std::size_t kChunk = std::size_t{32} * 1024;

    RelayVisitor(ssh_session session, UniqueFd fd);
    RelayVisitor(const RelayVisitor&) = delete;
    RelayVisitor& operator=(const RelayVisitor&) = delete;
    ~RelayVisitor();

    /// Asks the device to open the channel; `address` and `port` are those of its forward request.
    void Open(const std::string& address, int port);
    /// Checks whether it did. To be called when something came from the device.
    void AwaitOpening();
    /// What to poll() for. `sending` = the session takes data for the device at the moment.
    pollfd Wanted(bool sending);
    /// Moves what can be moved; `events` are those that poll() gave. `buffer` is a scratch area of
    /// kChunk bytes.
    void Move(short events, Clock::time_point now, char* buffer);
    /// Ends the visitor's connection at once, and the channel with it.
    void End();
    /// Whether the visitor's connection has ended.
    bool IsGone() const { return !fd_.IsOpen(); }
    /// When a byte went to or came from the visitor last.
    Clock::time_point MovedAt() const { return movedAt_; }
    /// Whether both sides are through with it.
    bool IsDone() const { return state_ == State::Done; }
    /// Whether the device sent more than it was allowed to.
    bool IsOverrun() const { return overrun_; }

private:
    enum class State { Opening, Open, Leaving, Done };

    static int OnData(ssh_session session, ssh_channel channel, void* data, std::uint32_t size,
                      int isError, void* self);
    static void OnEof(ssh_session session, ssh_channel channel, void* self);
    static void OnClose(ssh_session session, ssh_channel channel, void* self);

    void MoveOpen(short events, char* buffer);
    void ToDevice(char* buffer);
    void ToVisitor(char* buffer);
    /// Sends to the visitor what it takes at once, and returns how much. A broken connection takes
    /// everything.
    std::size_t Send(const char* data, std::size_t size);
    bool IsDrained() const { return pending_.empty() && !backlog_; }

    ssh_channel channel_;
    ssh_channel_callbacks_struct callbacks_{};
    UniqueFd fd_; ///< gone as soon as the visitor is
    State state_ = State::Opening;
    std::string forwardAddress_; ///< as the device asked for it
    int forwardPort_ = 0;
    std::string peerAddress_; ///< of the visitor
    int peerPort_ = 0;
    Clock::time_point movedAt_ = Clock::now();
    std::string unsent_;        ///< read from the visitor, not yet taken by the channel
    std::string pending_;       ///< read from the channel, not yet taken by the visitor
    bool backlog_ = false;      ///< the channel has data that waits for the visitor
    bool visitorEnded_ = false; ///< the visitor sends no more, and the device knows
    bool deviceEnded_ = false;  ///< the device sends no more
    bool deviceClosed_ = false;
    bool toldVisitor_ = false; ///< the visitor knows that the device sends no more
    bool reading_ = false;     ///< the last poll() was to tell of data from the visitor
    bool broken_ = false;      ///< the visitor is gone
    bool overrun_ = false;
};

} // namespace ZARO::RelayHub
