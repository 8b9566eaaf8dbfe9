#include "app/daemon/exchange.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <zarorelayd/daemon.h>

#include "app/daemon/server_reply.h"
#include "base/log.h"

namespace ZARO::Relay::app {

namespace {

/// After a change of the network the way to the server may take a moment to come up, and the kernel
/// repeats a lost first packet only after 1, 3 and 7 s. So what is not answered within this time is
/// sent again, on a connection of its own, a few times. After that the usual time limits hold.
constexpr milliseconds kFirstAnswer{2000};
constexpr int kMostResends = 3;

Exchange* gExchange = nullptr;

void LogLost(const std::exception& fault) {
    RELAY_LOG(log::Error, "a reply could not be taken in: %s", fault.what());
}

} // namespace

Exchange::Exchange(RelaydConf& conf, JobQueue& queue, TunnelKeeper& keeper,
                   std::function<void()> reload)
    : conf_(conf), reload_(std::move(reload)),
      registration_(conf, keeper.Tunnels(), session_, queue, OnBatchDone),
      poll_(conf, keeper, session_, queue, OnWaitDone) {
    gExchange = this;
}

Exchange::~Exchange() {
    gExchange = nullptr;
}

// libcurl's queue calls these two; what they throw must not cross it.
bool Exchange::OnBatchDone(boost::shared_ptr<Request> request) {
    try {
        gExchange->BatchDone(*request, Clock::now());
        return true;
    } catch (const std::exception& fault) {
        LogLost(fault);
        gExchange->BatchFailed({RELAYD_RET_UNKNOWN}, Clock::now());
        return false;
    }
}

bool Exchange::OnWaitDone(boost::shared_ptr<Request> request) {
    try {
        gExchange->WaitDone(*request, Clock::now());
        return true;
    } catch (const std::exception& fault) {
        LogLost(fault);
        gExchange->WaitFailed(RELAYD_RET_UNKNOWN, Clock::now());
        return false;
    }
}

void Exchange::Tick(Time now) {
    if (now >= poll_.Deadline()) {
        poll_.Polls().Drop();
        WaitFailed(RELAYD_RET_NETWORK, now);
    }
    if (now >= ResendDue()) {
        Resend(now);
    }
    if (now >= registration_.NextSend()) {
        StartBatch(now);
    }
    if (now >= NextWait()) {
        StartWait(now);
    }
}

Time Exchange::NextDue() const {
    return std::min({poll_.Deadline(), ResendDue(), registration_.NextSend(), NextWait()});
}

/// While libcurl connects it has timers that no descriptor shows, and nobody knows how long that
/// takes. So a long poll gets its turns less often as it grows older, and no timer is late by more
/// than half the poll's age.
Time Exchange::NextTurn(Time now) const {
    if (registration_.Batches().IsOut()) {
        return now + kTurn;
    }
    const Attempts& polls = poll_.Polls();
    return polls.IsOut() ? now + std::max<Clock::duration>(kTurn, (now - polls.SentAt()) / 2)
                         : Time::max();
}

bool Exchange::HasRequest() const {
    return registration_.Batches().IsOut() || poll_.Polls().IsOut();
}

void Exchange::ConfigurationChanged(Time now) {
    registration_.MakeDue();
    registration_.Batches().StartOver(now);
    poll_.Polls().StartOver(now);
}

void Exchange::NetworkChanged(Time now) {
    ConfigurationChanged(now);
    registration_.Batches().Drop(); // it may hang on a path that is gone
    poll_.Restart(now);
    DropNames();
    resends_ = kMostResends;
}

Time Exchange::ResendDue() const {
    if (resends_ == 0) {
        return Time::max();
    }
    if (registration_.Batches().IsOut()) {
        return registration_.Batches().SentAt() + kFirstAnswer;
    }
    // The server may hold a long poll that follows an answered one.
    return poll_.Polls().IsOut() && !poll_.Stands() ? poll_.Polls().SentAt() + kFirstAnswer
                                                    : Time::max();
}

void Exchange::Resend(Time now) {
    --resends_;
    if (registration_.Batches().IsOut()) {
        registration_.Resend(now);
    } else {
        poll_.Renew(now);
    }
}

void Exchange::Stop() {
    registration_.Batches().Reset();
    poll_.Stop();
    RegisterAgain();
}

RELAYD_RET Exchange::Error() const {
    const RELAYD_RET error = registration_.Batches().Error();
    return error != RELAYD_RET_SUCCESS ? error : poll_.Polls().Error();
}

RELAYD_STATE Exchange::State() const {
    if (Error() != RELAYD_RET_SUCCESS) {
        return RELAYD_STATE_ERROR;
    }
    if (IsRegistered()) {
        return poll_.Stands() ? RELAYD_STATE_CONNECTED : RELAYD_STATE_LOGIN;
    }
    return registration_.Batches().IsOut() ? RELAYD_STATE_LOGIN : RELAYD_STATE_STARTING;
}

// --- registration

void Exchange::StartBatch(Time now) {
    const RELAYD_RET result = registration_.Send(now);
    if (result != RELAYD_RET_SUCCESS) {
        BatchFailed({result}, now);
    } else if (!registration_.Batches().IsOut()) {
        registration_.Batches().Succeeded(now);
    }
}

void Exchange::BatchDone(Request& request, Time now) {
    registration_.Batches().Finish();
    resends_ = 0;
    const Outcome outcome = TakeBatchReply(request, now);
    if (outcome.result != RELAYD_RET_SUCCESS) {
        BatchFailed(outcome, now);
        return;
    }
    registration_.Batches().Succeeded(now);
    if (poll_.Polls().IsOut()) {
        // What the server makes of the change must not wait for a long poll whose path has died
        // in silence: the poll goes out again, on a path that has just worked.
        poll_.Renew(now);
    }
}

Outcome Exchange::TakeBatchReply(Request& request, Time now) {
    if (request.GetError() != RELAYD_RET_SUCCESS) {
        return {request.GetError()};
    }
    Json::Value reply;
    if (!request.GetResponse(reply)) {
        RELAY_LOG(log::Error, "the control server's reply is no JSON");
        return {RELAYD_RET_UNKNOWN};
    }
    switch (registration_.Apply(reply)) {
    case Registration::Applied::Refused:
        return {RELAYD_RET_NOT_SUPPORT};
    case Registration::Applied::Updated:
        break;
    case Registration::Applied::Registered:
        session_.Begin(request, conf_.waitcmd.protocol != "https");
        poll_.Restart(now);
        break;
    }
    return registration_.OutcomeOf(reply);
}

void Exchange::BatchFailed(const Outcome& outcome, Time now) {
    registration_.MakeDue();
    registration_.Batches().Failed(outcome.result);
    const bool isFinal = Mend(outcome.result);
    if (outcome.retryAfter.has_value()) {
        registration_.Batches().DelayAsAsked(*outcome.retryAfter, now);
    } else {
        registration_.Batches().Delay(outcome.refused || isFinal, now, SpreadAfter(outcome.result));
    }
}

// --- wait-command exchange

Time Exchange::NextWait() const {
    const bool mayWait = IsRegistered() && !registration_.Batches().IsOut();
    return mayWait ? poll_.NextSend() : Time::max();
}

void Exchange::StartWait(Time now) {
    if (!poll_.Send(now)) {
        WaitFailed(RELAYD_RET_UNKNOWN, now);
    }
}

void Exchange::WaitDone(Request& request, Time now) {
    poll_.Polls().Finish();
    resends_ = 0;
    RELAYD_RET result = request.GetError();
    Json::Value reply;
    if (result == RELAYD_RET_SUCCESS) {
        result = request.GetResponse(reply) ? TakeWaitReply(reply, now) : RELAYD_RET_UNKNOWN;
    }
    if (result != RELAYD_RET_SUCCESS) {
        WaitFailed(result, now);
        return;
    }
    poll_.Succeeded(now);
}

RELAYD_RET Exchange::TakeWaitReply(const Json::Value& reply, Time now) {
    const RELAYD_RET result = poll_.Apply(reply, now);
    if (result == RELAYD_RET_SUCCESS && registration_.IsSettled() &&
        losses_.FindsLoss(AnswerOf(reply)["tunnels"], conf_.services, now)) {
        RegisterAgain();
    }
    return result;
}

void Exchange::WaitFailed(RELAYD_RET result, Time now) {
    poll_.Failed(result);
    Attempts& polls = poll_.Polls();
    polls.Delay(Mend(result), now, SpreadAfter(result));
    if (polls.IsSlow()) {
        RegisterAgain(); // the wait-command server may have moved, which only a registration tells
    }
    if (registration_.IsDue()) { // registering waits as long
        registration_.Batches().WaitUntil(std::max(registration_.Batches().Next(), polls.Next()));
    }
}

// --- failures

/// Does at once what a failure calls for. True when trying again soon can't help.
bool Exchange::Mend(RELAYD_RET result) {
    ++failures_;
    switch (result) {
    case RELAYD_RET_AUTH:
        RegisterAgain();
        return false;
    case RELAYD_RET_SERVER_LIMIT:
    case RELAYD_RET_NOT_SUPPORT:
        return true;
    case RELAYD_RET_SERVER_CHANGED:
    case RELAYD_RET_SERVER_IP_CHANGED:
        DropNames();
        reload_();
        RegisterAgain();
        return false;
    default:
        // The path, or something on it that poses as the server: the resolved name may be why.
        DropNames();
        return false;
    }
}

/// A server that fails or can't be reached was most likely lost to all its devices. What it answers
/// concerns this one only.
milliseconds Exchange::SpreadAfter(RELAYD_RET result) const {
    switch (result) {
    case RELAYD_RET_CONFIG:
    case RELAYD_RET_AUTH:
    case RELAYD_RET_NOT_SUPPORT:
    case RELAYD_RET_SERVER_LIMIT:
    case RELAYD_RET_SERVER_CHANGED:
    case RELAYD_RET_SERVER_IP_CHANGED:
        return milliseconds(0);
    default:
        return poll_.Spread();
    }
}

Json::Value Exchange::Dump() const {
    Json::Value dump;
    dump["registered"] = IsRegistered();
    dump["wait_command"] = poll_.Polls().IsOut();
    dump["revision"] = poll_.Revision();
    dump["spread"] = static_cast<int>(std::chrono::duration_cast<seconds>(poll_.Spread()).count());
    dump["batches"] = static_cast<Json::UInt64>(registration_.Batches().Count());
    dump["waits"] = static_cast<Json::UInt64>(poll_.Polls().Count());
    dump["failures"] = static_cast<Json::UInt64>(failures_);
    return dump;
}

} // namespace ZARO::Relay::app
