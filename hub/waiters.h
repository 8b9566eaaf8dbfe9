/// The held wait requests: one per device, answered as soon as the device's tunnel list changes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>

#include "hub/store.h"

namespace ZARO::RelayHub {

/// Any thread may call any method.
class Waiters {
public:
    Waiters(Store& store, std::chrono::milliseconds hold) : store_(store), hold_(hold) {}

    /// Returns when the revision of the device's list differs from `seen`, when the hold time is
    /// over, when a later call for the same device takes over, or on Stop(). Without `mayHold` it
    /// returns at once. `revision` becomes the current one. False when the store failed.
    bool Wait(std::int64_t device, int seen, bool mayHold, int& revision);
    /// The list changed, and its revision with it.
    void ListChanged(std::int64_t device);
    /// A tunnel of the device went up or down. The revision changes a moment later, so that many
    /// such changes take few replies.
    void StatusChanged(std::int64_t device);
    /// Makes all calls return, those that wait and later ones.
    void Stop();

private:
    using Clock = std::chrono::steady_clock;

    struct Seat {
        std::condition_variable wake;
        unsigned turn = 0;                    ///< number of the call that holds the seat
        std::optional<Clock::time_point> due; ///< when to report status changes, if any
    };

    /// Reads the revision. If there are status changes to report, the list gets a new revision
    /// first. When that can't be written, `revision` is the stored one and the next attempt follows
    /// later.
    bool Report(std::int64_t device, Seat& seat, int& revision);
    bool Hold(std::unique_lock<std::mutex>& lock, std::int64_t device, Seat& seat, int seen,
              int& revision);

    Store& store_;
    const std::chrono::milliseconds hold_;
    std::mutex mutex_;
    std::map<std::int64_t, Seat> seats_;
    bool stopping_ = false;
};

} // namespace ZARO::RelayHub
