#include "hub/told_lists.h"

namespace ZARO::RelayHub {

void ToldLists::Note(std::int64_t device, int revision, const List& tunnels) {
    const std::lock_guard<std::mutex> lock(mutex_);
    told_[device] = {revision, tunnels};
}

std::optional<ToldLists::List> ToldLists::Find(std::int64_t device, int revision) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = told_.find(device);
    return found != told_.end() && found->second.revision == revision
               ? std::optional<List>(found->second.tunnels)
               : std::nullopt;
}

} // namespace ZARO::RelayHub
