/// The held wait requests: one per device, answered as soon as the device's tunnel list changes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "hub/loops.h"
#include "hub/store.h"

namespace ZARO::RelayHub {

/// A held request costs a seat, no thread. Any thread may call any method; none blocks, except as
/// told. To be destroyed after the loops have stopped.
class Waiters {
    struct Seat;

public:
    /// Answers with the list, whose revision is given, 0 = the device is gone; false = the store
    /// failed, so that it is called again later. Without a revision it is to answer that the hub
    /// failed. Called on a worker, one call at a time; must not throw.
    using Answer = std::function<bool(std::optional<int> revision)>;
    /// Names a held request; empty = none.
    using Ticket = std::weak_ptr<Seat>;

    /// `loops` run its timers and its work.
    Waiters(Loops& loops, Store& store, std::chrono::milliseconds hold);

    /// Calls `answer` when the revision of the device's list differs from `seen`, when the hold
    /// time is over, when a later call for the same device takes over, or on Stop(). When the store
    /// fails then, the request is held on, until ten seconds after the hold time. For a worker, as
    /// it reads the store; `answer` may be called before it returns.
    Ticket Hold(std::int64_t device, int seen, Answer answer);
    /// The client is gone; nobody is to be answered.
    void Leave(const Ticket& ticket);
    /// The list gets another revision in a moment: until then a request is not answered for the
    /// present one. Either of the next two follows.
    void ExpectChange(std::int64_t device);
    /// The list may have another revision now.
    void ListChanged(std::int64_t device);
    /// Any list may have another revision now.
    void AllMayHaveChanged();
    /// Has the device answered with the present revision, whatever it is.
    void AnswerNow(std::int64_t device);
    /// Has all requests answered, spread evenly over `time`, and later ones at once.
    void Drain(std::chrono::milliseconds time);
    /// Has all requests answered now, and later ones at once.
    void Stop();
    /// How many devices have a request held.
    std::size_t Count() const;

private:
    using Clock = std::chrono::steady_clock;
    using SeatPointer = std::shared_ptr<Seat>;

    struct Seat {
        std::int64_t device;
        int seen;
        Answer answer;
        Clock::time_point end; ///< of the hold time
        // The following are guarded by the lock.
        std::list<SeatPointer>::iterator place; ///< among those that wait for their end
        bool waitsForEnd = false;
        bool isEnding = false;   ///< to be answered whatever the revision is
        bool isChecked = false;  ///< somebody is looking whether to answer it
        bool checkAgain = false; ///< as soon as that is through
        bool isStuck = false;    ///< the store failed
        bool isGone = false;
    };

    // To be called with the lock.

    SeatPointer TakeChange(std::int64_t device);
    void Wake(const SeatPointer& seat);
    void Finish(const SeatPointer& seat);
    void Forget(const SeatPointer& seat);
    void SetEndTimer();
    void SetRetryTimer();

    // For workers, without the lock.

    /// Answers the request if it is time to. False when the store failed.
    bool Check(const SeatPointer& seat);
    bool TryToAnswer(const SeatPointer& seat, bool& storeFailed);
    void Retry();
    /// The store failed for it: true when it is not worth another attempt.
    bool IsHopeless(const Seat& seat) const;

    void EndHolds();

    Loops& loops_;
    Store& store_;
    const std::chrono::milliseconds hold_;
    mutable std::mutex mutex_;                            ///< never held while the store is at work
    std::unordered_map<std::int64_t, SeatPointer> seats_; ///< by device
    std::unordered_set<std::int64_t> changing_;           ///< devices whose change is expected
    std::list<SeatPointer> ends_;    ///< in the order in which their hold times end
    std::vector<SeatPointer> stuck_; ///< to be looked at again
    bool retrySoon_ = false;
    bool draining_ = false;
    bool stopping_ = false;
    asio::steady_timer endTimer_; ///< for the thread of its loop, as is the next
    asio::steady_timer retryTimer_;
};

} // namespace ZARO::RelayHub
