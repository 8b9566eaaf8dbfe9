#include "hub/relay_visitors.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "hub/log.h"
#include "hub/net.h"

namespace ZARO::RelayHub {

namespace {

constexpr std::size_t kMaxVisitors = 1024; // one more ends the one that has been idle longest
constexpr std::size_t kMaxLeaving = 256;   // further ones, that wait for the device to let them go
// Further ones wait until the other sessions of the loop had their turn.
constexpr std::size_t kAcceptedAtOnce = 4;
constexpr std::size_t kServedAtOnce = 64;

} // namespace

RelayVisitors::RelayVisitors(RelayHost& host, RelayLane& lane, ssh_session session)
    : host_(host), lane_(lane), session_(session), watch_(lane.loop),
      rest_(lane.loop.get_executor()) {
}

void RelayVisitors::Use(std::shared_ptr<RelayPort> port, std::string address, int number) {
    port_ = std::move(port);
    address_ = std::move(address);
    number_ = number;
    if (!watch_.Start(port_->Get())) {
        Log(Level::Error, "relay", "can't watch port %d: %s", number_, strerror(errno));
    }
    AwaitVisitors();
}

void RelayVisitors::Clear() {
    watch_.Stop();
    port_.reset();
    (void)rest_.cancel();
    queue_.clear();
    opening_.clear();
    heldUp_.clear();
    for (Visitors* list : {&present_, &leaving_}) {
        for (const auto& visitor : *list) {
            visitor->listed_ = false;
            visitor->Abandon();
        }
        list->clear();
    }
}

void RelayVisitors::Hear() {
    for (auto place = opening_.begin(); place != opening_.end();) {
        (*place)->AwaitOpening();
        place = (*place)->IsOpening() ? std::next(place) : opening_.erase(place);
    }
    for (auto place = heldUp_.begin(); place != heldUp_.end();) {
        if ((*place)->CanResume()) {
            (*place)->heldUp_ = false;
            Touch(**place);
            place = heldUp_.erase(place);
        } else {
            ++place;
        }
    }
}

std::size_t RelayVisitors::Serve(bool mayRead, std::size_t most) {
    if (knocked_ && !resting_) {
        Accept();
    }
    std::size_t moved = 0;
    std::deque<std::shared_ptr<RelayVisitor>> later; // they come first next time
    // Those that have more wait for the others: each is served once per pass.
    for (std::size_t left = std::min(queue_.size(), kServedAtOnce); left > 0; --left) {
        const std::shared_ptr<RelayVisitor> visitor = std::move(queue_.front());
        queue_.pop_front();
        visitor->inQueue_ = false;
        if (!visitor->listed_) {
            continue;
        }
        const bool reads = mayRead && moved < most;
        moved += visitor->Move(reads);
        Settle(visitor);
        if (!reads && visitor->HasMore()) {
            visitor->inQueue_ = true;
            later.push_back(visitor);
        } else if (visitor->HasMore()) {
            Touch(*visitor);
        }
    }
    queue_.insert(queue_.begin(), later.begin(), later.end());
    return moved;
}

void RelayVisitors::Settle(const std::shared_ptr<RelayVisitor>& visitor) {
    overrun_ = overrun_ || visitor->IsOverrun();
    if (visitor->IsGone() && !visitor->leaving_) {
        visitor->leaving_ = true;
        leaving_.splice(leaving_.end(), present_, visitor->place_);
    }
    if (visitor->IsDone()) {
        (visitor->leaving_ ? leaving_ : present_).erase(visitor->place_);
        visitor->listed_ = false;
        visitor->Abandon();
        AwaitVisitors(); // there may be room again
    } else if (visitor->IsHeldUp() && !visitor->heldUp_) {
        visitor->heldUp_ = true;
        heldUp_.push_back(visitor);
    }
}

void RelayVisitors::Touch(RelayVisitor& visitor) {
    if (!visitor.inQueue_) {
        queue_.push_back(visitor.shared_from_this());
        visitor.inQueue_ = true;
        host_.Wake();
    }
}

void RelayVisitors::Moved(RelayVisitor& visitor) {
    present_.splice(present_.end(), present_, visitor.place_);
}

bool RelayVisitors::HasRoom() const {
    return present_.size() + leaving_.size() < kMaxVisitors + kMaxLeaving;
}

void RelayVisitors::AwaitVisitors() {
    if (port_ != nullptr && !knocked_ && !resting_ && HasRoom()) {
        watch_.Await(Watch::Kind::Readable, [this, alive = host_.shared_from_this()] {
            knocked_ = true;
            host_.Wake();
        });
    }
}

void RelayVisitors::Accept() {
    for (std::size_t i = 0; i < kAcceptedAtOnce && HasRoom(); ++i) {
        UniqueFd fd = port_->Accept(&host_);
        if (!fd.IsOpen()) {
            knocked_ = false;
            if (IsShortage(errno)) {
                Rest(strerror(errno));
            }
            break;
        }
        inShortage_ = false;
        MakeRoom();
        const auto visitor = std::make_shared<RelayVisitor>(lane_, *this, session_, std::move(fd));
        visitor->place_ = present_.insert(present_.end(), visitor);
        visitor->Open(address_, number_);
        if (visitor->IsOpening()) {
            opening_.push_back(visitor);
        } else {
            Touch(*visitor);
        }
    }
    knocked_ = false; // those that still wait are told of again
    AwaitVisitors();
}

void RelayVisitors::Rest(const char* why) {
    if (!inShortage_) {
        Log(Level::Warning, "relay", "visitors of port %d wait: %s", number_, why);
    }
    inShortage_ = true;
    resting_ = true;
    rest_.expires_after(kAcceptPause);
    rest_.async_wait(
        [this, alive = host_.shared_from_this()](const boost::system::error_code& failed) {
            if (!failed) {
                resting_ = false;
                AwaitVisitors();
            }
        });
}

void RelayVisitors::MakeRoom() {
    if (present_.size() >= kMaxVisitors) {
        const std::shared_ptr<RelayVisitor> idlest = present_.front();
        idlest->End();
        Settle(idlest);
    }
}

void RelayVisitors::EndStuckOnes() {
    for (const auto& visitor : present_) {
        if (visitor->IsStuck()) {
            Touch(*visitor);
        }
    }
}

} // namespace ZARO::RelayHub
