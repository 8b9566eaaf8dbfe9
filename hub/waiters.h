/// The held wait requests: one a device, answered as soon as the device's tunnel list differs.
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
    /// over, when a later call for the same device takes over, or on Stop(); without `mayHold` at
    /// once. `revision` is the current one. False when the store failed.
    bool Wait(std::int64_t device, int seen, bool mayHold, int& revision);
    /// The list changed, and its revision with it.
    void ListChanged(std::int64_t device);
    /// A tunnel of the device went up or down. The revision changes a moment later, so that many
    /// of them make few replies.
    void StatusChanged(std::int64_t device);
    /// Has all calls return, now and later.
    void Stop();

private:
    using Clock = std::chrono::steady_clock;

    struct Seat {
        std::condition_variable wake;
        unsigned turn = 0; ///< of the call that holds the seat
        std::optional<Clock::time_point>
            due; ///< when to report the status changes, if there are any
    };

    /// The revision, of which the status changes so far become a part. When they can't be written,
    /// it is the stored one, and they are tried again later.
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
