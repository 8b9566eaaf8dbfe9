#include "hub/waiters.h"

#include <algorithm>
#include <utility>

#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

/// Between two attempts to read when the store fails.
constexpr auto kRetry = std::chrono::seconds(1);

/// How long after the hold time a request waits for the store.
constexpr auto kPatience = std::chrono::seconds(10);

} // namespace

Waiters::Waiters(Loops& loops, Store& store, std::chrono::milliseconds hold)
    : loops_(loops), store_(store), hold_(hold), endTimer_(loops.At(0)), retryTimer_(loops.At(0)) {
}

Waiters::Ticket Waiters::Hold(std::int64_t device, int seen, Answer answer) {
    const auto seat = std::make_shared<Seat>();
    seat->device = device;
    seat->seen = seen;
    seat->answer = std::move(answer);
    seat->end = Clock::now() + hold_;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        SeatPointer& holder = seats_[device];
        if (holder != nullptr) {
            Finish(holder);
        }
        holder = seat;
        seat->isEnding = draining_ || stopping_;
        seat->isChecked = true;
        seat->place = ends_.insert(ends_.end(), seat);
        seat->waitsForEnd = true;
        if (ends_.size() == 1) {
            SetEndTimer();
        }
    }
    (void)Check(seat);
    return seat;
}

void Waiters::Leave(const Ticket& ticket) {
    const SeatPointer seat = ticket.lock(); // outlives the lock, as its end frees other things
    const std::lock_guard<std::mutex> lock(mutex_);
    if (seat != nullptr && !seat->isGone) {
        Forget(seat);
        Log(Level::Debug, "control", "the client of a held request is gone, %zu are held",
            seats_.size());
    }
}

void Waiters::ExpectChange(std::int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    changing_.insert(device);
}

void Waiters::AllMayHaveChanged() {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [device, seat] : seats_) {
        Wake(seat);
    }
}

void Waiters::ListChanged(std::int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const SeatPointer seat = TakeChange(device)) {
        Wake(seat);
    }
}

void Waiters::AnswerNow(std::int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const SeatPointer seat = TakeChange(device)) {
        Finish(seat);
    }
}

Waiters::SeatPointer Waiters::TakeChange(std::int64_t device) {
    changing_.erase(device);
    const auto found = seats_.find(device);
    return found == seats_.end() ? nullptr : found->second;
}

void Waiters::Drain(std::chrono::milliseconds time) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Clock::time_point now = Clock::now();
    const auto count = static_cast<std::int64_t>(ends_.size());
    std::int64_t number = 0;
    draining_ = true;
    for (const SeatPointer& seat : ends_) { // stays in order
        seat->end = std::min<Clock::time_point>(seat->end, now + time * ++number / count);
    }
    SetEndTimer();
}

void Waiters::Stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (const auto& [device, seat] : seats_) {
        Finish(seat);
    }
}

std::size_t Waiters::Count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return seats_.size();
}

void Waiters::Finish(const SeatPointer& seat) {
    seat->isEnding = true;
    Wake(seat);
}

void Waiters::Wake(const SeatPointer& seat) {
    seat->checkAgain = true;
    if (!seat->isChecked) {
        seat->isChecked = true;
        loops_.Block([this, seat] { (void)Check(seat); });
    }
}

void Waiters::Forget(const SeatPointer& seat) {
    seat->isGone = true;
    if (seat->waitsForEnd) {
        seat->waitsForEnd = false;
        ends_.erase(seat->place);
    }
    const auto found = seats_.find(seat->device);
    if (found != seats_.end() && found->second == seat) { // nobody has taken over
        seats_.erase(found);
    }
}

bool Waiters::Check(const SeatPointer& seat) {
    for (;;) {
        bool storeFailed = false;
        const bool answered = TryToAnswer(seat, storeFailed);
        const std::lock_guard<std::mutex> lock(mutex_);
        if (answered && !seat->isGone) {
            Forget(seat);
        }
        if (seat->isGone) {
            return !storeFailed;
        }
        if (seat->checkAgain && !storeFailed) {
            continue;
        }
        seat->isChecked = false;
        if (storeFailed && !seat->isStuck) {
            seat->isStuck = true;
            stuck_.push_back(seat);
            SetRetryTimer();
        }
        return !storeFailed;
    }
}

bool Waiters::TryToAnswer(const SeatPointer& seat, bool& storeFailed) {
    bool isEnding = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        seat->checkAgain = false;
        isEnding = seat->isEnding;
        if (seat->isGone || (!isEnding && changing_.count(seat->device) > 0)) {
            return false;
        }
    }
    int revision = 0;
    const StoreResult result = store_.services.Revision(seat->device, revision);
    if (result == StoreResult::Done && !isEnding && revision == seat->seen) {
        return false;
    }
    const bool isKnown = result == StoreResult::Done || result == StoreResult::NotFound;
    if (isKnown && seat->answer(revision)) { // 0 when the device is gone
        return true;
    }
    storeFailed = true;
    return IsHopeless(*seat) && seat->answer(std::nullopt);
}

bool Waiters::IsHopeless(const Seat& seat) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return stopping_ || Clock::now() >= seat.end + kPatience;
}

void Waiters::Retry() {
    std::vector<SeatPointer> stuck;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        retrySoon_ = false;
        stuck.swap(stuck_);
    }
    bool works = true;
    for (const SeatPointer& seat : stuck) {
        const bool isHopeless = IsHopeless(*seat);
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            seat->isStuck = false;
            if (seat->isGone || seat->isChecked) {
                continue; // whoever is at it sees to it
            }
            if (!works && !isHopeless) { // one failure shows enough
                seat->isStuck = true;
                stuck_.push_back(seat);
                SetRetryTimer();
                continue;
            }
            seat->isChecked = true;
        }
        works = Check(seat) && works;
    }
}

void Waiters::SetRetryTimer() {
    if (retrySoon_) {
        return;
    }
    retrySoon_ = true;
    asio::post(loops_.At(0), [this] {
        (void)retryTimer_.expires_after(kRetry);
        retryTimer_.async_wait([this](const boost::system::error_code& cancelled) {
            if (!cancelled) {
                loops_.Block([this] { Retry(); });
            }
        });
    });
}

void Waiters::SetEndTimer() {
    if (ends_.empty()) {
        return;
    }
    asio::post(loops_.At(0), [this, end = ends_.front()->end] {
        (void)endTimer_.expires_at(end);
        endTimer_.async_wait([this](const boost::system::error_code& cancelled) {
            if (!cancelled) {
                EndHolds();
            }
        });
    });
}

void Waiters::EndHolds() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Clock::time_point now = Clock::now();
    while (!ends_.empty() && ends_.front()->end <= now) {
        const SeatPointer seat = ends_.front();
        ends_.pop_front();
        seat->waitsForEnd = false;
        Finish(seat);
    }
    SetEndTimer();
}

} // namespace ZARO::RelayHub
