/// Tells the hub's processes, on one host or several, what each of them changed in the database.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "hub/changes.h"
#include "hub/waker.h"

namespace ZARO::RelayHub {

class BusLink;

/// Carries changes from each process to all others that use the same database. It only hints: what
/// gets lost is made up for by `onMissed`. It owns one thread and one connection to the database.
class Bus {
public:
    /// Both are called by the bus's thread, must not throw and should not take long.
    struct Listener {
        std::function<void(const Changes&)> onChanges; ///< another process changed this
        /// Anything may have changed: read everything again. Also called whenever the bus begins
        /// to listen, so at the start and after the database was away.
        std::function<void()> onMissed;
    };

    /// `target` names the database as for Store::Open.
    explicit Bus(std::string target);
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    ~Bus() { Stop(); }

    /// Starts the thread, which reaches for the database by itself, again and again. False with the
    /// reason in `error`.
    bool Start(Listener listener, std::string& error);
    /// Sends what was published, waits for the thread and ends it. May be called twice.
    void Stop();

    /// Tells all other processes soon of changes that are committed. Those from before Start() are
    /// kept until then.
    /// Any thread may call it. It doesn't block.
    void Publish(const Changes& changes);

private:
    using Clock = std::chrono::steady_clock;

    void Run() noexcept;
    /// Listens and sends until the bus stops. Throws when the connection is lost.
    void Serve(BusLink& link);
    /// `complete` = no message was lost.
    void Deliver(const std::vector<std::string>& texts, bool complete) const;
    std::chrono::milliseconds UntilBatch();
    void SendBatch(BusLink& link);
    /// The connection is lost, and with it what was gathered.
    void Lose();
    void ResetWaker() const;

    const std::string target_;
    const std::string origin_; ///< marks this process's messages
    Listener listener_;
    Waker waker_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    std::mutex mutex_;  ///< guards the following
    bool lost_ = false; ///< something could not be sent: the others are to read everything
    Changes gathered_;
    Clock::time_point due_; ///< when to send it, if there is anything
};

} // namespace ZARO::RelayHub
