#include "hub/waiters.h"

#include <algorithm>

namespace ZARO::RelayHub {

namespace {

constexpr auto kGathering = std::chrono::milliseconds(200);

/// Between two attempts to write when the store fails, as on a full disk.
constexpr auto kRetry = std::chrono::seconds(10);

} // namespace

bool Waiters::Wait(std::int64_t device, int seen, bool mayHold, int& revision) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (mayHold && !stopping_) {
        Seat& seat = seats_[device]; // seats are never erased, so it stays valid while unlocked
        ++seat.turn;
        seat.wake.notify_all();
        return Hold(lock, device, seat, seen, revision);
    }
    return Report(device, seats_[device], revision);
}

bool Waiters::Hold(std::unique_lock<std::mutex>& lock, std::int64_t device, Seat& seat, int seen,
                   int& revision) {
    const unsigned turn = seat.turn;
    const Clock::time_point end = Clock::now() + hold_;
    for (;;) {
        const Clock::time_point now = Clock::now();
        const bool over = now >= end || stopping_ || seat.turn != turn;
        const bool due = over || (seat.due && now >= *seat.due);
        if (!due && store_.services.Revision(device, revision) != StoreResult::Done) {
            return false;
        }
        if (due || revision != seen) {
            // The reply shows the current statuses, so no earlier change may stay pending.
            return Report(device, seat, revision);
        }
        seat.wake.wait_until(lock, seat.due ? std::min(end, *seat.due) : end);
    }
}

bool Waiters::Report(std::int64_t device, Seat& seat, int& revision) {
    if (seat.due) {
        if (store_.services.BumpRevision(device, revision) == StoreResult::Done) {
            seat.due.reset();
            return true;
        }
        seat.due = Clock::now() + kRetry; // the reply can show the statuses nevertheless
    }
    return store_.services.Revision(device, revision) == StoreResult::Done;
}

void Waiters::ListChanged(std::int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    seats_[device].wake.notify_all();
}

void Waiters::StatusChanged(std::int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Seat& seat = seats_[device];
    if (!seat.due) {
        seat.due = Clock::now() + kGathering;
        seat.wake.notify_all();
    }
}

void Waiters::Stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (auto& [device, seat] : seats_) {
        seat.wake.notify_all();
    }
}

} // namespace ZARO::RelayHub
