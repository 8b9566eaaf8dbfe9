#include "hub/session_cache.h"

namespace ZARO::RelayHub {

std::optional<Device> SessionCache::Find(const std::string& session) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = devices_.find(session);
    return found == devices_.end() ? std::nullopt : std::optional<Device>(found->second);
}

unsigned SessionCache::State() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return registrations_;
}

void SessionCache::Add(const std::string& session, const Device& device, unsigned state) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state == registrations_) {
        Put(session, device);
    }
}

void SessionCache::Renew(const std::string& session, const Device& device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++registrations_;
    Drop(device.key);
    Put(session, device);
}

void SessionCache::Forget(std::int64_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++registrations_; // what is being looked up may have ended as well
    Drop(device);
}

void SessionCache::Put(const std::string& session, const Device& device) {
    if (devices_.size() >= kMost) {
        Drop(devices_.begin()->second.key);
    }
    if (devices_.insert_or_assign(session, device).second) {
        sessions_[device.key].push_back(session);
    }
}

void SessionCache::Drop(std::int64_t device) {
    const auto found = sessions_.find(device);
    if (found != sessions_.end()) {
        for (const std::string& session : found->second) {
            devices_.erase(session);
        }
        sessions_.erase(found);
    }
}

} // namespace ZARO::RelayHub
