#include "hub/relay_session.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "hub/log.h"

namespace ZARO::RelayHub {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto kLogInTime = seconds(10);   // from the connection to the log-in, without waiting
constexpr auto kForwardTime = seconds(10); // from the log-in to the forward request

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

// What is due within the same step is done at once: to wake a processor costs more than the look.
constexpr auto kTimerStep = milliseconds(100);

// What one pass moves before the other sessions of the loop have their turn.
constexpr std::uint64_t kPassBytes = std::uint64_t{32} * 1024;
constexpr int kPassRounds = 64;
constexpr std::size_t kSentAtOnce = std::size_t{64} * 1024; // gathered for one system call
constexpr std::uint64_t kReadAtOnce = 4096; // by the library; after less the line is empty

constexpr std::size_t kMaxBindAddress = 255;

} // namespace

RelaySession::RelaySession(RelayDesk& desk, RelayLane& lane, UniqueFd fd)
    : desk_(desk), lane_(lane), line_(std::move(fd)), watch_(lane.loop),
      timer_(lane.loop.get_executor()) {
}

void RelaySession::Start() {
    asio::post(lane_.loop, [self = Self()] { self->Greet(); });
}

void RelaySession::Resume() {
    asio::post(lane_.loop, [self = Self()] {
        if (std::exchange(self->waits_, false)) {
            self->deadline_ += Clock::now() - self->waitsSince_;
        }
        self->lineReady_ = true;
        self->Pass();
    });
}

void RelaySession::End() {
    ended_ = true;
    asio::post(lane_.loop, [self = Self()] { self->Finish(); });
}

void RelaySession::Wake() {
    if (!posted_) {
        posted_ = true;
        asio::post(lane_.loop, [self = Self()] { self->Pass(); });
    }
}

void RelaySession::Greet() {
    lane_.now = Clock::now();
    deadline_ = lane_.now + kLogInTime;
    heard_ = clear_ = lane_.now;
    if (ended_ || !Prepare()) {
        Over("it can't be served");
        Finish();
        return;
    }
    PollLine(); // sends the greeting
    Pass();
}

bool RelaySession::Prepare() {
    callbacks_.userdata = this;
    callbacks_.global_request_function = OnGlobalRequest;
    ssh_callbacks_init(&callbacks_);
    // The socket's own probes notice a lost line while data is under way, KeepAlive() at other
    // times.
    SetKeepAlive(line_.Get(), 5, 3, 3);
    SetUserTimeOut(line_.Get(), static_cast<int>(milliseconds(kSilence).count()));
    return line_.Start(lane_.bind.get(), &callbacks_) && watch_.Start(line_.Get());
}

void RelaySession::Pass() {
    if (released_) {
        return;
    }
    try {
        Serve();
    } catch (const std::exception& fault) {
        Log(Level::Error, "relay", "a session failed: %s", fault.what());
        Finish();
    }
}

void RelaySession::Serve() {
    posted_ = true; // nobody has to wake it meanwhile
    lane_.now = Clock::now();
    clear_ = line_.IsWriting() ? clear_ : lane_.now;
    if (!waits_ && !ended_) {
        const bool isStranger = state_ == State::KeyExchange || state_ == State::LogIn;
        waits_ = isStranger && lineReady_ && !desk_.MayProceed(*this);
        waitsSince_ = lane_.now;
    }
    if (!waits_ && !ended_) {
        MoveData();
        clear_ = line_.IsWriting() ? clear_ : lane_.now;
    }
    CheckClock();
    posted_ = false;
    if (state_ == State::Over || ended_) {
        Finish();
    } else if (!waits_) {
        AwaitMore();
    }
    if (!released_) {
        SetTimer();
    }
}

