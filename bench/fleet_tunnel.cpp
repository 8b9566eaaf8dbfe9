#include "bench/fleet_tunnel.h"

#include <algorithm>
#include <utility>

#include <libssh/server.h>

namespace ZARO::Fleet {

namespace {

using Relay::app::Backoff;

/// The limits and keep-alives of the real device's SSH client.
constexpr seconds kConnectTime{5};
constexpr seconds kLogInTime{15};
constexpr seconds kKeepAlive{5};
constexpr int kMostSilent = 2;

/// When the control server is back, so is the relay, most likely.
constexpr milliseconds kFollow{2000};

} // namespace

FleetTunnel::FleetTunnel(World& world, unsigned device, std::function<void()> changed,
                         std::function<milliseconds()> spread)
    : world_(world), device_(device), changed_(std::move(changed)), spread_(std::move(spread)),
      timer_(world.loop) {
}

void FleetTunnel::Assign(const TunnelAddress& address) {
    if (address == address_) {
        return;
    }
    address_ = address;
    if (wanted_) {
        End();
        Start(milliseconds(0));
    }
}

void FleetTunnel::Start(milliseconds spread) {
    wanted_ = true;
    if (!address_.host.empty()) {
        pace_.ComeAt(Clock::now() + Backoff::Random(milliseconds(0), spread));
        Wait();
    }
}

void FleetTunnel::Stop() {
    wanted_ = false;
    End();
    changed_();
}

void FleetTunnel::Drop() {
    if (step_ == Step::Up) {
        End();
        changed_();
        pace_.ComeAt(Clock::now());
        Wait();
    }
}

void FleetTunnel::RetrySoon() {
    if (step_ == Step::Waiting) {
        pace_.StartOver(Clock::now(), kFollow);
        Wait();
    }
}

void FleetTunnel::Wait() {
    step_ = Step::Waiting;
    timer_.expires_at(pace_.Next());
    timer_.async_wait([this](const Error& error) {
        if (!error && step_ == Step::Waiting && pace_.Next() <= Clock::now()) {
            LogIn();
        }
    });
}

void FleetTunnel::SetLimit(milliseconds limit) {
    timer_.expires_after(limit);
    timer_.async_wait([this](const Error& error) {
        if (!error && step_ > Step::Waiting && timer_.expiry() <= Clock::now()) {
            LimitReached();
        }
    });
}

void FleetTunnel::LimitReached() {
    if (step_ == Step::Up) {
        KeepAlive();
    } else {
        Failed();
    }
}

void FleetTunnel::LogIn() {
    ++tries;
    begun_ = Clock::now();
    step_ = Step::Connecting;
    SetLimit(kConnectTime);
    socket_ = std::make_shared<tcp::socket>(world_.loop);
    world_.Open(*socket_, device_);
    Error error;
    const auto host = asio::ip::make_address(address_.host, error);
    socket_->async_connect({host, world_.sshPort}, [this, socket = socket_](const Error& failed) {
        if (socket != socket_) {
            return; // of a log-in that was given up
        }
        if (failed || !Connected()) {
            Failed();
        } else {
            Advance();
        }
    });
}

/// Gives the connection to libssh. False when it does not take it.
bool FleetTunnel::Connected() {
    SetLimit(kLogInTime);
    session_.reset(ssh_new());
    event_.reset(ssh_event_new());
    if (session_ == nullptr || event_ == nullptr) {
        return false;
    }
    ssh_session session = session_.get();
    const bool noFiles = false;
    socket_t fd = socket_->native_handle();
    step_ = Step::KeyExchange;
    traffic_ = {};
    seen_ = 0;
    silent_ = 0;
    ssh_set_blocking(session, 0);
    ssh_set_counters(session, &traffic_, nullptr);
    ssh_set_message_callback(session, OnMessage, this);
    const auto set = [session](ssh_options_e option, const void* value) {
        return ssh_options_set(session, option, value) == SSH_OK;
    };
    return set(SSH_OPTIONS_PROCESS_CONFIG, &noFiles) &&
           set(SSH_OPTIONS_HOST, address_.host.c_str()) &&
           set(SSH_OPTIONS_USER, address_.user.c_str()) &&
           set(SSH_OPTIONS_KNOWNHOSTS, "/dev/null") &&
           set(SSH_OPTIONS_GLOBAL_KNOWNHOSTS, "/dev/null") &&
           set(SSH_OPTIONS_KEY_EXCHANGE, "curve25519-sha256") &&
           set(SSH_OPTIONS_CIPHERS_C_S, "aes128-gcm@openssh.com") &&
           set(SSH_OPTIONS_CIPHERS_S_C, "aes128-gcm@openssh.com") && set(SSH_OPTIONS_FD, &fd);
}

void FleetTunnel::Watch(tcp::socket::wait_type what, bool& watched) {
    if (watched) {
        return;
    }
    watched = true;
    socket_->async_wait(what, [this, socket = socket_, &watched](const Error& error) {
        if (socket == socket_) {
            watched = false;
            error ? Failed() : Advance();
        }
    });
}

void FleetTunnel::Advance() {
    int result = SSH_OK;
    while (result == SSH_OK && step_ != Step::Up) {
        result = TakeStep();
        if (result == SSH_OK) {
            step_ = static_cast<Step>(static_cast<int>(step_) + 1);
            if (step_ == Step::Up) {
                BecomeUp();
            }
        }
    }
    if (step_ == Step::Up) {
        result = Pump();
    }
    if (result != SSH_OK && result != SSH_AGAIN) {
        Failed();
        return;
    }
    Watch(tcp::socket::wait_read, reading_);
    if ((ssh_get_poll_flags(session_.get()) & SSH_WRITE_PENDING) != 0) {
        Watch(tcp::socket::wait_write, writing_);
    }
}

int FleetTunnel::TakeStep() {
    ssh_session session = session_.get();
    if (step_ == Step::KeyExchange) {
        return ssh_connect(session);
    }
    if (step_ == Step::LogIn) {
        const int result = ssh_userauth_password(session, nullptr, address_.password.c_str());
        refusals += result == SSH_AUTH_DENIED ? 1 : 0;
        return result == SSH_AUTH_AGAIN ? SSH_AGAIN : result;
    }
    const int result = ssh_channel_listen_forward(session, "localhost", address_.port, nullptr);
    refusals += ssh_get_error_code(session) == SSH_REQUEST_DENIED ? 1 : 0;
    return result;
}

void FleetTunnel::BecomeUp() {
    (void)ssh_event_add_session(event_.get(), session_.get()); // Pump() fails if this does
    pace_.LoggedIn(Clock::now());
    SetLimit(kKeepAlive);
    changed_();
}

/// Takes in what has arrived, and sends what visitors wait for while the line takes it.
int FleetTunnel::Pump() {
    if (ssh_event_dopoll(event_.get(), 0) == SSH_ERROR || ssh_is_connected(session_.get()) == 0) {
        return SSH_ERROR;
    }
    const bool free = (ssh_get_poll_flags(session_.get()) & SSH_WRITE_PENDING) == 0;
    for (auto visitor = visitors_.begin(); visitor != visitors_.end();) {
        if (free) {
            visitor->Serve();
        }
        if (visitor->IsOver()) {
            visitor->Close();
            visitor = visitors_.erase(visitor);
        } else {
            ++visitor;
        }
    }
    const bool more = std::any_of(visitors_.begin(), visitors_.end(),
                                  [](const FleetVisitor& visitor) { return visitor.IsBusy(); });
    if (more) { // as soon as the line is free; others have their turn before
        Watch(tcp::socket::wait_write, writing_);
    }
    return SSH_OK;
}

int FleetTunnel::OnMessage(ssh_session /*session*/, ssh_message message, void* self) {
    if (ssh_message_type(message) != SSH_REQUEST_CHANNEL_OPEN ||
        ssh_message_subtype(message) != SSH_CHANNEL_FORWARDED_TCPIP) {
        return 1; // libssh refuses it
    }
    ssh_channel channel = ssh_message_channel_request_open_reply_accept(message);
    if (channel != nullptr) {
        static_cast<FleetTunnel*>(self)->visitors_.emplace_back(channel);
    }
    return 0;
}

/// Asks the relay for a sign of life when none came, as the real client does.
void FleetTunnel::KeepAlive() {
    const bool heard = traffic_.in_bytes != seen_;
    seen_ = traffic_.in_bytes;
    silent_ = heard ? 0 : silent_ + 1;
    if (silent_ > kMostSilent) {
        Failed();
        return;
    }
    SetLimit(kKeepAlive);
    if (!heard) {
        (void)ssh_send_keepalive(session_.get()); // takes in the answer to the one before
        (void)ssh_send_keepalive(session_.get());
        Advance();
    }
}

void FleetTunnel::Failed() {
    const bool wasUp = step_ == Step::Up;
    failures += wasUp ? 0 : 1;
    End();
    if (wasUp) {
        changed_();
        (void)pace_.Lost(Clock::now());
    } else {
        pace_.Failed(begun_, Clock::now(), spread_());
    }
    Wait();
}

void FleetTunnel::End() {
    timer_.cancel();
    step_ = Step::Idle;
    for (FleetVisitor& visitor : visitors_) {
        visitor.Close();
    }
    visitors_.clear();
    if (session_ != nullptr && event_ != nullptr) {
        (void)ssh_event_remove_session(event_.get(), session_.get());
    }
    if (socket_ != nullptr && session_ != nullptr) {
        Error ignored; // it is watched no more, and closes with the session
        (void)socket_->release(ignored);
    }
    if (session_ != nullptr) {
        ssh_silent_disconnect(session_.get());
    }
    event_.reset();
    session_.reset();
    socket_.reset();
    reading_ = writing_ = false;
}

} // namespace ZARO::Fleet
