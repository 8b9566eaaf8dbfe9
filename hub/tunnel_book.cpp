#include "hub/tunnel_book.h"

#include <utility>

namespace ZARO::RelayHub {

void TunnelBook::SetRelay(std::int64_t relay) {
    const std::lock_guard<std::mutex> lock(mutex_);
    relay_ = relay;
}

std::optional<TunnelRecord> TunnelBook::Find(const std::string& user) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(user);
    return found == entries_.end() ? std::nullopt
                                   : std::optional<TunnelRecord>(found->second.tunnel);
}

bool TunnelBook::Put(TunnelRecord tunnel, std::uint64_t version) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (relay_ != 0 && tunnel.relay != relay_) {
        return false;
    }
    const auto removed = removed_.find(tunnel.user);
    if (removed != removed_.end() && removed->second > version) {
        return false;
    }
    Entry& entry = entries_[tunnel.user];
    entry = {std::move(tunnel), ++version_};
    return true;
}

void TunnelBook::Remove(const std::string& user) {
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.erase(user);
    removed_[user] = ++version_;
}

std::uint64_t TunnelBook::Version() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return version_;
}

std::vector<std::string> TunnelBook::Replace(std::vector<TunnelRecord> all, std::uint64_t version) {
    std::unordered_map<std::string, Entry> fresh;
    for (TunnelRecord& tunnel : all) {
        std::string user = tunnel.user;
        fresh[std::move(user)] = {std::move(tunnel), version};
    }
    std::vector<std::string> gone;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [user, removal] : removed_) {
        if (removal > version) {
            fresh.erase(user);
        }
    }
    removed_.clear();
    for (const auto& [user, former] : entries_) {
        if (former.version > version) {
            fresh[user] = former;
            continue;
        }
        const auto found = fresh.find(user);
        if (found == fresh.end() || found->second.tunnel.relayPort != former.tunnel.relayPort ||
            found->second.tunnel.password != former.tunnel.password) {
            gone.push_back(user);
        }
    }
    entries_.swap(fresh);
    return gone;
}

std::size_t TunnelBook::Size() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

} // namespace ZARO::RelayHub
