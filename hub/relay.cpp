#include "hub/relay.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "hub/files.h"
#include "hub/log.h"
#include "hub/secret.h"

namespace ZARO::RelayHub {

namespace {

/// Sessions that have not logged in. One more ends the oldest of the network that has most of them:
/// whoever floods the relay drives himself out, however fast he is, and a log-in from elsewhere has
/// all the time it needs. Many devices at one address fit in when they all come at once.
constexpr std::size_t kMaxStrangers = 512;

/// Only cheap ones, as strangers choose among them: others cost up to 0.3 s of CPU time each.
constexpr char kKeyExchanges[] =
    "curve25519-sha256,curve25519-sha256@libssh.org,ecdh-sha2-nistp256";

struct KeyFree {
    void operator()(ssh_key key) const { ssh_key_free(key); }
};
using HostKey = std::unique_ptr<ssh_key_struct, KeyFree>;

HostKey KeyFrom(const std::string& text) {
    ssh_key key = nullptr;
    if (ssh_pki_import_privkey_base64(text.c_str(), nullptr, nullptr, nullptr, &key) != SSH_OK) {
        return nullptr;
    }
    return HostKey(key);
}

/// A new key as text; "" when it can't be made.
std::string MakeHostKey() {
    ssh_key made = nullptr;
    char* exported = nullptr;
    if (ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &made) == SSH_OK) {
        (void)ssh_pki_export_privkey_base64(made, nullptr, nullptr, nullptr, &exported);
    }
    const HostKey owner(made);
    std::string text = exported == nullptr ? "" : exported;
    ssh_string_free_char(exported);
    return text;
}

} // namespace

Relay::Relay(Store& store, std::string visitorAddress, StatusChanged statusChanged)
    : store_(store), visitorAddress_(std::move(visitorAddress)),
      statusChanged_(std::move(statusChanged)), bind_(ssh_bind_new(), ssh_bind_free), up_(65536),
      acceptor_(
          "relay", [this] { return MayAdmit(); },
          [this](int connection) { return Admit(connection); }) {
}

Relay::~Relay() {
    Stop();
}

bool Relay::Start(const std::string& address, int port, const std::string& keyFile,
                  std::string& error) {
    UniqueFd listener;
    return UseHostKey(keyFile, error) && ListenTcp(address, port, listener, error) &&
           acceptor_.Start(std::move(listener), error);
}

bool Relay::UseHostKey(const std::string& keyFile, std::string& error) {
    std::optional<std::string> text;
    if (!ReadSmallFile(keyFile, text, error)) {
        return false;
    }
    if (!text) {
        if (store_.devices.HasAny()) {
            Log(Level::Warning, "relay", "%s is gone: devices will refuse the new host key",
                keyFile.c_str());
        }
        text = MakeHostKey();
        if (text->empty() || !WritePrivateFile(keyFile, *text, error)) {
            error = error.empty() ? "can't make a host key" : error;
            return false;
        }
    }
    HostKey key = KeyFrom(*text);
    const bool noFiles = false; // the settings of the machine's own SSH server don't apply here
    if (key == nullptr || bind_ == nullptr ||
        ssh_bind_options_set(bind_.get(), SSH_BIND_OPTIONS_PROCESS_CONFIG, &noFiles) != SSH_OK ||
        ssh_bind_options_set(bind_.get(), SSH_BIND_OPTIONS_KEY_EXCHANGE, kKeyExchanges) != SSH_OK ||
        ssh_bind_options_set(bind_.get(), SSH_BIND_OPTIONS_IMPORT_KEY, key.get()) != SSH_OK) {
        error = keyFile + " holds no usable host key: put a copy back, or remove it for a new one, "
                          "which every device has to be told to accept";
        return false;
    }
    (void)key.release(); // it belongs to bind_ now
    return true;
}

void Relay::Stop() {
    acceptor_.Stop();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        for (RelaySession* session : sessions_) {
            session->End();
        }
    }
    threads_.JoinAll();
}

bool Relay::MayAdmit() {
    // Gets the session's second descriptor before its connection is accepted. Without one the
    // connection waits instead of being lost.
    if (!spare_ || !spare_->IsValid()) {
        spare_.emplace();
    }
    if (!spare_->IsValid()) {
        return false;
    }
    // Strangers that were told to end take a moment; a flood must not pile up threads meanwhile.
    const std::lock_guard<std::mutex> lock(mutex_);
    return threads_.Count() < seats_.size() + 2 * kMaxStrangers;
}

bool Relay::Admit(int connection) {
    const int waker = spare_->Get();
    if (!threads_.Start(
            [this, connection, waker] { Serve(UniqueFd(connection), Waker(UniqueFd(waker))); })) {
        return false;
    }
    (void)spare_->Release(); // the thread owns both
    return true;
}

