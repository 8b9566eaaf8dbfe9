#include "hub/web_clients.h"

namespace ZARO::RelayHub {

namespace {

/// Connections that were told to end take a moment; a flood must not pile up others meanwhile.
constexpr std::size_t kLeaving = 64;

} // namespace

bool WebClients::MayAccept() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return idle_.size() + busy_.size() < most_ + kLeaving;
}

bool WebClients::Add(const std::shared_ptr<WebConnection>& connection, std::optional<Place>& place,
                     std::shared_ptr<WebConnection>& toEnd) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) {
        return false;
    }
    if (idle_.size() + busy_.size() >= most_ && !idle_.empty()) {
        toEnd = idle_.front().connection.lock();
        idle_.front().isIdle = false; // so that it is not picked again
        busy_.splice(busy_.end(), idle_, idle_.begin());
    }
    place = idle_.insert(idle_.end(), Client{connection});
    return true;
}

void WebClients::Remove(Place place) {
    const std::lock_guard<std::mutex> lock(mutex_);
    (place->isIdle ? idle_ : busy_).erase(place);
    if (idle_.empty() && busy_.empty()) {
        gone_.notify_all();
    }
}

void WebClients::SetBusy(Place place) {
    const std::lock_guard<std::mutex> lock(mutex_);
    busy_.splice(busy_.end(), place->isIdle ? idle_ : busy_, place);
    place->isIdle = false;
}

void WebClients::SetIdle(Place place) {
    const std::lock_guard<std::mutex> lock(mutex_);
    idle_.splice(idle_.end(), place->isIdle ? idle_ : busy_, place);
    place->isIdle = true;
}

void WebClients::Close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
}

bool WebClients::IsClosed() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
}

std::vector<std::shared_ptr<WebConnection>> WebClients::All() const {
    std::vector<std::shared_ptr<WebConnection>> all;
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto* clients : {&idle_, &busy_}) {
        for (const Client& client : *clients) {
            all.push_back(client.connection.lock());
        }
    }
    return all;
}

bool WebClients::WaitUntilEmpty(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    return gone_.wait_for(lock, time, [this] { return idle_.empty() && busy_.empty(); });
}

} // namespace ZARO::RelayHub
