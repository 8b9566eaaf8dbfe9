#include "hub/relay_session.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "hub/log.h"
#include "hub/net.h"

namespace ZARO::RelayHub {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto kLogInTime = seconds(10);   // from the connection to the log-in
constexpr auto kForwardTime = seconds(10); // from the log-in to the forward request
constexpr int kMaxTries = 3;               // wrong passwords
constexpr int kRefusalDelay = 1000;        // ms before a wrong password is refused

// A device that says nothing for this long, though it was asked in between, is gone. A second probe
// goes out only when the first is answered; a lost packet is TCP's to repeat.
constexpr auto kSilence = seconds(14);
constexpr auto kFirstProbe = seconds(6); // the device's own probes come sooner, as a rule
constexpr auto kNextProbe = seconds(4);  // if the first could not be sent

// A device that takes no data is read from only once per second: the library collects the replies
// to its requests without bound. A slow line, whose buffer is deep, frees it in time.
constexpr auto kPatience = seconds(2);
constexpr auto kSlowReading = seconds(1);
constexpr auto kStuckTime = seconds(300); // ends it

constexpr std::size_t kMaxVisitors = 1024; // one more ends the one that has been idle longest
constexpr std::size_t kMaxLeaving = 256;   // further ones, that wait for the device to let them go
constexpr std::size_t kAcceptedAtOnce = 16;
constexpr std::size_t kMaxBindAddress = 255;

// Places in what is polled; the visitors come last, in their order.
constexpr std::size_t kWakerPlace = 0;
constexpr std::size_t kSshPlace = 1;
constexpr std::size_t kPortPlace = 2;
constexpr std::size_t kFirstVisitorPlace = 3;

} // namespace

RelaySession::RelaySession(RelayDesk& desk, ssh_session session, int fd, Waker waker)
    : desk_(desk), session_(session, ssh_free), event_(ssh_event_new(), ssh_event_free), fd_(fd),
      waker_(std::move(waker)), now_(Clock::now()), deadline_(now_ + kLogInTime), heard_(now_),
      clear_(now_), buffer_(RelayVisitor::kChunk) {
}

RelaySession::~RelaySession() {
    visitors_.clear();
    if (inEvent_) {
        (void)ssh_event_remove_session(event_.get(), session_.get());
    }
    ssh_silent_disconnect(session_.get());
}

bool RelaySession::Prepare() {
    if (event_ == nullptr) {
        return false;
    }
    serverCallbacks_.userdata = this;
    serverCallbacks_.auth_password_function = OnPassword;
    ssh_callbacks_init(&serverCallbacks_);
    callbacks_.userdata = this;
    callbacks_.global_request_function = OnGlobalRequest;
    ssh_callbacks_init(&callbacks_);
    ssh_set_blocking(session_.get(), 0);
    ssh_set_counters(session_.get(), &traffic_, nullptr);
    ssh_set_auth_methods(session_.get(), SSH_AUTH_METHOD_PASSWORD);
    // The socket's own probes notice a lost line while data is under way, KeepAlive() at other
    // times.
    SetKeepAlive(fd_, 5, 3, 3);
    SetUserTimeOut(fd_, static_cast<int>(milliseconds(kSilence).count()));
    return ssh_set_server_callbacks(session_.get(), &serverCallbacks_) == SSH_OK &&
           ssh_set_callbacks(session_.get(), &callbacks_) == SSH_OK;
}

void RelaySession::Run() {
    if (!Prepare()) {
        return;
    }
    HandleSsh(); // sends the greeting
    while (state_ != State::Over && !ended_) {
        const bool waited = IsWriting();
        WaitForEvents();
        now_ = Clock::now();
        if (polled_[kSshPlace].revents != 0) {
            HandleSsh();
        }
        clear_ = waited && IsWriting() ? clear_ : now_;
        // The library reads from the socket in other calls too, so its own count is what tells.
        const bool heard = traffic_.in_bytes != seenTraffic_;
        if (heard) {
            seenTraffic_ = traffic_.in_bytes;
            heard_ = now_;
        }
        if (state_ == State::Serving) {
            HandleVisitors(heard);
            AcceptVisitors();
            KeepAlive();
        } else if (state_ != State::Over && now_ >= deadline_) {
            Over("not ready in time");
        }
    }
}