void RelaySession::MoveData() {
    const std::uint64_t start = line_.In() + line_.Out();
    for (int round = 0; round < kPassRounds && state_ != State::Over && !ended_; ++round) {
        const std::uint64_t in = line_.In();
        const std::uint64_t out = line_.Out();
        const bool wasWriting = line_.IsWriting();
        if (lineReady_ || (wasWriting && !lineFull_)) {
            PollLine();
            // While something comes, the library doesn't look whether the line is free.
            lineFull_ = wasWriting && line_.IsWriting() && line_.Out() == out && line_.In() == in;
        }
        if (state_ == State::Over) {
            return;
        }
        HandleInput();
        if (visitors_ != nullptr && state_ == State::Serving) {
            (void)visitors_->Serve(!line_.IsWriting(), kSentAtOnce);
        }
        lineReady_ =
            line_.In() != seenTraffic_ || (line_.In() - in >= kReadAtOnce && IsListening());
        const std::uint64_t moved = line_.In() + line_.Out() - start;
        if (lineFull_ || moved >= kPassBytes || !(lineReady_ || line_.IsWriting())) {
            break;
        }
    }
    if (state_ != State::Over && !ended_ && visitors_ != nullptr && visitors_->IsOverrun()) {
        Over("it sends more than its windows allow");
    } else if (state_ != State::Over && !ended_ && !line_.IsConnected()) {
        Over("connection lost");
    }
}

void RelaySession::PollLine() {
    if (!line_.Poll()) {
        Over("connection lost");
        return;
    }
    if (state_ == State::KeyExchange) {
        const RelayLine::Exchange result = line_.ExchangeKeys();
        if (result == RelayLine::Exchange::Failed) {
            Over("no key exchange");
            return;
        }
        if (result == RelayLine::Exchange::Done) {
            state_ = State::LogIn;
            desk_.Advance(*this);
            logIn_ = std::make_unique<RelayLogIn>(
                *this, lane_, line_.Session(),
                [this](const std::string& user, const std::string& password) {
                    user_ = user;
                    desk_.Advance(*this);
                    desk_.LogIn(Self(), password);
                });
        }
    }
    if (!line_.IsConnected()) {
        Over("connection lost");
    }
}

void RelaySession::HandleInput() {
    if (line_.In() != seenTraffic_) {
        seenTraffic_ = line_.In();
        heard_ = lane_.now;
        if (visitors_ != nullptr) {
            visitors_->Hear();
        }
    }
    if (logIn_ == nullptr || state_ == State::Over) {
        return; // one that is gone must not drive the former session out
    }
    logIn_->Read();
    if (logIn_->Result() == RelayLogIn::State::Over) {
        ended_ = true;
    } else if (logIn_->Result() == RelayLogIn::State::Granted) {
        logIn_.reset();
        // From now on every request but the forward is refused at once, also those that came
        // already.
        ssh_set_message_callback(line_.Session(), OnMessage, this);
        (void)ssh_execute_message_callbacks(line_.Session());
    }
}

void RelaySession::AwaitMore() {
    const bool busy = logIn_ != nullptr && logIn_->IsBusy();
    const bool hasWork =
        lineReady_ || line_.IsWriting() || (visitors_ != nullptr && visitors_->HasWork());
    if (hasWork && !lineFull_ && !busy) {
        Wake(); // when the others have had their turn
        return;
    }
    lineReady_ = false;
    if (IsListening() && !busy) {
        watch_.Await(Watch::Kind::Readable, [self = Self()] {
            self->lane_.now = Clock::now();
            self->lineReady_ = self->lineReady_ || self->IsListening();
            self->Pass();
        });
    }
    if (line_.IsWriting()) {
        watch_.Await(Watch::Kind::Writable, [self = Self()] {
            self->lineReady_ = true;
            self->Pass();
        });
    }
}

RelaySession::Clock::time_point RelaySession::NextDue() const {
    if (state_ != State::Serving) {
        return waits_ ? lane_.now + kLogInTime : deadline_;
    }
    Clock::time_point due = std::min(probe_, heard_ + kSilence);
    return IsListening() ? due : std::min(due, heard_ + kSlowReading);
}

