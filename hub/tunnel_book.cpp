#include "hub/tunnel_book.h"

#include <utility>

namespace ZARO::RelayHub {

std::optional<TunnelRecord> TunnelBook::Find(const std::string& user) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = tunnels_.find(user);
    return found == tunnels_.end() ? std::nullopt : std::optional<TunnelRecord>(found->second);
}

void TunnelBook::Put(TunnelRecord tunnel) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string user = tunnel.user;
    tunnels_[std::move(user)] = std::move(tunnel);
}

void TunnelBook::Remove(const std::string& user) {
    const std::lock_guard<std::mutex> lock(mutex_);
    tunnels_.erase(user);
}

std::vector<std::string> TunnelBook::Replace(std::vector<TunnelRecord> all) {
    std::unordered_map<std::string, TunnelRecord> fresh;
    for (TunnelRecord& tunnel : all) {
        std::string user = tunnel.user;
        fresh[std::move(user)] = std::move(tunnel);
    }
    std::vector<std::string> gone;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [user, former] : tunnels_) {
        const auto found = fresh.find(user);
        if (found == fresh.end() || found->second.relayPort != former.relayPort ||
            found->second.password != former.password) {
            gone.push_back(user);
        }
    }
    tunnels_.swap(fresh);
    return gone;
}

std::size_t TunnelBook::Size() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return tunnels_.size();
}

} // namespace ZARO::RelayHub
