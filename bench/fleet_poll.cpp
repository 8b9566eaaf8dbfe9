#include "bench/fleet_poll.h"

#include <cstdio>
#include <utility>

#include "base/json.h"

namespace ZARO::Fleet {

namespace {

using Relay::app::Backoff;

/// The real device's limits: for a batch, and for a wait command that may be held.
constexpr seconds kBatchTime{30};
constexpr seconds kHoldTime{65};

constexpr int kMostSpread = 60;

/// What a control server answers when the device has to register again.
constexpr int kNoSession = 6;
/// It failed, and says so; a later attempt may work.
constexpr int kServerFailed = 1;

/// A MAC address of the device's own; the last six digits are what counts.
std::string MacOf(unsigned device) {
    char text[18];
    (void)snprintf(text, sizeof text, "02:00:4C:%02X:%02X:%02X", (device >> 16U) & 0xffU,
                   (device >> 8U) & 0xffU, device & 0xffU);
    return text;
}

std::string TokenOf(unsigned device) {
    char text[33];
    (void)snprintf(text, sizeof text, "%032x", device);
    return text;
}

} // namespace

FleetPoll::FleetPoll(World& world, unsigned device, Events events)
    : world_(world), device_(device), events_(std::move(events)), timer_(world.loop),
      turn_(device) {
}

void FleetPoll::Start(milliseconds spread) {
    After(Backoff::Random(milliseconds(0), spread));
}

void FleetPoll::Stop() {
    timer_.cancel();
    if (link_ != nullptr) {
        link_->Close();
        link_.reset();
    }
    cookie_.clear();
    moves_ = true;
    out_ = stands_ = false;
    backoff_.Reset();
    events_.changed();
}

void FleetPoll::After(milliseconds wait) {
    timer_.expires_after(wait);
    timer_.async_wait([this](const boost::system::error_code& error) {
        if (!error && timer_.expiry() <= Clock::now()) {
            out_ ? Failed() : Send();
        }
    });
}

void FleetPoll::Send() {
    out_ = true;
    After(IsRegistered() ? kHoldTime : kBatchTime);
    const bool moves = moves_ && world_.controls.size() > 1;
    if (link_ != nullptr && !moves) {
        link_->Send(MakeRequest());
        return;
    }
    if (link_ != nullptr) {
        link_->Close();
    }
    tries += stands_ ? 0 : 1; // a connection to the next server is no attempt to come back
    link_ = std::make_shared<HttpsLink>(
        world_, device_, [this] { Sent(); },
        [this](const HttpsLink::Reply* reply) { Answered(reply); });
    link_->Connect(world_.controls[turn_ % world_.controls.size()], MakeRequest());
    ++turn_;
}

void FleetPoll::Sent() {
    requests += IsRegistered() ? 1 : 0;
    events_.changed();
}

bool FleetPoll::TryOther(const HttpsLink::Reply* reply) {
    if (reply != nullptr || link_->WasTaken() || world_.controls.size() < 2 ||
        std::exchange(other_, true)) {
        return false;
    }
    moves_ = false;
    link_.reset();
    Send();
    return true;
}

void FleetPoll::Answered(const HttpsLink::Reply* reply) {
    if (TryOther(reply)) {
        return;
    }
    Json::Value answers;
    if (reply == nullptr || reply->result() != boost::beast::http::status::ok ||
        !json::Parse(reply->body(), answers) || !answers.isArray() || answers.empty()) {
        Failed();
        return;
    }
    const bool registering = !IsRegistered();
    if (registering ? !TakeRegistration(*reply, answers) : !TakeWait(answers[0])) {
        Failed();
        return;
    }
    if (!reply->keep_alive()) { // the server asked for a connection of its own
        link_->Close();
        link_.reset();
    }
    out_ = other_ = false;
    backoff_.Succeeded(Clock::now());
    if (!registering && !std::exchange(stands_, true)) {
        events_.back();
    }
    Send();
}

bool FleetPoll::TakeRegistration(const HttpsLink::Reply& reply, const Json::Value& answers) {
    for (const Json::Value& answer : answers) {
        const int error = json::NumberOf(answer, "errno");
        refusals += error != 0 && error != kServerFailed ? 1 : 0;
        if (error != 0) {
            return false;
        }
    }
    const std::string line(reply["Set-Cookie"]);
    serverId_ = json::TextOf(answers[0], "serverID");
    cookie_ = line.substr(0, line.find(';'));
    revision_ = 0;
    return IsRegistered();
}

bool FleetPoll::TakeWait(const Json::Value& answer) {
    const int error = json::NumberOf(answer, "errno");
    const Json::Value* tunnels = json::Find(answer, "tunnels");
    if (error != 0 || tunnels == nullptr || !tunnels->isArray()) {
        refusals += error != kServerFailed && error != kNoSession ? 1 : 0;
        if (error == kNoSession) {
            cookie_.clear();
        }
        return false;
    }
    revision_ = json::NumberOf(answer, "revision");
    const int spread = json::NumberOf(answer, "spread");
    if (spread >= 1 && spread <= kMostSpread) {
        spread_ = seconds(spread);
    }
    if (!tunnels->empty()) {
        const Json::Value& tunnel = (*tunnels)[0];
        events_.assigned({json::TextOf(tunnel, "relay_ip"), json::TextOf(tunnel, "relay_user"),
                          json::TextOf(tunnel, "relay_pass"),
                          json::NumberOf(tunnel, "relay_port")});
    }
    return true;
}

void FleetPoll::Failed() {
    failures += stands_ ? 0 : 1;
    moves_ = false;
    if (link_ != nullptr) {
        link_->Close();
        link_.reset();
    }
    out_ = other_ = false;
    stands_ = false;
    After(backoff_.Failed(Clock::now(), spread_));
    events_.changed();
}

HttpsLink::Request FleetPoll::MakeRequest() const {
    namespace http = boost::beast::http;
    HttpsLink::Request request(http::verb::post, "/Serv.php", 11);
    const tcp::endpoint& server = world_.controls[turn_ % world_.controls.size()];
    request.set(http::field::host,
                server.address().to_string() + ":" + std::to_string(server.port()));
    request.set(http::field::content_type, "application/x-www-form-urlencoded");
    if (IsRegistered()) {
        request.set(http::field::cookie, cookie_);
    }
    request.body() = IsRegistered() ? WaitBatch() : RegisterBatch();
    request.prepare_payload();
    return request;
}

std::string FleetPoll::RegisterBatch() const {
    return R"([{"version":1,"command":"register","auth":{"serial":"FLEET-)" +
           std::to_string(device_) + R"(","mac":")" + MacOf(device_) +
           R"(","timezone":"Rome","token":")" + TokenOf(device_) +
           R"("}},{"version":1,"command":"update_network","gateway":"10.0.0.1","ddns":"","mode":"",)"
           R"("interface":[{"name":"eth0","ip":"10.0.0.2","mask":"255.255.255.0"}]},)"
           R"({"version":1,"command":"update_service","service_add":[{"id":"web","port":80}],)"
           R"("service_update":[],"service_rm":[]}])";
}

std::string FleetPoll::WaitBatch() const {
    return R"([{"version":1,"command":"wait_command","serverID":")" + serverId_ +
           R"(","revision":)" + std::to_string(stands_ ? revision_ : 0) +
           R"(,"tunnels":[{"id":"web","status":"TUNNEL_STATUS_READY"}]}])";
}

} // namespace ZARO::Fleet
