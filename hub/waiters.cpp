#include "hub/waiters.h"

#include <algorithm>

namespace ZARO::RelayHub {

namespace {

constexpr auto kGathering = std::chrono::milliseconds(200);

/// Each held request has a thread and a connection; beyond this the others would starve.
constexpr int kMaxHeld = 768;

} // namespace

Waiters::Result Waiters::Wait(int64_t device, int seen, bool mayHold, int* revision) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (mayHold && !stopping_) {
        if (held_ >= kMaxHeld) {
            return Result::kTooMany;
        }
        ++held_;
        const Result result = Hold(lock, device, seen, revision);
        --held_;
        return result;
    }
    return Report(device, seats_[device], true, revision) ? Result::kAnswer : Result::kFault;
}

Waiters::Result Waiters::Hold(std::unique_lock<std::mutex>& lock, int64_t device, int seen,
                              int* revision) {
    Seat& seat = seats_[device]; // seats stay for good, so the reference holds while unlocked
    const unsigned turn = ++seat.turn;
    seat.wake.notify_all();
    const Clock::time_point end = Clock::now() + hold_;
    for (;;) {
        const Clock::time_point now = Clock::now();
        const bool over = now >= end || stopping_ || seat.turn != turn;
        const bool due = over || (seat.unreported && now >= *seat.unreported + kGathering);
        if (!Report(device, seat, due, revision)) {
            return Result::kFault;
        }
        if (over || *revision != seen) {
            // The reply shows every status as it is now, so nothing must be left to report.
            return Report(device, seat, true, revision) ? Result::kAnswer : Result::kFault;
        }
        seat.wake.wait_until(lock,
                             seat.unreported ? std::min(end, *seat.unreported + kGathering) : end);
    }
}

bool Waiters::Report(int64_t device, Seat& seat, bool due, int* revision) {
    if (!due || !seat.unreported) {
        return store_.Revision(device, revision) == StoreResult::kDone;
    }
    seat.unreported.reset();
    return store_.BumpRevision(device, revision) == StoreResult::kDone;
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
