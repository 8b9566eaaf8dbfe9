#include "app/daemon/long_poll.h"

#include <algorithm>
#include <string>

#include <zarorelayd/daemon.h>
#include <zarorelayd/tunnel.h>

#include "app/daemon/server_reply.h"
#include "base/json.h"
#include "base/log.h"

namespace ZARO::Relay::app {

namespace {

/// The server holds a long poll this long at most.
constexpr seconds kHold{50};
/// What a reply may take beyond that; keep-alive probes alone do not end a hung call.
constexpr seconds kHoldSlack{15};
constexpr int kKeepAliveSeconds = 30;
/// A server that answers long polls at once, again and again, is slowed down to this pace. The
/// first few go out without a wait, for the changes while many tunnels come up.
constexpr milliseconds kPollPace{500};
constexpr int kPollsFree = 40;
/// No server may keep a device away for longer.
constexpr int kLongestSpread = 60; // seconds

const std::string& HostOf(const ServerConf& server) {
    return server.host.empty() ? server.ip : server.host;
}

} // namespace

LongPoll::LongPoll(const RelaydConf& conf, TunnelKeeper& keeper, Session& session, JobQueue& queue,
                   JobCallback done)
    : conf_(conf), keeper_(keeper), session_(session), polls_("wait_command", queue, done) {
}

Time LongPoll::Deadline() const {
    return polls_.IsOut() ? polls_.SentAt() + kHold + kHoldSlack : Time::max();
}

bool LongPoll::Send(Time now) {
    const bool sameHost = HostOf(conf_.waitcmd) == HostOf(conf_.control);
    const auto request = session_.WaitRequest(conf_.waitcmd.GetUrl(nullptr), Body(), sameHost);
    if (request->IsValid()) {
        request->SetTcpKeepAlive(kKeepAliveSeconds);
    }
    return polls_.Send(request, now);
}

Json::Value LongPoll::Body() const {
    Json::Value command;
    command["version"] = 1;
    command["command"] = "wait_command";
    command["serverID"] = conf_.serverID;
    command["revision"] = stands_ ? revision_ : 0;
    command["tunnels"] = Json::Value(Json::arrayValue);
    for (const Tunnel& tunnel : keeper_.Tunnels()) {
        Json::Value& entry = command["tunnels"].append(Json::Value());
        entry["id"] = tunnel.GetServiceId();
        entry["status"] = Tunnel::GetStatusStr(tunnel.GetStatus());
    }
    Json::Value body(Json::arrayValue);
    body.append(command);
    return body;
}

void LongPoll::Renew(Time now) {
    polls_.Drop();
    polls_.WaitUntil(now);
}

void LongPoll::Restart(Time now) {
    Renew(now);
    stands_ = false;
}

void LongPoll::Stop() {
    polls_.Reset();
    stands_ = false;
}

RELAYD_RET LongPoll::Apply(const Json::Value& reply, Time now) {
    const RELAYSERVER_ERR error = ParseServerError(reply);
    if (error != RELAYSERVER_ERR_SUCCESS) {
        RELAY_LOG(log::Warning, "wait_command failed: %s", GetServerErrorStr(error).c_str());
        return RespErrMap(error);
    }
    const Json::Value& answer = AnswerOf(reply);
    const Json::Value* tunnels = json::Find(answer, "tunnels");
    if (tunnels == nullptr || !keeper_.Reconcile(*tunnels, conf_.services, now)) {
        RELAY_LOG(log::Error, "the wait_command reply holds no list of tunnels");
        return RELAYD_RET_UNKNOWN;
    }
    revision_ = json::NumberOf(answer, "revision");
    TakeSpread(answer);
    return RELAYD_RET_SUCCESS;
}

/// A server that names none, or a bad one, leaves the last one as it is.
void LongPoll::TakeSpread(const Json::Value& answer) {
    const int named = json::NumberOf(answer, "spread");
    if (named >= 1 && named <= kLongestSpread) {
        spread_ = seconds(named);
        keeper_.SetSpread(spread_);
    }
}

void LongPoll::Succeeded(Time now) {
    if (!stands_) {
        keeper_.RetrySoon(now); // the servers are there: so is the relay, most likely
    }
    stands_ = true;
    polls_.Succeeded(now);
    pace_ = std::max(pace_, now - kPollsFree * kPollPace) + kPollPace;
    polls_.WaitUntil(std::max(now, pace_));
}

void LongPoll::Failed(RELAYD_RET result) {
    polls_.Failed(result);
    stands_ = false;
}

} // namespace ZARO::Relay::app
