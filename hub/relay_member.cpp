#include "hub/relay_member.h"

#include <optional>
#include <utility>

#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

/// Past this many tunnels it is quicker to read all of them.
constexpr std::size_t kMostSingleReads = 200;

} // namespace

RelayMember::RelayMember(Loops& loops, Store& store, TunnelBook& book, Actions actions,
                         MemberTimes times)
    : loops_(loops), loop_(loops.Next()), store_(store), book_(book), actions_(std::move(actions)),
      times_(times), timer_(loop_) {
}

StoreResult RelayMember::Join(const RelayIdentity& identity, Changes& changes, std::string& error) {
    const StoreResult joined = store_.relays.Join(identity, relay_);
    if (joined == StoreResult::Taken) {
        error = "--relay-name: another relay named " + identity.name + " is alive";
        error += relay_.host.empty() ? "" : " at " + relay_.host;
        return joined;
    }
    std::vector<TunnelRecord> tunnels;
    if (joined != StoreResult::Done ||
        store_.ports.Join(relay_.key, relay_.firstPort, relay_.lastPort) != StoreResult::Done ||
        store_.services.ReportRelayDown(relay_.key) != StoreResult::Done ||
        store_.services.TunnelsOf(relay_.key, tunnels) != StoreResult::Done) {
        if (joined == StoreResult::Done) {
            (void)store_.relays.Leave(relay_); // nobody is to wait for this process
        }
        error = "the relay can't join: the database failed";
        return StoreResult::Fault;
    }
    for (const TunnelRecord& tunnel : tunnels) {
        changes.devices.push_back(tunnel.device);
    }
    book_.SetRelay(relay_.key);
    (void)book_.Replace(std::move(tunnels), book_.Version()); // it has no sessions yet
    return StoreResult::Done;
}

void RelayMember::Start() {
    asio::post(loop_, [self = shared_from_this()] {
        self->rereadAt_ = std::chrono::steady_clock::now() + self->times_.reread;
        self->Tick();
    });
}

void RelayMember::Heed(const Changes& changes) {
    std::set<std::string> users;
    for (const TunnelKey& tunnel : changes.tunnels) {
        if (tunnel.relay == relay_.key) {
            users.insert(tunnel.user);
        }
    }
    if (!users.empty()) {
        asio::post(loop_, [self = shared_from_this(), due = std::move(users)]() mutable {
            self->usersDue_.merge(due);
            self->ReadNext();
        });
    }
}

void RelayMember::HeedAll() {
    asio::post(loop_, [self = shared_from_this()] {
        self->allDue_ = true;
        self->Beat();
        self->ReadNext();
    });
}

bool RelayMember::Drain() {
    return store_.relays.SetDraining(relay_) == StoreResult::Done;
}

void RelayMember::Leave() {
    if (!ended_.exchange(true)) {
        asio::post(loop_, [self = shared_from_this()] { (void)self->timer_.cancel(); });
        (void)store_.relays.Leave(relay_);
    }
}

void RelayMember::Tick() {
    if (ended_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now >= rereadAt_) {
        rereadAt_ = now + times_.reread;
        allDue_ = true;
    }
    Beat();
    ReadNext();
    timer_.expires_after(times_.beat);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
        if (!error) {
            self->Tick();
        }
    });
}

void RelayMember::Beat() {
    if (ended_ || std::exchange(beating_, true)) {
        return;
    }
    loops_.Block([self = shared_from_this()] {
        const auto load = static_cast<std::int64_t>(self->book_.Size());
        if (!self->ended_ && self->store_.relays.Beat(self->relay_, load) == StoreResult::Refused) {
            self->BeLost();
        }
        asio::post(self->loop_, [self] { self->beating_ = false; });
    });
}

void RelayMember::BeLost() {
    if (!ended_.exchange(true)) {
        Log(Level::Error, "relay", "another process has become relay %s: ends all sessions",
            relay_.name.c_str());
        (void)book_.Replace({}, book_.Version());
        actions_.lost();
    }
}

void RelayMember::ReadNext() {
    if (ended_ || reading_ || (!allDue_ && usersDue_.empty())) {
        return;
    }
    reading_ = true;
    const bool all = std::exchange(allDue_, false) || usersDue_.size() > kMostSingleReads;
    loops_.Block([self = shared_from_this(), all, users = std::exchange(usersDue_, {})]() mutable {
        const StoreResult result = all ? self->ReadAll() : self->ReadSome(users);
        const bool good = result == StoreResult::Done;
        asio::post(self->loop_,
                   [self, good, all, due = std::move(users)] { self->NoteRead(good, all, due); });
    });
}

void RelayMember::NoteRead(bool good, bool all, const std::set<std::string>& users) {
    reading_ = false;
    if (good) {
        ReadNext();
        return;
    }
    allDue_ = allDue_ || all; // at the next tick
    usersDue_.insert(users.begin(), users.end());
}

StoreResult RelayMember::ReadAll() {
    std::vector<TunnelRecord> tunnels;
    const std::uint64_t version = book_.Version();
    const StoreResult result = store_.services.TunnelsOf(relay_.key, tunnels);
    if (result == StoreResult::Done && !ended_) {
        Keys gone;
        for (std::string& user : book_.Replace(std::move(tunnels), version)) {
            gone.push_back({relay_.key, std::move(user)});
        }
        if (!gone.empty()) {
            actions_.close(gone);
        }
    }
    return result;
}

StoreResult RelayMember::ReadSome(const std::set<std::string>& users) {
    Keys gone;
    StoreResult result = StoreResult::Done;
    for (const std::string& user : users) {
        TunnelRecord tunnel;
        const std::uint64_t version = book_.Version();
        result = store_.services.FindTunnel(user, tunnel);
        if (result == StoreResult::Fault || ended_) {
            break;
        }
        const std::optional<TunnelRecord> former = book_.Find(user);
        const bool isOurs = result == StoreResult::Done && tunnel.relay == relay_.key;
        const bool isSame = isOurs && former && former->relayPort == tunnel.relayPort &&
                            former->password == tunnel.password;
        if (former && !isSame) {
            gone.push_back({relay_.key, user});
        }
        if (!isOurs || !book_.Put(std::move(tunnel), version)) {
            book_.Remove(user);
        }
    }
    if (!gone.empty()) {
        actions_.close(gone);
    }
    return result == StoreResult::Fault ? result : StoreResult::Done;
}

} // namespace ZARO::RelayHub