void RelaySession::SetTimer() {
    const Clock::time_point due = NextDue();
    if (due >= timerDue_) {
        return; // what comes later is looked at then
    }
    timerDue_ = due;
    timer_.expires_at(due + (kTimerStep - due.time_since_epoch() % kTimerStep));
    timer_.async_wait([self = Self()](const boost::system::error_code& failed) {
        if (!failed && !self->released_) {
            self->OnTimer();
        }
    });
}

void RelaySession::OnTimer() {
    timerDue_ = Clock::time_point::max();
    lane_.now = Clock::now();
    if (state_ == State::Serving) {
        visitors_->EndStuckOnes();
        probe_ = std::max(probe_, heard_ + kFirstProbe);
        if (lane_.now < NextDue() && !line_.IsWriting() && !visitors_->HasWork()) {
            SetTimer(); // it was heard meanwhile
            return;
        }
        lineReady_ = IsListening(); // what came may not have been handled yet
    }
    Pass();
}

/// Whether what the device sends is read at once.
bool RelaySession::IsListening() const {
    return !line_.IsWriting() || lane_.now < clear_ + kPatience ||
           lane_.now >= heard_ + kSlowReading;
}

void RelaySession::CheckClock() {
    if (state_ == State::Over || ended_ || waits_) {
        return;
    }
    if (state_ == State::Serving) {
        KeepAlive();
    } else if (lane_.now >= deadline_) {
        Over("not ready in time");
    }
}

void RelaySession::KeepAlive() {
    const bool silent = lane_.now >= heard_ + kSilence;
    if (silent || lane_.now >= clear_ + kStuckTime) {
        Over(silent ? "silent" : "it takes no data");
        return;
    }
    probe_ = std::max(probe_, heard_ + kFirstProbe);
    if (lane_.now < probe_) {
        return;
    }
    probe_ = lane_.now + kNextProbe;
    // The first call takes in the answer to the last probe, if there is one; the second sends.
    (void)ssh_send_keepalive(line_.Session());
    (void)ssh_send_keepalive(line_.Session());
}

void RelaySession::Over(const char* why) {
    if (state_ == State::Serving) {
        Log(Level::Info, "relay", "port %d: session ended: %s", port_, why);
    } else if (state_ != State::Over) {
        Log(Level::Debug, "relay", "a session ended before it was served: %s", why);
    }
    state_ = State::Over;
}

void RelaySession::Finish() {
    if (!released_) {
        desk_.Leave(*this); // closes the port, before the visitors notice anything
        Release();
    }
}

void RelaySession::Release() {
    if (released_) {
        return;
    }
    released_ = true;
    (void)timer_.cancel();
    watch_.Stop();
    if (logIn_ != nullptr) {
        logIn_->Cancel();
    }
    if (visitors_ != nullptr) {
        visitors_->Clear();
    }
    line_.Close();
}

void RelaySession::Answer(bool granted) {
    if (released_ || logIn_ == nullptr) {
        return;
    }
    if (granted) { // before the device knows, since its forward request may come at once
        state_ = State::LoggedIn;
        deadline_ = Clock::now() + kForwardTime;
    }
    logIn_->Answer(granted);
}

int RelaySession::OnMessage(ssh_session, ssh_message, void*) {
    return 1; // the library refuses it
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
    if (state_ != State::LoggedIn || address == nullptr || std::strlen(address) > kMaxBindAddress) {
        return false;
    }
    auto visitors = std::make_unique<RelayVisitors>(*this, lane_, line_.Session());
    std::shared_ptr<RelayPort> opened = desk_.OpenPort(*this, port);
    if (opened == nullptr) {
        return false;
    }
    port_ = port;
    state_ = State::Serving;
    probe_ = lane_.now + kFirstProbe;
    visitors_ = std::move(visitors);
    visitors_->Use(std::move(opened), address, port);
    (void)ssh_message_global_request_reply_success(message, static_cast<std::uint16_t>(port));
    Log(Level::Info, "relay", "port %d is up", port);
    return true;
}

} // namespace ZARO::RelayHub
