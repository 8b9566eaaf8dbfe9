#include "hub/bus.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

#include "hub/bus_link.h"
#include "hub/bus_text.h"
#include "hub/log.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

using std::chrono::milliseconds;

/// Each message makes every process read from the database, so changes are gathered.
constexpr milliseconds kGather(50);
constexpr int kPauseAfterLoss = 1000;    // ms
constexpr milliseconds kIdle(60 * 1000); // nothing depends on it

bool IsEmpty(const Changes& changes) {
    return changes.devices.empty() && changes.tunnels.empty();
}

template <typename Items> void Append(Items& all, const Items& more) {
    all.insert(all.end(), more.begin(), more.end());
}

} // namespace

Bus::Bus(std::string target) : target_(std::move(target)), origin_(RandomText(8)) {
}

bool Bus::Start(Listener listener, std::string& error) {
    listener_ = std::move(listener);
    try {
        if (waker_.IsValid()) {
            thread_ = std::thread([this] { Run(); });
            return true;
        }
        error = "can't listen for changes: no descriptor left";
    } catch (const std::system_error& fault) {
        error = std::string("can't start a thread: ") + fault.what();
    }
    return false;
}

void Bus::Stop() {
    stopping_ = true;
    waker_.Wake();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Bus::Publish(const Changes& changes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (lost_ || IsEmpty(changes)) {
        return; // who is told to read everything sees these too
    }
    if (IsEmpty(gathered_)) {
        due_ = Clock::now() + kGather;
        waker_.Wake();
    }
    Append(gathered_.devices, changes.devices);
    Append(gathered_.tunnels, changes.tunnels);
}

void Bus::Run() noexcept {
    bool away = false;
    while (!stopping_) {
        try {
            const auto link = BusLink::Open(target_);
            SendBatch(*link); // shows whether the database can be written again
            if (std::exchange(away, false)) {
                Log(Level::Info, "bus", "listens for changes again");
            }
            Serve(*link);
        } catch (const std::exception& fault) {
            if (!away) {
                Log(Level::Warning, "bus", "hears of no changes, retries: %s", fault.what());
                away = true;
            }
            Lose();
            ResetWaker();
            if (!stopping_) {
                (void)waker_.WaitFor(kPauseAfterLoss);
            }
        }
    }
}

void Bus::Serve(BusLink& link) {
    listener_.onMissed();
    while (!stopping_) {
        std::vector<std::string> texts;
        const bool complete = link.Receive(UntilBatch(), waker_, texts);
        ResetWaker();
        Deliver(texts, complete);
        SendBatch(link);
    }
    SendBatch(link);
}

void Bus::Deliver(const std::vector<std::string>& texts, bool complete) const {
    Changes all;
    for (const std::string& text : texts) {
        if (IsFrom(text, origin_)) {
            continue;
        }
        const std::optional<Changes> changes = ReadChanges(text);
        complete = complete && changes;
        if (complete) {
            Append(all.devices, changes->devices);
            Append(all.tunnels, changes->tunnels);
        }
    }
    if (!complete) {
        listener_.onMissed();
    } else if (!IsEmpty(all)) {
        listener_.onChanges(all);
    }
}

milliseconds Bus::UntilBatch() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (IsEmpty(gathered_)) {
        return lost_ ? milliseconds(0) : kIdle;
    }
    const auto left = std::chrono::ceil<milliseconds>(due_ - Clock::now());
    return std::max(left, milliseconds(0));
}

void Bus::SendBatch(BusLink& link) {
    Changes batch;
    bool lost = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!lost_ && (IsEmpty(gathered_) || (Clock::now() < due_ && !stopping_))) {
            return;
        }
        lost = std::exchange(lost_, false);
        std::swap(batch, gathered_);
    }
    if (lost) {
        link.Send(WriteMissed(origin_));
    }
    for (const std::string& text : WriteChanges(batch, origin_)) {
        link.Send(text);
    }
}

void Bus::Lose() {
    const std::lock_guard<std::mutex> lock(mutex_);
    lost_ = true;
    gathered_ = {};
}

void Bus::ResetWaker() const {
    std::uint64_t wakes = 0;
    (void)!read(waker_.Get(), &wakes, sizeof wakes); // fails when nobody woke it
}

} // namespace ZARO::RelayHub
