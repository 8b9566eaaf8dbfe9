/// Takes the control server's commands apart and checks everything in them.
#pragma once

#include <string>
#include <vector>

#include <json/value.h>

#include "hub/store_devices.h"
#include "hub/store_services.h"

namespace ZARO::RelayHub {

/// The numbers of the protocol.
enum class Errno {
    Good = 0,
    Unknown = 1,
    Auth = 2,
    NoSuchCommand = 3,
    Version = 5,
    NoSession = 6,
    Input = 9,
    Limit = 11,
};

/// Parses a batch. False when it is anything but one strict JSON array of at most 16 commands, or
/// when it has more values than a batch can need.
bool ParseBatch(const std::string& body, Json::Value& commands);

// Each of the following returns false when the command is malformed; then its outputs are in any
// state.

/// Takes "register", and what "join" shares with it.
bool TakeIdentity(const Json::Value& command, Identity& identity);

/// Takes the code of "join" as the hub knows it; "" for none.
bool TakeCode(const Json::Value& command, std::string& code);

/// Takes "update_network": `network` gets the known members of the command.
bool TakeNetwork(const Json::Value& command, Json::Value& network);

/// Takes "update_service".
bool TakeServices(const Json::Value& command, std::vector<ServiceRecord>& present,
                  std::vector<std::string>& removed);

/// Takes "wait_command": whose tunnel list, and the revision of it that the device has.
bool TakeWait(const Json::Value& command, std::string& serverId, int& revision);

} // namespace ZARO::RelayHub
