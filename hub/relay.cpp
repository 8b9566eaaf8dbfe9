#include "hub/relay.h"

#include <chrono>
#include <exception>
#include <utility>

#include "hub/host_key.h"
#include "hub/net.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

Relay::Relay(Loops& loops, Store& store, TunnelBook& book, std::string visitorAddress,
             StatusChanged statusChanged)
    : loops_(loops), store_(store), book_(book), visitorAddress_(std::move(visitorAddress)),
      statusChanged_(std::move(statusChanged)), up_(65536) {
}

Relay::~Relay() {
    Stop();
}

bool Relay::Start(UniqueFd listener, const std::string& hostKey, std::string& error) {
    std::vector<std::unique_ptr<RelayLane>> lanes;
    for (std::size_t i = 0; i < loops_.Count(); ++i) {
        SshBind bind = MakeSshBind(hostKey);
        if (bind == nullptr) {
            error = "can't use the host key";
            return false;
        }
        lanes.push_back(std::make_unique<RelayLane>(loops_.At(i), std::move(bind)));
    }
    Loop& loop = loops_.Next();
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
        error = "the hub ends";
        return false;
    }
    lanes_ = std::move(lanes);
    turns_ = std::make_unique<asio::steady_timer>(loop);
    acceptor_ = std::make_shared<Acceptor>(
        "relay", loop, [this] { return MayAccept(); },
        [this](UniqueFd fd) { Admit(std::move(fd)); });
    acceptor_->Start(std::move(listener));
    return true;
}

void Relay::Stop() {
    std::unique_lock<std::mutex> lock(mutex_);
    stopping_ = true;
    if (acceptor_ != nullptr) {
        acceptor_->Stop();
    }
    for (const auto& [key, entry] : sessions_) {
        entry.session->End();
    }
    (void)empty_.wait_for(lock, std::chrono::seconds(1), [this] { return sessions_.empty(); });
}

int Relay::Port() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return acceptor_ == nullptr ? 0 : acceptor_->Port();
}

std::size_t Relay::Sessions() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return sessions_.size();
}

bool Relay::MayAccept() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return !strangers_.IsFull() || strangers_.Idlest(Strangers::Clock::now()) != nullptr;
}

void Relay::Admit(UniqueFd fd) {
    const auto now = Strangers::Clock::now();
    const std::uint64_t network = NetworkOf(fd.Get());
    try {
        RelayLane& lane = *lanes_[nextLane_++ % lanes_.size()];
        auto session =
            std::make_shared<RelaySession>(static_cast<RelayDesk&>(*this), lane, std::move(fd));
        const std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        RelaySession* const idlest = strangers_.IsFull() ? strangers_.Idlest(now) : nullptr;
        if (idlest != nullptr) {
            ForgetStranger(sessions_[idlest]);
            idlest->End();
        }
        Entry& entry = sessions_[session.get()];
        entry.session = session;
        entry.stranger = strangers_.Add(session.get(), network, now);
        session->Start();
    } catch (const std::exception& fault) {
        Log(Level::Error, "relay", "a session failed: %s", fault.what());
    }
}

bool Relay::MayProceed(RelaySession& session) {
    const auto now = Strangers::Clock::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    const Entry& entry = sessions_[&session];
    const bool may = !entry.stranger || strangers_.Ask(*entry.stranger, now);
    if (!may) {
        ServeNext();
    }
    return may;
}

void Relay::Advance(RelaySession& session) {
    const auto now = Strangers::Clock::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    const Entry& entry = sessions_[&session];
    if (entry.stranger) {
        strangers_.Advance(*entry.stranger, now);
    }
}

void Relay::ServeNext() {
    for (RelaySession* session : strangers_.Next(Strangers::Clock::now())) {
        session->Resume();
    }
    if (!strangers_.IsCrowded() || turning_ || stopping_) {
        return;
    }
    turning_ = true;
    turns_->expires_after(Strangers::kPause);
    turns_->async_wait([this](const boost::system::error_code&) {
        const std::lock_guard<std::mutex> lock(mutex_);
        turning_ = false;
        ServeNext();
    });
}

void Relay::ForgetStranger(Entry& entry) {
    if (!entry.stranger) {
        return;
    }
    const bool wasFull = strangers_.IsFull();
    strangers_.Remove(*entry.stranger);
    entry.stranger.reset();
    if (wasFull) {
        acceptor_->Resume();
    }
    ServeNext();
}

