#include "hub/status_reports.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace ZARO::RelayHub {

namespace {

constexpr auto kGathering = std::chrono::milliseconds(200);

/// Between two attempts to write when the store fails, as on a full disk.
constexpr auto kRetry = std::chrono::seconds(10);

template <typename Statuses> std::vector<std::int64_t> DevicesOf(const Statuses& statuses) {
    std::vector<std::int64_t> devices;
    for (const auto& [user, status] : statuses) {
        devices.push_back(status.device);
    }
    std::sort(devices.begin(), devices.end());
    devices.erase(std::unique(devices.begin(), devices.end()), devices.end());
    return devices;
}

} // namespace

void StatusReports::Add(TunnelStatus status) {
    waiters_.ExpectChange(status.device);
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string user = status.user;
    fresh_.insert_or_assign(std::move(user), std::move(status));
    if (!isReporting_) {
        SetTimer(false);
    }
}

void StatusReports::SetTimer(bool isRetry) {
    isReporting_ = !isRetry; // a retry does not keep fresh ones waiting
    asio::post(loops_.At(0), [this, isRetry] {
        if (isRetry) {
            (void)timer_.expires_after(kRetry);
        } else {
            (void)timer_.expires_after(kGathering);
        }
        timer_.async_wait([this](const boost::system::error_code& cancelled) {
            if (!cancelled) {
                loops_.Block([this] { Report(); });
            }
        });
    });
}

void StatusReports::Report() {
    Statuses statuses;
    Devices fresh;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isReporting_ = true;
        if (std::exchange(isAtWork_, true)) {
            return; // a retry came between; whoever is at it sees to the rest
        }
        fresh = DevicesOf(fresh_);
        statuses = std::move(fresh_);
        statuses.merge(failed_); // an older status of a tunnel stays behind
        fresh_.clear();
        failed_.clear();
    }
    std::vector<TunnelStatus> changes;
    for (const auto& [user, status] : statuses) {
        changes.push_back(status);
    }
    if (store_.services.ReportStatus(changes) != StoreResult::Done) {
        Failed(std::move(statuses), fresh);
        return;
    }
    const Devices devices = DevicesOf(statuses);
    for (const std::int64_t device : devices) {
        waiters_.ListChanged(device);
    }
    if (reported_) {
        reported_(devices);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    isAtWork_ = false;
    isReporting_ = false;
    if (!fresh_.empty()) {
        SetTimer(false);
    }
}

void StatusReports::Failed(Statuses statuses, const Devices& fresh) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isAtWork_ = false;
        failed_ = std::move(statuses);
        SetTimer(fresh_.empty());
    }
    // The list can show the statuses nevertheless, with the old revision.
    for (const std::int64_t device : fresh) {
        waiters_.AnswerNow(device);
    }
}

} // namespace ZARO::RelayHub
