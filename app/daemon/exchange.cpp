#include "app/daemon/exchange.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <list>
#include <set>
#include <utility>

#include <zarorelayd/daemon.h>
#include <zarorelayd/tunnel.h>

#include "app/common/checks.h"
#include "app/common/config_check.h"
#include "app/common/config_lock.h"
#include "base/json.h"
#include "app/daemon/server_reply.h"
#include "app/daemon/session.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/text.h"

namespace ZARO::Relay::app {

namespace {

/// The server holds a long poll this long at most.
constexpr seconds kHold{50};
/// What a reply may take beyond that; keep-alive probes alone do not end a hung call.
constexpr seconds kHoldSlack{15};
constexpr int kKeepAliveSeconds = 30;
/// After a change of the network the way to the server may take a moment to stand, and the kernel
/// repeats a lost first packet after 1, 3 and 7 s only. So what is not answered within this time
/// is sent again, on a connection of its own, until the usual time limits take over.
constexpr milliseconds kFirstAnswer{2000};
constexpr int kMostResends = 3;
/// A server that answers long polls at once, again and again, is slowed down to this pace; before
/// that it has a number free, for the changes while many tunnels come up.
constexpr milliseconds kPollPace{500};
constexpr int kPollsFree = 40;
/// How long the loop may wait for a command line that changes the configuration file.
constexpr milliseconds kFilePatience{100};
constexpr seconds kBetweenLosses{600};

Exchange* gExchange = nullptr;

/// Whether another program keeps the lock. One that can't be had for another reason, such as a file
/// of root's, is no reason not to write.
bool IsHeldByOther(ConfigLock& lock) {
    return !lock.Take(kFilePatience) && errno == EWOULDBLOCK;
}

const std::string& HostOf(const ServerConf& server) {
    return server.host.empty() ? server.ip : server.host;
}

} // namespace

Exchange::Exchange(RelaydConf& conf, JobQueue& queue, TunnelKeeper& keeper,
                   std::function<void()> reload)
    : conf_(conf), queue_(queue), keeper_(keeper), reload_(std::move(reload)) {
    gExchange = this;
}

Exchange::~Exchange() {
    gExchange = nullptr;
}

// libcurl's queue calls these; what they throw must not cross it.
bool Exchange::OnBatchDone(boost::shared_ptr<Request> request) {
    try {
        gExchange->BatchDone(*request, Clock::now());
        return true;
    } catch (const std::exception& fault) {
        gExchange->GaveUp(gExchange->batch_, fault.what());
        return false;
    }
}

bool Exchange::OnWaitDone(boost::shared_ptr<Request> request) {
    try {
        gExchange->WaitDone(*request, Clock::now());
        return true;
    } catch (const std::exception& fault) {
        gExchange->GaveUp(gExchange->wait_, fault.what());
        return false;
    }
}

void Exchange::GaveUp(Line& line, const char* why) {
    RELAY_LOG(log::Error, "a reply could not be taken in: %s", why);
    batchDue_ = batchDue_ || &line == &batch_;
    Failed(line, RELAYD_RET_UNKNOWN, false, Clock::now());
}

void Exchange::Tick(Time now) {
    if (wait_.runs && now >= waitStarted_ + kHold + kHoldSlack) {
        queue_.Remove(OnWaitDone);
        Failed(wait_, RELAYD_RET_NETWORK, false, now);
    }
    if (now >= ResendDue()) {
        Resend(now);
    }
    if (batch_.runs) {
        return;
    }
    if (batchDue_ && now >= batch_.next) {
        StartBatch(now);
    }
    if (registered_ && !batch_.runs && !wait_.runs && now >= wait_.next) {
        StartWait(now);
    }
}

Time Exchange::NextDue() const {
    Time due = wait_.runs ? waitStarted_ + kHold + kHoldSlack : Time::max();
    due = std::min(due, ResendDue());
    if (batch_.runs) {
        return due;
    }
    if (batchDue_) {
        due = std::min(due, batch_.next);
    }
    if (registered_ && !wait_.runs) {
        due = std::min(due, wait_.next);
    }
    return due;
}

/// While libcurl connects it has timers that no descriptor tells of. How long that takes isn't
/// known: so a long poll gets its turns less often as it grows older, and no timer is late by more
/// than half its age.
Time Exchange::NextTurn(Time now) const {
    if (batch_.runs) {
        return now + kTurn;
    }
    return wait_.runs ? now + std::max<Clock::duration>(kTurn, (now - waitStarted_) / 2)
                      : Time::max();
}

void Exchange::ConfigurationChanged(Time now) {
    batchDue_ = true;
    for (Line* line : {&batch_, &wait_}) {
        line->backoff.Reset();
        line->next = now;
    }
}

void Exchange::NetworkChanged(Time now) {
    ConfigurationChanged(now);
    queue_.Remove(OnBatchDone); // it may hang on a path that is gone
    batch_.runs = false;
    RestartWait(now);
    DropNames();
    resends_ = kMostResends;
}

Time Exchange::ResendDue() const {
    if (resends_ == 0 || !(batch_.runs || (wait_.runs && !waitStands_))) {
        return Time::max(); // a long poll after an answered one may be held by the server
    }
    return (batch_.runs ? batchStarted_ : waitStarted_) + kFirstAnswer;
}

void Exchange::Resend(Time now) {
    --resends_;
    if (batch_.runs) {
        queue_.Remove(OnBatchDone);
        batch_.runs = false;
        batch_.next = now;
        batchDue_ = true;
    } else {
        RenewWait(now);
    }
}

void Exchange::Stop() {
    queue_.Remove(OnBatchDone);
    queue_.Remove(OnWaitDone);
    batch_ = Line();
    wait_ = Line();
    waitStands_ = false;
    RegisterAnew();
}

RELAYD_RET Exchange::Error() const {
    return batch_.error != RELAYD_RET_SUCCESS ? batch_.error : wait_.error;
}

RELAYD_STATE Exchange::State() const {
    if (Error() != RELAYD_RET_SUCCESS) {
        return RELAYD_STATE_ERROR;
    }
    if (registered_) {
        return waitStands_ ? RELAYD_STATE_CONNECTED : RELAYD_STATE_LOGIN;
    }
    return batch_.runs ? RELAYD_STATE_LOGIN : RELAYD_STATE_STARTING;
}

// --- registration

void Exchange::StartBatch(Time now) {
    if (!conf_.auth.IsValid()) {
        conf_.auth.ReadConf();
    }
    const std::string url = conf_.control.GetUrl(nullptr);
    if (!conf_.auth.IsValid() || url.empty()) {
        Failed(batch_, RELAYD_RET_CONFIG, false, now);
        return;
    }
    register_.GetChanges(conf_, keeper_.Tunnels(), commands_);
    batchDue_ = false;
    if (commands_.empty()) { // also when what could not be sent is as it was before
        Succeeded(batch_, now);
        return;
    }
    if (commands_[0U]["command"] == "register") {
        registered_ = false;
        session_.clear();
    }
    const auto request = MakeRequest(url, commands_, true);
    batchShare_ = Request::_share;
    if (!request->IsValid() || !queue_.Add(request, OnBatchDone, 0)) {
        batchDue_ = true;
        Failed(batch_, RELAYD_RET_UNKNOWN, false, now);
        return;
    }
    batch_.runs = true;
    batchStarted_ = now;
    ++batches_;
}

void Exchange::BatchDone(Request& request, Time now) {
    batch_.runs = false;
    resends_ = 0;
    RELAYD_RET result = request.GetError();
    bool refused = false;
    if (result == RELAYD_RET_SUCCESS) {
        Json::Value reply;
        if (request.GetResponse(reply)) {
            result = TakeBatchReply(reply, request, refused, now);
        } else {
            RELAY_LOG(log::Error, "the control server's reply is no JSON");
            result = RELAYD_RET_UNKNOWN;
        }
    }
    if (result != RELAYD_RET_SUCCESS) {
        batchDue_ = true;
        Failed(batch_, result, refused, now);
        return;
    }
    Succeeded(batch_, now);
    if (wait_.runs) {
        // What the server makes of the change must not wait for a long poll whose path has died
        // in silence: it is asked anew, on a path that has just worked.
        RenewWait(now);
    }
}

RELAYD_RET Exchange::TakeBatchReply(Json::Value& reply, Request& request, bool& refused, Time now) {
    bool goodServer = true;
    if (!CleanBatchReply(reply, goodServer)) {
        RELAY_LOG(log::Error, "refused an id or a mode from the control server");
    }
    const ServerConf formerWait = conf_.waitcmd;
    const bool registered = commands_[0U]["command"] == "register" && reply.isArray() &&
                            !reply.empty() &&
                            ParseServerError(reply[0U]) == RELAYSERVER_ERR_SUCCESS;
    {
        // The library writes the id into the file, which a command line may be changing, and it
        // would move a broken one aside: a typo would cost all services. An id that can't be
        // written holds for this run only.
        const Json::Value* id = registered ? json::Find(reply[0U], "serverID") : nullptr;
        ConfigLock lock;
        Json::Value config;
        std::string fault = ConfigLock::Path() + ": held by another program";
        if (id != nullptr && id->isString() &&
            (IsHeldByOther(lock) || !ReadConfigFile(paths::ConfigFile(), true, config, fault))) {
            RELAY_LOG(log::Warning, "the server id is not written: %s", fault.c_str());
            conf_.serverID = id->asString();
            reply[0U].removeMember("serverID");
        }
        register_.ParseResponse(conf_, commands_, reply);
    }
    if (!conf_.waitcmd.IsValid()) { // a server of which only part was named
        conf_.waitcmd = formerWait;
        goodServer = false;
    }
    if (!goodServer) {
        RELAY_LOG(log::Error, "refused the wait-command server that the control server named");
        RegisterAnew();
        return RELAYD_RET_NOT_SUPPORT;
    }
    if (registered) {
        registered_ = true;
        RELAY_LOG(log::Info, "registered as [%s]", conf_.serverID.c_str());
        TakeSession(request);
        RestartWait(now);
    }
    return BatchResult(reply, refused);
}

/// The first command's failure, as a result. `refused`: the credentials were, which trying again
/// soon can't mend.
RELAYD_RET Exchange::BatchResult(const Json::Value& reply, bool& refused) const {
    if (!reply.isArray() || reply.size() < commands_.size()) {
        const RELAYSERVER_ERR error = ParseServerError(reply);
        const bool told = error != RELAYSERVER_ERR_SUCCESS && error != RELAYSERVER_ERR_UNKNOWN;
        return told ? RespErrMap(error) : RELAYD_RET_UNKNOWN;
    }
    for (Json::ArrayIndex i = 0; i < commands_.size(); ++i) {
        const RELAYSERVER_ERR error = ParseServerError(reply[i]);
        if (error != RELAYSERVER_ERR_SUCCESS) {
            refused = commands_[i]["command"] == "register" && error == RELAYSERVER_ERR_AUTH;
            return RespErrMap(error);
        }
    }
    return RELAYD_RET_SUCCESS;
}

/// Keeps the session's cookie for a wait-command server on another host, and for the time after the
/// shared store was dropped together with the resolved names.
void Exchange::TakeSession(Request& request) {
    std::list<std::string> lines;
    (void)request.GetCookies(lines); // none: no session
    session_ = SessionOf(lines, conf_.waitcmd.protocol != "https");
    storeHasSession_ = Request::_share == batchShare_; // else it went into the former store
}

bool Exchange::HasSeparateWaitHost() const {
    return HostOf(conf_.waitcmd) != HostOf(conf_.control);
}

boost::shared_ptr<Request> Exchange::MakeRequest(const std::string& url, const Json::Value& body,
                                                 bool sameHost) {
    // The process-wide cookie would go to every server, so it is set for this request alone.
    Request::SetCookie(sameHost && storeHasSession_ ? "" : session_);
    boost::shared_ptr<Request> request(new Request(url, body, true));
    Request::SetCookie("");
    return request;
}

void Exchange::RegisterAnew() {
    register_.SetAuthExpired();
    registered_ = false;
    batchDue_ = true;
}

// --- wait-command exchange

void Exchange::StartWait(Time now) {
    Json::Value command;
    command["version"] = 1;
    command["command"] = "wait_command";
    command["serverID"] = conf_.serverID;
    command["revision"] = waitStands_ ? revision_ : 0;
    command["tunnels"] = Json::Value(Json::arrayValue);
    for (const Tunnel& tunnel : keeper_.Tunnels()) {
        Json::Value& entry = command["tunnels"].append(Json::Value());
        entry["id"] = tunnel.GetServiceId();
        entry["status"] = Tunnel::GetStatusStr(tunnel.GetStatus());
    }
    Json::Value body(Json::arrayValue);
    body.append(command);
    const auto request = MakeRequest(conf_.waitcmd.GetUrl(nullptr), body, !HasSeparateWaitHost());
    if (request->IsValid()) {
        request->SetTcpKeepAlive(kKeepAliveSeconds);
    }
    if (!request->IsValid() || !queue_.Add(request, OnWaitDone, 0)) {
        Failed(wait_, RELAYD_RET_UNKNOWN, false, now);
        return;
    }
    wait_.runs = true;
    waitStarted_ = now;
    ++waits_;
}

/// The next long poll goes out on a fresh connection.
void Exchange::RenewWait(Time now) {
    queue_.Remove(OnWaitDone);
    wait_.runs = false;
    wait_.next = now;
}

/// As above, and it is answered at once.
void Exchange::RestartWait(Time now) {
    RenewWait(now);
    waitStands_ = false;
}

void Exchange::WaitDone(Request& request, Time now) {
    wait_.runs = false;
    resends_ = 0;
    RELAYD_RET result = request.GetError();
    Json::Value reply;
    if (result == RELAYD_RET_SUCCESS) {
        result = request.GetResponse(reply) ? TakeWaitReply(reply, now) : RELAYD_RET_UNKNOWN;
    }
    if (result != RELAYD_RET_SUCCESS) {
        Failed(wait_, result, false, now);
        return;
    }
    if (!waitStands_) {
        keeper_.RetrySoon(now); // the servers are there: so is the relay, most likely
    }
    waitStands_ = true;
    Succeeded(wait_, now);
    pace_ = std::max(pace_, now - kPollsFree * kPollPace) + kPollPace;
    wait_.next = std::max(now, pace_);
}

RELAYD_RET Exchange::TakeWaitReply(const Json::Value& reply, Time now) {
    const RELAYSERVER_ERR error = ParseServerError(reply);
    if (error != RELAYSERVER_ERR_SUCCESS) {
        RELAY_LOG(log::Warning, "wait_command failed: %s", GetServerErrorStr(error).c_str());
        return RespErrMap(error);
    }
    const Json::Value& answer = reply.isArray() ? reply[0U] : reply;
    const Json::Value* tunnels = json::Find(answer, "tunnels");
    if (tunnels == nullptr || !keeper_.Reconcile(*tunnels, conf_.services, now)) {
        RELAY_LOG(log::Error, "the wait_command reply holds no list of tunnels");
        return RELAYD_RET_UNKNOWN;
    }
    revision_ = json::NumberOf(answer, "revision");
    LookForLoss(*tunnels, now);
    return RELAYD_RET_SUCCESS;
}

/// A server that was put back to an older state has lost what it acknowledged since then.
void Exchange::LookForLoss(const Json::Value& tunnels, Time now) {
    if (!registered_ || batchDue_ || batch_.runs || now < lossLookAt_) {
        return;
    }
    std::set<std::string> listed;
    for (const Json::Value& tunnel : tunnels) {
        listed.insert(json::TextOf(tunnel, "id"));
    }
    for (const ServiceConf& service : conf_.services) {
        if (listed.count(service.id) == 0) {
            RELAY_LOG(log::Warning, "the server lists no tunnel for %s, registering anew",
                      Printable(service.id).c_str());
            lossLookAt_ = now + kBetweenLosses; // one that never gives us a tunnel is not stormed
            RegisterAnew();
            return;
        }
    }
}

// --- outcomes

void Exchange::Succeeded(Line& line, Time now) {
    if (line.error != RELAYD_RET_SUCCESS) {
        RELAY_LOG(log::Warning, "%s works again",
                  &line == &batch_ ? "registration" : "wait_command");
    }
    line.error = RELAYD_RET_SUCCESS;
    line.backoff.Succeeded(now);
    line.next = now;
}

/// `refused`: trying again soon can't help.
void Exchange::Failed(Line& line, RELAYD_RET result, bool refused, Time now) {
    if (line.error != result) {
        RELAY_LOG(log::Warning, "%s failed: %s, trying on",
                  &line == &batch_ ? "registration" : "wait_command", GetErrorStr(result).c_str());
    }
    line.runs = false;
    line.error = result;
    ++failures_;
    if (&line == &wait_) {
        waitStands_ = false;
    }
    switch (result) {
    case RELAYD_RET_AUTH:
        RegisterAnew();
        break;
    case RELAYD_RET_SERVER_LIMIT:
    case RELAYD_RET_NOT_SUPPORT:
        refused = true;
        break;
    case RELAYD_RET_SERVER_CHANGED:
    case RELAYD_RET_SERVER_IP_CHANGED:
        DropNames();
        reload_();
        RegisterAnew();
        break;
    default:
        // The path, or something on it that poses as the server: the resolved name may be why.
        DropNames();
        break;
    }
    line.next = now + (refused ? line.backoff.Refused() : line.backoff.Failed(now));
    if (&line == &wait_ && line.backoff.IsSlow()) {
        RegisterAnew(); // the wait-command server may have moved, which only a registration tells
    }
    if (batchDue_ && &line == &wait_) {
        batch_.next = std::max(batch_.next, line.next); // registering anew waits as long
    }
}

void Exchange::DropNames() {
    Request::CleanDnsCache();
    storeHasSession_ = false;
}

Json::Value Exchange::Dump() const {
    Json::Value dump;
    dump["registered"] = registered_;
    dump["wait_command"] = wait_.runs;
    dump["revision"] = revision_;
    dump["batches"] = static_cast<Json::UInt64>(batches_);
    dump["waits"] = static_cast<Json::UInt64>(waits_);
    dump["failures"] = static_cast<Json::UInt64>(failures_);
    return dump;
}

} // namespace ZARO::Relay::app