void Relay::LogIn(const SessionPtr& session, const std::string& password) {
    const std::optional<TunnelRecord> known = book_.Find(session->User());
    if (known) {
        Decide(session, password, &*known);
    } else {
        LookUp(session, password);
    }
}

void Relay::LookUp(const SessionPtr& session, const std::string& password) {
    loops_.Block([this, session, password, user = session->User()] {
        std::uint64_t closings = 0;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            closings = closings_;
        }
        TunnelRecord tunnel;
        bool found = store_.services.FindTunnel(user, tunnel) == StoreResult::Done;
        bool current = true;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            current = closings == closings_; // else it may be one of those that were closed
            found = found && current && book_.Put(tunnel);
        }
        if (!current) {
            LookUp(session, password);
            return;
        }
        asio::post(session->Lane().loop, [this, session, password, found, tunnel] {
            Decide(session, password, found ? &tunnel : nullptr);
        });
    });
}

void Relay::Decide(const SessionPtr& session, const std::string& password,
                   const TunnelRecord* tunnel) {
    if (session->IsOver()) {
        return;
    }
    // An unknown user takes as long as a wrong password.
    const bool equal = EqualSecrets(tunnel == nullptr ? "" : tunnel->password, password);
    bool granted = false;
    if (tunnel != nullptr && equal) {
        const std::lock_guard<std::mutex> lock(mutex_);
        // One that was ended would only drive the former session out.
        granted = !session->IsEnded() && !stopping_ && book_.Find(session->User()).has_value();
        if (granted) {
            Take(session, *tunnel);
        }
    } else {
        refusals_.Log("relay", "log-in from %s refused: %s", session->Peer().c_str(),
                      tunnel != nullptr ? "wrong password" : "unknown user");
    }
    session->Answer(granted);
}

void Relay::Take(const SessionPtr& session, const TunnelRecord& tunnel) {
    Seat& seat = seats_[session->User()];
    if (seat.session != nullptr) {
        seat.session->End();
    }
    seat.session = session;
    seat.tunnel = tunnel;
    if (seat.port != nullptr) {
        seat.port->GiveTo(session.get()); // stays open for visitors, who wait in the backlog
    }
    ForgetStranger(sessions_[session.get()]);
}

std::shared_ptr<RelayPort> Relay::OpenPort(RelaySession& session, int port) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = SeatOf(session);
    if (found == seats_.end() || found->second.tunnel.relayPort != port) {
        return nullptr;
    }
    Seat& seat = found->second;
    if (seat.port == nullptr) {
        UniqueFd listener;
        std::string error;
        if (!ListenTcp(visitorAddress_, port, listener, error)) {
            closedPorts_.Log("relay", "tunnel %s: %s", seat.tunnel.id.c_str(), error.c_str());
            return nullptr;
        }
        seat.port = std::make_shared<RelayPort>(std::move(listener));
        seat.port->GiveTo(&session);
        up_[static_cast<std::uint16_t>(port)] = true;
        statusChanged_({seat.tunnel.device, seat.tunnel.user, true});
    }
    return seat.port;
}

void Relay::Close(const std::vector<TunnelKey>& gone) {
    // No status to report: these tunnels are off their device's list already.
    const std::lock_guard<std::mutex> lock(mutex_);
    ++closings_;
    for (const TunnelKey& tunnel : gone) {
        book_.Remove(tunnel.user);
        const auto seat = seats_.find(tunnel.user);
        if (seat != seats_.end()) {
            ClosePort(seat->second, false);
            seat->second.session->End();
            seats_.erase(seat);
        }
    }
}

void Relay::Leave(RelaySession& session) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = sessions_.find(&session);
    if (entry == sessions_.end()) {
        return;
    }
    ForgetStranger(entry->second);
    const auto seat = SeatOf(session);
    if (seat != seats_.end()) {
        ClosePort(seat->second, !stopping_);
        seats_.erase(seat);
    }
    sessions_.erase(entry); // its caller holds it
    if (sessions_.empty()) {
        empty_.notify_all();
    }
}

Relay::Seats::iterator Relay::SeatOf(const RelaySession& session) {
    const auto seat = seats_.find(session.User());
    return seat != seats_.end() && seat->second.session.get() == &session ? seat : seats_.end();
}

void Relay::ClosePort(Seat& seat, bool report) {
    if (seat.port == nullptr) {
        return;
    }
    up_[static_cast<std::uint16_t>(seat.tunnel.relayPort)] = false;
    seat.port->Shut();
    seat.port.reset();
    if (report) {
        statusChanged_({seat.tunnel.device, seat.tunnel.user, false});
    }
}

} // namespace ZARO::RelayHub
