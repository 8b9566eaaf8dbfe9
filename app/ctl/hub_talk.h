/// What a device says to a hub before it has joined. All of it blocks for the network.
#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>

#include <zarorelayd/config.h>

#include "app/ctl/hub_url.h"

namespace ZARO::Relay::ctl {

// Each function prints what went wrong and gives the exit code; 0 for success.

/// What a hub says of itself to anybody who asks.
struct HubOffer {
    ServerConf control{nullptr, nullptr}; ///< the control server; valid
    std::string aliasUrl;                 ///< without a "/" at its end; empty: no alias server
    int sshPort = 0;                      ///< where its relays listen; 0: not known
};

/// Connects, 4 s at most, and asks what is there, 20 s at most.
int AskWhatItIs(const HubUrl& url, HubOffer& offer);

/// What a hub answers to a device that asks to be let in and is not refused.
struct Admission {
    bool admitted = false;
    std::chrono::seconds retryAfter{}; ///< while it waits for the operator: when to ask again
};

/// The command by which this device asks to be let in, with an invitation code or an empty one. It
/// holds the same identity as a registration, so also the token.
Json::Value JoinCommand(const RelaydConf& conf, const std::string& code);

/// Sends it, 20 s at most. With `patient`, a hub that gives no answer or is busy counts as one that
/// has not decided yet, since it may only be restarting.
int AskToJoin(const HubOffer& offer, const Json::Value& command, bool patient,
              Admission& admission);

} // namespace ZARO::Relay::ctl
