#include "hub/waiters.h"

#include <algorithm>

namespace ZARO::RelayHub {

namespace {

constexpr auto kGathering = std::chrono::milliseconds(200);

} // namespace

bool Waiters::Wait(int64_t device, int seen, bool mayHold, int* revision) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (mayHold && !stopping_) {
        Seat& seat = seats_[device]; // seats stay for good, so the reference holds while unlocked
        ++seat.turn;
        seat.wake.notify_all();
        return Hold(lock, device, seat, seen, revision);
    }
    return Report(device, seats_[device], true, revision);
}

bool Waiters::Hold(std::unique_lock<std::mutex>& lock, int64_t device, Seat& seat, int seen,
                   int* revision) {
    const unsigned turn = seat.turn;
    const Clock::time_point end = Clock::now() + hold_;
    for (;;) {
        const Clock::time_point now = Clock::now();
        const bool over = now >= end || stopping_ || seat.turn != turn;
        const bool due = over || (seat.unreported && now >= *seat.unreported + kGathering);
        if (!Report(device, seat, due, revision)) {
            return false;
        }
        if (over || *revision != seen) {
            // The reply shows every status as it is now, so nothing must be left to report.
            return Report(device, seat, true, revision);
        }
        seat.wake.wait_until(lock,
                             seat.unreported ? std::min(end, *seat.unreported + kGathering) : end);
    }
}

bool Waiters::Report(int64_t device, Seat& seat, bool due, int* revision) {
    if (!due || !seat.unreported) {
        return store_.Revision(device, revision) == StoreResult::kDone;
    }
    if (store_.BumpRevision(device, revision) != StoreResult::kDone) {
        return false; // it stays to be reported
    }
    seat.unreported.reset();
    return true;
}

void Waiters::ListChanged(int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    seats_[device].wake.notify_all();
}

void Waiters::StatusChanged(int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Seat& seat = seats_[device];
    if (!seat.unreported) {
        seat.unreported = Clock::now();
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
