#include "hub/relay_role.h"

#include <optional>
#include <utility>

#include "hub/files.h"
#include "hub/host_key.h"
#include "hub/log.h"
#include "hub/net.h"

namespace ZARO::RelayHub {

namespace {

/// Between two attempts to join when the database can't be written, as on a full disk.
constexpr auto kJoinPause = std::chrono::seconds(10);

} // namespace

RelayRole::RelayRole(Loops& loops, Store& store, const HubOptions& options, Actions actions)
    : loops_(loops), store_(store), options_(options), actions_(std::move(actions)),
      key_(options.relaySpare ? -1 : 0), relay_(loops, store, book_, options.visitorAddress,
                                                [this](TunnelStatus status) {
                                                    status.relay = key_;
                                                    actions_.statusChanged(status);
                                                }),
      joinTimer_(loops.At(0)) {
}

bool RelayRole::Start(std::string& error) {
    if (!options_.relaySpare) {
        return Become(options_.relayName, error);
    }
    spare_ = std::make_shared<RelaySpare>(loops_, store_, [this](const std::string& name) {
        std::string reason;
        const bool good = Become(name, reason);
        if (good) {
            const RelayRecord& relay = CurrentMember()->Relay();
            Log(Level::Info, "relay", "takes the place of relay %s: port %d, tunnels' ports %d-%d",
                name.c_str(), Port(), relay.firstPort, relay.lastPort);
        } else {
            Log(Level::Warning, "relay", "can't take the place of relay %s: %s", name.c_str(),
                reason.c_str());
        }
        return good;
    });
    spare_->Start();
    Log(Level::Info, "relay", "stands by for a relay to be gone");
    return true;
}

bool RelayRole::Become(const std::string& name, std::string& error) {
    const std::lock_guard<std::mutex> lock(life_);
    if (ended_) {
        error = "the hub ends";
        return false;
    }
    std::string hostKey;
    // A shared database keeps the keys of the relays, so that any host can take a relay's place.
    const bool isShared = !options_.database.empty();
    const bool hasOwnKey = !isShared || !options_.relaySpare;
    const bool isMissed = !isShared && store_.devices.HasAny();
    UniqueFd nameLock;
    if (!LockRelayName(options_.data, name, nameLock, error) ||
        (hasOwnKey && !LoadHostKey(HostKeyFile(options_.data, name), isMissed, hostKey, error))) {
        return false;
    }
    RelayIdentity identity{name, options_.relayHost, "", 0, 0, hostKey};
    if (!options_.relaySpare) { // else it has the ports of the relay whose place it takes
        identity.firstPort = options_.firstPort;
        identity.lastPort = options_.lastPort;
    }
    UniqueFd listener; // before it becomes the relay, so that a relay that can't listen stays free
    if (!GetOwner(identity.owner, error) ||
        !ListenTcp(options_.address, options_.relayPort, listener, error)) {
        return false;
    }
    identity.sshPort = PortOf(listener.Get());
    const StoreResult joined = Join(identity, error);
    if (joined == StoreResult::Fault && options_.database.empty() && !options_.relaySpare) {
        error.clear();
        JoinLater(identity); // it serves the tunnels that are known, as on a full disk
    } else if (joined != StoreResult::Done) {
        return false;
    }
    nameLock_ = std::move(nameLock);
    return Serve(std::move(listener), hostKey, error);
}

bool RelayRole::Serve(UniqueFd listener, const std::string& hostKey, std::string& error) {
    const Member member = CurrentMember();
    const bool isShared = member != nullptr && !member->Relay().hostKey.empty();
    if (relay_.Start(std::move(listener), isShared ? member->Relay().hostKey : hostKey, error)) {
        port_ = relay_.Port();
        return true;
    }
    Leave();
    SetMember(nullptr);
    key_ = -1;
    store_.ports.UseRelay(0, nullptr);
    nameLock_ = UniqueFd();
    return false;
}

StoreResult RelayRole::Join(const RelayIdentity& identity, std::string& error) {
    const auto close = [this](const std::vector<TunnelKey>& gone) { relay_.Close(gone); };
    const auto member = std::make_shared<RelayMember>(
        loops_, store_, book_, RelayMember::Actions{close, [this] { Lost(); }});
    Changes changes;
    const StoreResult result = member->Join(identity, changes, error);
    if (result == StoreResult::Done) {
        key_ = member->Relay().key;
        store_.ports.UseRelay(key_, [this](int port) { return IsFree(port); });
        member->Start();
        SetMember(member);
        if (ended_) { // Stop() may have come too early to see it
            member->Leave();
        }
        actions_.changed(changes);
    }
    return result;
}

void RelayRole::JoinLater(const RelayIdentity& identity) {
    asio::post(loops_.At(0), [this, identity] {
        if (ended_) {
            return;
        }
        joinTimer_.expires_after(kJoinPause);
        joinTimer_.async_wait([this, identity](const boost::system::error_code& stopped) {
            if (stopped || ended_) {
                return;
            }
            loops_.Block([this, identity] {
                std::string error;
                const std::lock_guard<std::mutex> lock(life_);
                if (!ended_ && Join(identity, error) != StoreResult::Done) {
                    JoinLater(identity);
                }
            });
        });
    });
}

bool RelayRole::GetOwner(std::string& owner, std::string& error) const {
    if (options_.database.empty()) {
        owner = "local"; // the folder is this host's, and the lock of the name tells the rest
        return true;
    }
    return OwnerOf(options_.data, owner, error);
}

void RelayRole::Lost() {
    const std::lock_guard<std::mutex> lock(life_);
    port_ = 0;
    key_ = -1; // no relay's: what the database says of the tunnels holds
    store_.ports.UseRelay(0, nullptr);
    relay_.Stop();
    actions_.lost();
}

void RelayRole::Stop() {
    ended_ = true;
    asio::post(loops_.At(0), [this] { (void)joinTimer_.cancel(); });
    if (spare_ != nullptr) {
        spare_->Stop();
    }
    const std::lock_guard<std::mutex> lock(life_);
    relay_.Stop();
    Leave();
}

void RelayRole::Leave() {
    if (const Member member = CurrentMember()) {
        member->Leave();
    }
}

bool RelayRole::IsUp(const TunnelRecord& tunnel) const {
    const std::int64_t own = key_;
    return own == 0 || tunnel.relay == own ? relay_.IsUp(tunnel.relayPort) : tunnel.up;
}

bool RelayRole::IsFree(int port) const {
    // A port of ours that is still open is about to be closed.
    return relay_.IsUp(port) || IsPortFree(options_.visitorAddress, port);
}

void RelayRole::Close(const std::vector<TunnelKey>& gone) {
    const std::int64_t own = key_;
    std::vector<TunnelKey> here;
    for (const TunnelKey& tunnel : gone) {
        if (own == 0 || tunnel.relay == own) {
            here.push_back(tunnel);
        }
    }
    relay_.Close(here);
}

void RelayRole::Heed(const Changes& changes) {
    if (const Member member = CurrentMember()) {
        member->Heed(changes);
    }
}

void RelayRole::HeedAll() {
    if (const Member member = CurrentMember()) {
        member->HeedAll();
    }
}

void RelayRole::BeginDrain() {
    if (spare_ != nullptr) {
        spare_->Stop();
    }
    if (const Member member = CurrentMember()) {
        (void)Drain(*member); // else IsDrained() tries again
    }
}

bool RelayRole::Drain(RelayMember& member) {
    drains_ = drains_ || member.Drain();
    return drains_;
}

bool RelayRole::IsDrained() {
    const Member member = CurrentMember();
    std::vector<RelayRecord> others;
    // Without the database nothing moves.
    return member == nullptr || !Drain(*member) ||
           !store_.services.HasTunnels(member->Relay().key) ||
           store_.relays.Alive(others) != StoreResult::Done || others.empty();
}

void RelayRole::SetMember(Member member) {
    const std::lock_guard<std::mutex> lock(mutex_);
    member_ = std::move(member);
}

RelayRole::Member RelayRole::CurrentMember() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return member_;
}

} // namespace ZARO::RelayHub
