/// The hub under test: its processes, on one host or on two.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/fleet_measure.h"
#include "tests/support/process.h"

namespace ZARO::Fleet {

struct HubPlan {
    std::string program;
    std::string folder;   ///< for data and logs
    std::string database; ///< URL; empty = SQLite
    int devices = 0;
    int hosts = 1;
    int hold = 50; ///< seconds
};

/// One process of the hub.
struct HubPart {
    std::string name;
    int host = 0;
    bool isControl = false;
    bool isRelay = false;
    bool isSpare = false; ///< a relay that waits until another one is gone
    std::string address;
    std::vector<std::string> line;
    std::unique_ptr<Process> process;
};

/// For the main thread. Its addresses are loopback addresses that no other run uses. With a hub
/// that knows no roles everything is one process.
class FleetHub : NoCopy {
public:
    using Which = std::function<bool(const HubPart&)>;

    static constexpr int kHttpsPort = 8443;
    static constexpr int kSshPort = 2222;

    /// Throws when the program does not start, or can't carry so many devices.
    explicit FleetHub(const HubPlan& plan);

    /// The network of this run, "127.x.0.0". The hub uses its first 256 addresses.
    const std::string& Network() const { return network_; }
    std::vector<std::string> Controls() const;
    bool HasRoles() const { return hasRoles_; }

    /// kill -9 for all of these at once.
    void Kill(const Which& which);
    /// Starts these and returns when they listen.
    void Start(const Which& which);
    /// Ends all in order. False when one of them does not end well.
    bool End();

    Usage Take() const;
    /// How many of its processes run.
    int Running() const;
    /// What the processes said that is worth a warning or more, at most some lines.
    std::string Complaints() const;

private:
    void PlanHost(const HubPlan& plan, int host);
    void Add(const HubPlan& plan, HubPart part, const std::string& options);
    std::string LogOf(const HubPart& part) const { return folder_ + "/" + part.name + ".log"; }

    std::string folder_, network_;
    bool hasRoles_ = false;
    std::string admits_; ///< the option that lets every device join, if it has one
    std::deque<HubPart> parts_;
};

} // namespace ZARO::Fleet