/// Whether data for the device waits for the line.
bool RelaySession::IsWriting() const {
    return (ssh_get_poll_flags(session_.get()) & SSH_WRITE_PENDING) != 0;
}

/// Whether what the device sends is read at once.
bool RelaySession::IsListening() const {
    return now_ < clear_ + kPatience || now_ >= heard_ + kSlowReading;
}

void RelaySession::WaitForEvents() {
    const bool writing = IsWriting();
    const bool accepting =
        port_ != nullptr && visitors_.size() < kMaxVisitors + kMaxLeaving && now_ >= rest_;
    polled_.resize(kFirstVisitorPlace);
    polled_[kWakerPlace] = {waker_.Get(), POLLIN, 0};
    polled_[kSshPlace] = {
        fd_, static_cast<short>((IsListening() ? POLLIN : 0) | (writing ? POLLOUT : 0)), 0};
    polled_[kPortPlace] = {accepting ? port_->Get() : -1, POLLIN, 0};
    if (!visitors_.empty()) { // each comes first in turn
        visitors_.splice(visitors_.end(), visitors_, visitors_.begin());
    }
    for (RelayVisitor& visitor : visitors_) {
        // Nothing more is read while the line is full, so that the queue on it stays short.
        polled_.push_back(visitor.Wanted(!writing));
    }
    if (poll(polled_.data(), polled_.size(), TimeOut()) <= 0) {
        for (pollfd& entry : polled_) {
            entry.revents = 0;
        }
    }
}

