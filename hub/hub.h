/// The whole hub: control server, alias server and relay over one data folder.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace ZARO::RelayHub {

/// What a process does of a hub's work.
struct Roles {
    bool control = true;
    bool alias = true;
    bool relay = true;
};

struct HubOptions {
    std::string data;                  ///< folder for everything that is kept
    std::string address = "127.0.0.1"; ///< where all listeners listen
    int httpPort = 8080;               ///< for this and the next two: 0 = any free port, -1 = off
    int httpsPort = 8443;
    int relayPort = 2222;
    int firstPort = 20000; ///< of the tunnels
    int lastPort = 29999;
    std::vector<std::string> hosts; ///< further names that the certificate covers
    std::string relayHost;          ///< what devices connect to; empty = host of their request
    std::string visitorAddress;     ///< where the tunnels' ports listen; empty = `address`
    std::chrono::seconds aliasTtl{3 * 24 * 60 * 60};
    std::chrono::milliseconds hold{50000}; ///< of a wait command
    Roles roles;
    std::string database;            ///< URL with a password; empty = SQLite in `data`
    std::string relayName = "relay"; ///< which of the relays that share a database this one is
    bool relaySpare = false;         ///< has no name of its own, but takes that of a dead relay
    bool admitsAll = false;          ///< else the operator decides which devices may join
    bool drain = false;              ///< hands everything over before it ends on SIGTERM
};

/// For one thread; the work is done on threads of its own. Makes the process ignore SIGPIPE.
class Hub {
public:
    explicit Hub(HubOptions options);
    ~Hub();

    /// Returns when every listener listens. False with the reason in `error`; then the hub can only
    /// be destroyed.
    bool Start(std::string& error);
    /// Ends everything in an orderly way, within about a second. May be called twice.
    void Stop();

    /// Begins to hand everything over to other processes: held requests are answered within five
    /// seconds, tunnels move to other relays, nothing new is taken.
    void BeginHandOver();
    /// Whether nothing is left to hand over, or nobody is there to take it. Blocks for the
    /// database.
    bool IsHandedOver();
    /// Whether another process has taken this one's only role. It then signals itself SIGTERM.
    bool IsUseless() const;

    /// The ports in use; 0 = off.
    int HttpPort() const;
    int HttpsPort() const;
    int RelayPort() const;

private:
    struct Parts;

    HubOptions options_;
    std::unique_ptr<Parts> parts_;
};

} // namespace ZARO::RelayHub
