/// A simulated device's exchange with the control server.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/steady_timer.hpp>
#include <json/value.h>

#include "app/daemon/backoff.h"
#include "bench/fleet_link.h"

namespace ZARO::Fleet {

/// What the control server assigned to the device.
struct TunnelAddress {
    std::string host, user, password;
    int port = 0; ///< the relay's, for visitors

    bool operator==(const TunnelAddress& other) const {
        return host == other.host && user == other.user && password == other.password &&
               port == other.port;
    }
};

/// Registers the device, then always has a wait command out, at the pace of the real device. For
/// the loop's thread.
class FleetPoll {
public:
    /// What the device hears of it.
    struct Events {
        std::function<void(const TunnelAddress&)> assigned; ///< also when nothing has changed
        std::function<void()> changed;                      ///< Stands() may differ now
        std::function<void()> back;                         ///< it stands again after a failure
    };

    FleetPoll(World& world, unsigned device, Events events);

    /// Begins within `spread`.
    void Start(milliseconds spread);
    /// Leaves without a word; Start() then registers again.
    void Stop();

    bool IsRegistered() const { return !cookie_.empty(); }
    /// Whether a wait command is out, after one that was answered.
    bool Stands() const { return out_ && stands_; }
    /// Over how long the hub wants the devices to come back after a loss; 0 until it says.
    milliseconds Spread() const { return spread_; }

    unsigned tries = 0;    ///< connections begun, where one stood before
    unsigned requests = 0; ///< wait commands sent
    unsigned failures = 0; ///< attempts that came to nothing
    unsigned refusals = 0; ///< replies that only a person could mend

private:
    void Send();
    void Sent();
    void Answered(const HttpsLink::Reply* reply);
    bool TakeRegistration(const HttpsLink::Reply& reply, const Json::Value& answers);
    bool TakeWait(const Json::Value& answer);
    /// Whether it tried the other server at once, as the real device does when a name has two
    /// addresses and the first one refuses the connection.
    bool TryOther(const HttpsLink::Reply* reply);
    void Failed();
    void After(milliseconds wait);
    HttpsLink::Request MakeRequest() const;
    std::string RegisterBatch() const;
    std::string WaitBatch() const;

    World& world_;
    const unsigned device_;
    const Events events_;
    Relay::app::Backoff backoff_{seconds(1), seconds(300)};
    asio::steady_timer timer_; ///< the next attempt, or the end of the request that is out
    std::shared_ptr<HttpsLink> link_;
    std::string cookie_, serverId_;
    int revision_ = 0;
    std::size_t turn_ = 0; ///< which control server is next
    bool moves_ = true;    ///< each request goes to the next server, until one of them fails
    bool other_ = false;   ///< the other server is being tried, as one refused
    bool out_ = false;     ///< a request is out
    bool stands_ = false;  ///< the wait command before was answered
    milliseconds spread_{0};
};

} // namespace ZARO::Fleet