/// Milliseconds until the next thing that is due by the clock.
int RelaySession::TimeOut() const {
    if (traffic_.in_bytes != seenTraffic_) {
        return 0; // what came meanwhile may concern any visitor
    }
    Clock::time_point due = deadline_;
    if (state_ == State::Serving) {
        due = std::min(probe_, heard_ + kSilence);
        due = rest_ > now_ ? std::min(due, rest_) : due;
    }
    due = IsListening() ? due : std::min(due, heard_ + kSlowReading);
    const auto left = std::chrono::ceil<milliseconds>(due - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

void RelaySession::HandleSsh() {
    ssh_session session = session_.get();
    if (inEvent_ && ssh_event_dopoll(event_.get(), 0) == SSH_ERROR) {
        Over("connection lost");
        return;
    }
    if (state_ == State::KeyExchange) {
        const int result = ssh_handle_key_exchange(session);
        if (result == SSH_ERROR) {
            Over("no key exchange");
            return;
        }
        if (!inEvent_) {
            inEvent_ = ssh_event_add_session(event_.get(), session) == SSH_OK;
        }
        if (result == SSH_OK) {
            state_ = State::LogIn;
        }
    }
    if (!inEvent_ || ssh_is_connected(session) == 0) {
        Over("connection lost");
    }
}

void RelaySession::HandleVisitors(bool heard) {
    bool overrun = false;
    std::size_t place = kFirstVisitorPlace;
    for (auto visitor = visitors_.begin(); visitor != visitors_.end();) {
        if (heard) {
            visitor->AwaitOpening();
        }
        short events = polled_[place++].revents;
        if (IsWriting()) {
            events = static_cast<short>(events & ~POLLIN);
        }
        visitor->Move(events, now_, buffer_.data());
        overrun = overrun || visitor->IsOverrun();
        visitor = visitor->IsDone() ? visitors_.erase(visitor) : std::next(visitor);
    }
    if (overrun) {
        Over("it sends more than its windows allow");
    } else if (ssh_is_connected(session_.get()) == 0) {
        Over("connection lost");
    }
}

void RelaySession::AcceptVisitors() {
    if (state_ != State::Serving || polled_[kPortPlace].revents == 0) {
        return;
    }
    for (std::size_t i = 0; i < kAcceptedAtOnce && visitors_.size() < kMaxVisitors + kMaxLeaving;
         ++i) {
        UniqueFd fd = port_->Accept(this);
        if (!fd.IsOpen()) {
            if (IsShortage(errno)) {
                rest_ = now_ + kAcceptPause;
                if (!inShortage_) {
                    Log(Level::Warning, "relay", "visitors of port %d wait: %s", portNumber_,
                        strerror(errno));
                }
                inShortage_ = true;
            }
            return;
        }
        inShortage_ = false;
        MakeRoom();
        visitors_.emplace_back(session_.get(), std::move(fd));
        visitors_.back().Open(bindAddress_, portNumber_);
    }
}

void RelaySession::MakeRoom() {
    std::size_t present = 0;
    RelayVisitor* idlest = nullptr;
    for (RelayVisitor& visitor : visitors_) {
        if (!visitor.IsGone()) {
            ++present;
            idlest = idlest == nullptr || visitor.MovedAt() < idlest->MovedAt() ? &visitor : idlest;
        }
    }
    if (present >= kMaxVisitors) {
        idlest->End();
    }
}

void RelaySession::KeepAlive() {
    const bool silent = now_ >= heard_ + kSilence;
    if (silent || now_ >= clear_ + kStuckTime) {
        Over(silent ? "silent" : "it takes no data");
        return;
    }
    probe_ = std::max(probe_, heard_ + kFirstProbe);
    if (now_ < probe_) {
        return;
    }
    probe_ = now_ + kNextProbe;
    // The first call takes in the answer to the last probe, if there is one; the second sends.
    (void)ssh_send_keepalive(session_.get());
    (void)ssh_send_keepalive(session_.get());
}

void RelaySession::Over(const char* why) {
    if (state_ == State::Serving) {
        Log(Level::Info, "relay", "port %d: session ended: %s", portNumber_, why);
    } else {
        Log(Level::Debug, "relay", "a session ended before it was served: %s", why);
    }
    state_ = State::Over;
}

int RelaySession::OnPassword(ssh_session, const char* user, const char* password, void* self) {
    try {
        return static_cast<RelaySession*>(self)->CheckPassword(user, password) ? SSH_AUTH_SUCCESS
                                                                               : SSH_AUTH_DENIED;
    } catch (const std::exception&) {
        return SSH_AUTH_DENIED;
    }
}

bool RelaySession::CheckPassword(const char* user, const char* password) {
    if (state_ != State::LogIn || user == nullptr || password == nullptr) {
        return false;
    }
    if (desk_.LogIn(this, user, password)) {
        state_ = State::LoggedIn;
        deadline_ = Clock::now() + kForwardTime;
        return true;
    }
    (void)waker_.WaitFor(kRefusalDelay); // this thread serves nobody else
    ended_ = ended_ || ++tries_ >= kMaxTries;
    return false;
}

void RelaySession::OnGlobalRequest(ssh_session, ssh_message message, void* self) {
    if (ssh_message_type(message) != SSH_REQUEST_GLOBAL) {
        return;
    }
    auto* session = static_cast<RelaySession*>(self);
    try {
        if (ssh_message_subtype(message) == SSH_GLOBAL_REQUEST_KEEPALIVE) {
            (void)ssh_message_global_request_reply_success(message, 0);
        } else if (ssh_message_subtype(message) != SSH_GLOBAL_REQUEST_TCPIP_FORWARD ||
                   !session->Forward(message)) {
            // The library loses the address of every such request, so none may follow.
            (void)ssh_message_reply_default(message);
            session->ended_ = true;
        }
    } catch (const std::exception& fault) {
        Log(Level::Error, "relay", "a request failed: %s", fault.what());
        session->ended_ = true;
    }
}

bool RelaySession::Forward(ssh_message message) {
    const char* address = ssh_message_global_request_address(message);
    const int port = ssh_message_global_request_port(message);
    if (state_ != State::LoggedIn || address == nullptr ||
        std::string(address).size() > kMaxBindAddress) {
        return false;
    }
    port_ = desk_.OpenPort(this, port);
    if (port_ == nullptr) {
        return false;
    }
    bindAddress_ = address;
    portNumber_ = port;
    state_ = State::Serving;
    probe_ = Clock::now() + kFirstProbe;
    (void)ssh_message_global_request_reply_success(message, static_cast<std::uint16_t>(port));
    Log(Level::Info, "relay", "port %d is up", port);
    return true;
}

} // namespace ZARO::RelayHub