void Relay::Serve(UniqueFd fd, Waker waker) {
    ssh_session raw = ssh_new();
    if (raw == nullptr) {
        return;
    }
    const int socket = fd.Get();
    const std::uint64_t network = NetworkOf(socket);
    int result = SSH_ERROR;
    {
        const std::lock_guard<std::mutex> lock(mutex_); // bind_ is for one thread at a time
        result = ssh_bind_accept_fd(bind_.get(), raw, socket);
    }
    if (ssh_get_fd(raw) == socket) {
        (void)fd.Release(); // it closes with the session
    }
    try {
        RelaySession session(*this, raw, socket, std::move(waker));
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_ || result != SSH_OK) {
                return;
            }
            if (strangers_.size() >= kMaxStrangers) {
                DropStranger();
            }
            strangers_.push_back({&session, network});
            sessions_.push_back(&session);
        }
        struct Entry {
            Relay& relay;
            RelaySession& session;
            ~Entry() { relay.Leave(&session); }
        } const entry{*this, session};
        session.Run();
    } catch (const std::exception& fault) {
        Log(Level::Error, "relay", "a session failed: %s", fault.what());
    }
}

void Relay::DropStranger() {
    std::map<std::uint64_t, std::size_t> counts;
    for (const Stranger& stranger : strangers_) {
        ++counts[stranger.network];
    }
    const auto found = std::max_element( // the first of equals
        strangers_.begin(), strangers_.end(), [&counts](const Stranger& a, const Stranger& b) {
            return counts[a.network] < counts[b.network];
        });
    found->session->End();
    strangers_.erase(found);
}

void Relay::ForgetStranger(const RelaySession* session) {
    strangers_.remove_if([session](const Stranger& one) { return one.session == session; });
}

bool Relay::LogIn(RelaySession* session, const std::string& user, const std::string& password) {
    const std::lock_guard<std::mutex> lock(mutex_);
    TunnelRecord tunnel;
    const StoreResult found = store_.services.FindTunnel(user, tunnel);
    // An unknown user takes as long as a wrong password.
    const bool equal = EqualSecrets(tunnel.password, password);
    if (found != StoreResult::Done || !equal) {
        refusals_.Log("relay", "log-in from %s refused: %s", session->Peer().c_str(),
                      found == StoreResult::Done ? "wrong password" : "unknown user");
        return false;
    }
    if (session->IsEnded()) { // it would only drive the former session out
        return false;
    }
    Seat& seat = seats_[user];
    if (seat.session != nullptr) {
        seat.session->End();
    }
    seat.session = session;
    seat.tunnel = std::move(tunnel);
    if (seat.port != nullptr) {
        seat.port->GiveTo(session); // stays open for visitors, who wait in the backlog
    }
    ForgetStranger(session);
    return true;
}

std::shared_ptr<RelayPort> Relay::OpenPort(RelaySession* session, int port) {
    TunnelStatus status;
    std::shared_ptr<RelayPort> opened;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = SeatOf(session);
        if (found == seats_.end() || found->second.tunnel.relayPort != port) {
            return nullptr;
        }
        Seat* const seat = &found->second;
        if (seat->port == nullptr) {
            UniqueFd listener;
            std::string error;
            if (!ListenTcp(visitorAddress_, port, listener, error)) {
                closedPorts_.Log("relay", "tunnel %s: %s", seat->tunnel.id.c_str(), error.c_str());
                return nullptr;
            }
            seat->port = std::make_shared<RelayPort>(std::move(listener));
            seat->port->GiveTo(session);
            up_[static_cast<std::uint16_t>(port)] = true;
            status = {seat->tunnel.device, seat->tunnel.user, true};
        }
        opened = seat->port;
    }
    if (status.device != 0) {
        statusChanged_(std::move(status));
    }
    return opened;
}

void Relay::Close(const std::vector<TunnelKey>& gone) {
    // No status to report: these tunnels are off their device's list already.
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const TunnelKey& tunnel : gone) {
        const auto seat = seats_.find(tunnel.user);
        if (seat != seats_.end()) {
            (void)ClosePort(seat->second);
            seat->second.session->End();
            seats_.erase(seat);
        }
    }
}

void Relay::Leave(RelaySession* session) {
    TunnelStatus status;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ForgetStranger(session);
        sessions_.remove(session);
        const auto seat = SeatOf(session);
        if (seat != seats_.end()) {
            status = stopping_ ? TunnelStatus() : ClosePort(seat->second);
            seats_.erase(seat);
        }
    }
    if (status.device != 0) {
        statusChanged_(std::move(status));
    }
}

Relay::Seats::iterator Relay::SeatOf(const RelaySession* session) {
    return std::find_if(seats_.begin(), seats_.end(),
                        [session](const auto& entry) { return entry.second.session == session; });
}

TunnelStatus Relay::ClosePort(Seat& seat) {
    if (seat.port == nullptr) {
        return {};
    }
    up_[static_cast<std::uint16_t>(seat.tunnel.relayPort)] = false;
    seat.port->Shut();
    seat.port.reset();
    return {seat.tunnel.device, seat.tunnel.user, false};
}

} // namespace ZARO::RelayHub
